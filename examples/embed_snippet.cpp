// The README's "Embedding the library in a host", as a program the tests build and run: a host
// that provides the library's services itself (host/host_services.h), without the stand-in host
// jxcache's own tools use. It starts the cache, asks for a frame (rendered), asks again (found in
// memory), has it written to the disk cache, purges it when over its budget, asks a third time
// (read back from disk, checksum verified) and shuts down. The lines between the [readme]
// markers are the README's.
//
// Usage: jx_embed_snippet DISK_CACHE_FOLDER. Exits 0 when the frame was rendered exactly once and
// shown three times, the third time from disk.
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <jxcache/bag/bag.h>
#include <jxcache/disk/disk_hooks.h>
#include <jxcache/disk/performance_counters.h>
#include <jxcache/host/high_precision_time.h>
#include <jxcache/host/host_services.h>
#include <jxcache/items/checksummed_stream.h>
#include <jxcache/items/sc_checkout.h>
#include <jxcache/lifecycle/lifecycle.h>

namespace cf = jx::checkout_flags;
namespace ci = jx::checkin_flags;
using zelcore::utility::Guid;
using zelcore::utility::IntrusivePtr;

namespace {

constexpr size_t kFrameBytes = 640 * 360 * 4;
int gRenders = 0, gShown = 0;

// [readme] services
// The host's side of the cache: its memory budget, its reports, its settings. Whatever a host
// leaves out keeps the library's default (the clock, threads and files here).
class HostMemory : public jx::host::MemoryBudget {
 public:
  int32_t GetMemUsageLimits(uint64_t* limit, uint64_t* soft) override {
    *limit = *soft = kBudget;
    return 0;
  }
  uint64_t AmountAvailableBeforePurge() override { return kBudget; }
  // While the host purges, how much it still wants back.
  uint64_t AmountToPurge() override { return overBudget.load(); }
  void PurgeRecycledMemory(uint64_t) override {}
  void* AllocateCleared(size_t size, const char*) override { return std::calloc(1, size); }
  void FreeCleared(void* p) override { std::free(p); }
  void* AllocateTracked(size_t size) override { return ::operator new(size); }
  void FreeTracked(void* p) override { ::operator delete(p); }

  static constexpr uint64_t kBudget = 4ull << 20;
  std::atomic<uint64_t> overBudget{0};
};

class HostReports : public jx::host::Reports {
 public:
  void FailedVerification(const std::string& text, bool quiet) override { Print(text, quiet); }
  void ErrorString(int32_t, int32_t, const std::u16string& text, bool quiet) override {
    Print(Narrow(text), quiet);
  }
  void Error(const std::u16string& text, bool quiet) override { Print(Narrow(text), quiet); }
  void Exception(int32_t code, const std::string& text, bool quiet) override {
    Print(text + " (" + std::to_string(code) + ")", quiet);
  }
  bool IsOnMainThread() override { return std::this_thread::get_id() == mainThread; }
  bool Translate(const std::string&, std::u16string*) override { return false; }
  void Log(int, const char*, const char*, const char*) override {}

  const std::thread::id mainThread = std::this_thread::get_id();

 private:
  // Enough for the library's messages, which are ASCII but for a typographic apostrophe.
  static std::string Narrow(const std::u16string& text) {
    std::string out;
    for (char16_t c : text) out += c < 0x80 ? static_cast<char>(c) : '\'';
    return out;
  }
  static void Print(const std::string& text, bool quiet) {
    if (!quiet) std::fprintf(stderr, "host: %s\n", text.c_str());
  }
};

class HostSettings : public jx::host::Settings {
 public:
  std::optional<std::string> DebugEntry(const std::string&) override { return std::nullopt; }
  std::optional<std::string> Preference(const std::string& group,
                                        const std::string& name) override {
    if (group != "Additional Disk Cache Controls") return std::nullopt;
    // Write even the small frames of this example, on whatever volume it runs.
    if (name == "Proclivity Multiplier 2") return "0.001";
    if (name == "Minimum Volume Free Space (Gigabytes)") return "0";
    return std::nullopt;
  }
  bool IsFeatureEnabled(const std::string&, bool declaredDefault) override {
    return declaredDefault;
  }
};
// [readme end]

// The host's frame: an image held in memory; an empty one stands for a request or a frame about
// to be read back. One thread uses it here; a payload shared by threads guards its pixels
// (tools/jxcache/frame_payload.cpp).
class Frame : public JX_StuffData {
 public:
  explicit Frame(bool rendered) {
    if (!rendered) return;
    pixels_ = std::make_shared<std::vector<uint8_t>>(kFrameBytes);
    for (size_t i = 0; i < kFrameBytes; ++i) (*pixels_)[i] = static_cast<uint8_t>(i * 7);
  }
  unsigned int GetApproximateMemorySize() const override { return pixels_ ? kFrameBytes : 0; }
  bool PurgeIfPossible(ReleaseQueue* toRelease) override {
    std::shared_ptr<void> pixels = std::move(pixels_);
    if (!pixels) return false;
    if (toRelease) toRelease->push_back(std::move(pixels));  // freed after the cache's locks
    return true;
  }
  bool IsInMemory() const override { return pixels_ != nullptr; }
  bool CanDiskCache() const override { return true; }
  const char* GetSubclassMatchname() const override { return "EmbedFrame"; }
  // The disk body carries a checksum, and a short file is refused before anything is allocated.
  double Write(zelcore::filesupport::OByteStream& out) const override {
    jx::ChecksummedOByteStream sealed(out);
    sealed.Write(pixels_->data(), pixels_->size());
    sealed.Finish();
    return 0.0;
  }
  double Read(zelcore::filesupport::IByteStream& in,
              zelcore::threads::MultiTenantRecursiveMutex&) override {
    jx::ChecksummedIByteStream sealed(in);
    sealed.ExpectAtLeast(kFrameBytes, "frame");
    auto pixels = std::make_shared<std::vector<uint8_t>>(kFrameBytes);
    sealed.ReadExactly(pixels->data(), pixels->size());
    sealed.Verify();
    pixels_ = std::move(pixels);
    return 0.0;
  }
  bool Good() const {
    if (!pixels_) return false;
    for (size_t i = 0; i < kFrameBytes; ++i)
      if ((*pixels_)[i] != static_cast<uint8_t>(i * 7)) return false;
    return true;
  }

