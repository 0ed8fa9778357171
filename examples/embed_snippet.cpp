// The README's "Embedding the library in a host", as a program the tests build and run, so that
// the example keeps compiling and keeps doing what the README says: a host starts the cache,
// asks for a frame twice (rendered the first time, found the second), keeps the cache inside a
// budget and shuts it down. The lines between the [readme] markers are the README's.
//
// Usage: jx_embed_snippet DISK_CACHE_FOLDER. Exits 0 when the frame was rendered exactly once.
#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "bag/bag.h"
#include "host/feature.h"
#include "host/high_precision_time.h"
#include "items/sc_checkout.h"
#include "lifecycle/lifecycle.h"

namespace cf = jx::checkout_flags;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

int gRenders = 0, gShown = 0;

// The host's frame: an image held in memory; an empty one stands for a request. One thread uses
// it here; a payload shared by threads guards its pixels (tools/jxcache/frame_payload.cpp).
class Frame : public JX_StuffData {
 public:
  explicit Frame(size_t bytes)
      : pixels_(bytes ? std::make_shared<std::vector<uint8_t>>(bytes) : nullptr) {}
  unsigned int GetApproximateMemorySize() const override {
    return pixels_ ? static_cast<unsigned int>(pixels_->size()) : 0;
  }
  bool PurgeIfPossible(ReleaseQueue* toRelease) override {
    std::shared_ptr<void> pixels = std::move(pixels_);
    if (!pixels) return false;
    // Freed once the cache has let go of its locks.
    if (toRelease) toRelease->push_back(std::move(pixels));
    return true;
  }
  bool IsInMemory() const override { return pixels_ != nullptr; }

 private:
  std::shared_ptr<std::vector<uint8_t>> pixels_;
};

IntrusivePtr<JX_StuffData> MakeFrameRequest(const Guid&) {
  return IntrusivePtr<JX_StuffData>(new Frame(0));
}

IntrusivePtr<JX_StuffData> RenderFrame(const Guid&) {
  ++gRenders;
  return IntrusivePtr<JX_StuffData>(new Frame(1920 * 1080 * 4));
}

void Show(const IntrusivePtr<JX_StuffData>& frame) {
  if (frame && frame->IsInMemory()) ++gShown;
}

void ShowFrame(const Guid& key) {
  // [readme] render
  // On a render thread: the frame for `key`, rendered here only if nobody has it.
  auto request = JX_Stuff::CreateNew(MakeFrameRequest(key), 0.0);
  request->SetGuid(key);
  JX_ScCheckout frame;  // checks the item in when it goes out of scope
  const JX_CheckoutResult result =
      frame.FindAndCheckout(request, cf::kReadOnly | cf::kCreatePending | cf::kWaitAlways);
  if (result == kJX_CreatedPending) {  // ours to render; the setter abandons it if we throw
    JX_ScStuffSetter setter(frame.GetStuffPtr());
    zelcore::utility::Timer timer;
    IntrusivePtr<JX_StuffData> pixels = RenderFrame(key);
    frame.GetStuffPtr()->SetStuffDataFromPendingRender(pixels, timer.GetElapsedSeconds());
  }
  // Refused: the render this call waited for failed.
  if (result != kJX_CheckoutRefused) Show(frame.GetStuffPtr()->GetDataPtr());
  // [readme end]
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s DISK_CACHE_FOLDER\n", argv[0]);
    return 2;
  }
  const std::string cacheFolder = argv[1];
  // [readme] start
  // At start-up. The disk cache preferences are read by SetDiskCacheInfo.
  JX_Birth(/*mediaMapAllowed=*/true, /*appVersion=*/1, /*gfxpakLimitAllowed=*/false);
  JX_VX_Birth();  // publishes the plug-in suite
  zelappsupport::preferences::SetValue("Additional Disk Cache Controls", "Proclivity Multiplier 2",
                                       "1.0");
  JX_GlobalBag()->EnableDiskCache(true);  // the host's switch; an unusable folder turns it off
  JX_GlobalBag()->SetDiskCacheInfo(cacheFolder, 2ll << 30);
  // [readme end]

  std::array<uint8_t, 16> bytes{};
  std::memcpy(bytes.data(), "embed-example-01", 16);
  const Guid key(bytes);
  ShowFrame(key);
  ShowFrame(key);

  const unsigned long long excess = 1ull << 20;
  // [readme] stop
  // When the host is over its memory budget by `excess` bytes (Y_AmountToPurge() answers how
  // much while the walk runs):
  jx::PurgeOverBudget(*JX_GlobalBag(), excess);
  // At shut-down:
  JX_StopAllAsyncWork();
  JX_Death();
  // [readme end]

  if (gRenders != 1 || gShown != 2) {
    std::fprintf(stderr, "embed example: %d renders, %d frames shown (want 1 and 2)\n", gRenders,
                 gShown);
    return 1;
  }
  return 0;
}