 private:
  std::shared_ptr<std::vector<uint8_t>> pixels_;
};

IntrusivePtr<JX_StuffData> MakeFrameRequest(const Guid&) {
  return IntrusivePtr<JX_StuffData>(new Frame(false));
}

IntrusivePtr<JX_StuffData> RenderFrame(const Guid&) {
  ++gRenders;
  return IntrusivePtr<JX_StuffData>(new Frame(true));
}

void Show(const IntrusivePtr<JX_StuffData>& frame) {
  auto* f = dynamic_cast<Frame*>(frame.get());
  if (f && f->Good()) ++gShown;
}

// Shows the frame for `key`; `checkinFlags` 0 normally (kWriteNow to ask for a disk copy now).
void ShowFrame(const Guid& key, int checkinFlags) {
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
  frame.SetCheckinFlags(checkinFlags);
}

// The frame of `key` has its disk copy (written now, or found from an earlier run) and the
// writer has handed it back (a checked-out item is not purged); bounded: an example must not
// hang.
bool WaitForTheWriter(const Guid& key) {
  for (int i = 0; i < 5000; ++i) {
    auto request = JX_Stuff::CreateNew(MakeFrameRequest(key), 0.0);
    request->SetGuid(key);
    JX_ScCheckout frame;
    frame.FindAndCheckout(request, cf::kReadOnly | cf::kNoDiskRead);
    if (JX_GetQueuedDiskWriteCount() == 0 && frame.IsOnDisk() &&
        frame.GetStuffPtr()->GetCheckoutCount() == 1) {
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s DISK_CACHE_FOLDER\n", argv[0]);
    return 2;
  }
  const std::string cacheFolder = argv[1];
  std::error_code ec;
  std::filesystem::create_directories(cacheFolder,
                                      ec);  // the preference names a folder that exists
  // [readme] start
  // At start-up: the host's services first, then the library.
  static HostMemory memory;  // they must outlive the library
  static HostReports reports;
  static HostSettings settings;
  jx::host::Services services;
  services.memory = &memory;
  services.reports = &reports;
  services.settings = &settings;
  jx::host::Install(services);
  JX_Birth(/*mediaMapAllowed=*/true, /*appVersion=*/1, /*gfxpakLimitAllowed=*/false);
  JX_VX_Birth();  // publishes the plug-in suite
  JX_StuffData::Factory rebuild = [](const JX_StuffData::Header&) {
    return IntrusivePtr<JX_StuffData>(new Frame(false));  // a folder scan rebuilds frames
  };
  JX_StuffData::RegisterFactory("EmbedFrame", rebuild);
  JX_GlobalBag()->EnableDiskCache(true);  // the host's switch; an unusable folder turns it off
  JX_GlobalBag()->SetDiskCacheInfo(cacheFolder, 2ll << 30);  // reads the preferences above
  // [readme end]

  std::array<uint8_t, 16> bytes{};
  std::memcpy(bytes.data(), "embed-example-01", 16);
  const Guid key(bytes);
  ShowFrame(key, 0);              // rendered
  ShowFrame(key, ci::kWriteNow);  // found in memory, and written to disk
  const bool written = WaitForTheWriter(key);

  // [readme] stop
  // When the host is over its memory budget by `excess` bytes: the purge frees items with a
  // disk copy first, and asks AmountToPurge() as it goes.
  const unsigned long long excess = 1ull << 20;
  memory.overBudget = excess;
  JX_GlobalBag()->FreeUpSomeMemory(excess);
  memory.overBudget = 0;
  // [readme end]
  const uint64_t readsBefore = JX_GetDiskPerformanceCounters().filesRead;
  ShowFrame(key, 0);  // read back from disk
  const bool readBack = JX_GetDiskPerformanceCounters().filesRead == readsBefore + 1;

  // [readme] shut-down
  JX_StopAllAsyncWork();
  JX_Death();
  // [readme end]

  if (gRenders != 1 || gShown != 3 || !written || !readBack) {
    std::fprintf(stderr,
                 "embed example: %d renders, %d frames shown (want 1 and 3), written %d, read "
                 "back from disk %d\n",
                 gRenders, gShown, written, readBack);
    return 1;
  }
  std::printf("embed example: rendered once, shown three times, the last from disk\n");
  return 0;
}
