// The frames of `jxcache simulate`: a rendered RGBA8 image of one frame of the timeline, and the
// payload class that caches it.
//
// Rendering is real CPU work (a composite of procedural layers: some 20-30 ms per 1280x720 frame
// on one core of a small virtual machine, more than reading the frame back costs), so the
// cache's write-worthiness rule sees real compute times. The payload is disk-cacheable: its
// header names width, height and frame index, which is all its factory needs to rebuild an empty
// payload from a disk cache file name; Write and Read move the pixels, followed by a checksum of
// them, so that a damaged file is refused instead of shown.
//
// Threads: the cache calls PurgeIfPossible and Read under the item's write lock and the size and
// residency queries under the item's lock or none; the pixel pointer has its own small mutex so
// that those never race. Pixels are read only while the item is checked out, which keeps a purge
// from taking them away.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "jxcache/host/guid.h"
#include "jxcache/items/stuff_data.h"

namespace jx::tool {

// The largest frame the tool makes: `simulate` refuses a larger size, and the frame factory a
// cache file whose name claims one, which can only be a damaged name.
inline constexpr uint64_t kMaxFrameBytes = uint64_t{1} << 31;

// Which frames have their pixels in memory, kept by the payloads themselves: a render or a read
// from disk puts a frame's pixels in, the cache purging the payload takes them out. Renders are
// sorted by what the cache held at that moment: a frame's first render in the run, a render
// after the cache had purged it, and a render while its pixels were still in memory, which a
// cache that renders each frame once must never allow. The ledger follows the cache's own purge
// calls, so these figures do not depend on how long anything took. Thread-safe.
class FrameLedger {
 public:
  explicit FrameLedger(uint32_t frames);
  void Rendered(uint32_t frame);
  void Loaded(uint32_t frame);
  void Purged(uint32_t frame);

  uint64_t FirstRenders() const { return firstRenders_.load(); }
  uint64_t RendersAfterPurge() const { return rendersAfterPurge_.load(); }
  uint64_t RendersWhileInMemory() const { return rendersWhileInMemory_.load(); }

 private:
  std::vector<std::atomic<int>> inMemory_;
  std::vector<std::atomic<bool>> rendered_;
  std::atomic<uint64_t> firstRenders_{0}, rendersAfterPurge_{0}, rendersWhileInMemory_{0};
};

class FramePayload : public JX_StuffData {
 public:
  static constexpr const char* kMatchname = "JxSimFrame";
  // Bytes left uninitialised on allocation: every byte is written at once by the render or the
  // read, and zeroing megabytes first doubles the cost of touching fresh pages.
  template <class T>
  struct UninitializedAllocator : std::allocator<T> {
    template <class U>
    struct rebind {
      using other = UninitializedAllocator<U>;
    };
    UninitializedAllocator() = default;
    template <class U>
    UninitializedAllocator(const UninitializedAllocator<U>&) noexcept {}
    template <class U>
    void construct(U* p) noexcept {
      ::new (static_cast<void*>(p)) U;
    }
    template <class U, class... Args>
    void construct(U* p, Args&&... args) {
      ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
    }
  };
  using Pixels = std::vector<uint8_t, UninitializedAllocator<uint8_t>>;

  // An empty payload of the frame: a request, or a payload about to be read from disk. A payload
  // with a ledger reports its pixels coming and going there; the ledger must outlive it.
  FramePayload(uint32_t width, uint32_t height, uint32_t frame, FrameLedger* ledger = nullptr);
  // The key of a frame: the same in every run, so that a run finds the files of earlier ones.
  static zelcore::utility::Guid KeyOf(uint32_t width, uint32_t height, uint32_t frame);
  // Renders the frame's procedural image.
  static IntrusivePtr<FramePayload> Render(uint32_t width, uint32_t height, uint32_t frame,
                                           FrameLedger* ledger = nullptr);
  // The payload factory for the disk scan; registered after every JX_Birth (JX_Death forgets).
  // The payloads it makes report to `ledger` (may be null). A header with no pixels or more than
  // kMaxFrameBytes of them gets no payload: the file is not adopted.
  static void RegisterFactory(FrameLedger* ledger);
  // The colour the procedural image of a width x height frame has at (x, y): checks a frame read
  // back.
  static void ExpectedPixel(uint32_t width, uint32_t height, uint32_t x, uint32_t y, uint32_t frame,
                            uint8_t rgba[4]);

  unsigned int GetApproximateMemorySize() const override;
  bool PurgeIfPossible(ReleaseQueue* toRelease) override;
  bool IsInMemory() const override;
  bool CanDiskCache() const override { return true; }
  const char* GetSubclassMatchname() const override { return kMatchname; }
  void GetHeader(Header& header) const override;
  // The pixels, then the checksum trailer. Throws FileError when the pixels were purged meanwhile
  // (a file without them could never be read back).
  double Write(zelcore::filesupport::OByteStream& out) const override;
  // Takes the pixels only when the stream holds all of them and their checksum matches: throws
  // CorruptDataError otherwise (before allocating anything when the stream is too short) and
  // leaves the payload as it was.
  double Read(zelcore::filesupport::IByteStream& in,
              zelcore::threads::MultiTenantRecursiveMutex& itemMutex) override;
  bool CanSatisfyRequest(IntrusivePtr<JX_StuffData> request) const override;

  uint32_t Width() const { return width_; }
  uint32_t Height() const { return height_; }
  uint32_t Frame() const { return frame_; }
  size_t ByteCount() const { return size_t{width_} * height_ * 4; }
  // The pixels, or empty when purged; hold a check-out while using them.
  std::shared_ptr<const Pixels> GetPixels() const;
  // Whether sampled pixels match the procedural image (catches a corrupt disk read).
  bool Verify() const;
  // Takes the payload out of the ledger's figures for good, leaving its pixels to whoever still
  // holds it: a wrong frame dropped from the cache is no copy of the frame it claims to be.
  void Disown();
  // Pixel reads from disk done by the calling thread so far: tells a thread that read a frame
  // back itself from one that found it read by another thread meanwhile.
  static uint64_t ReadsOnThisThread();
  // When the render that produced these pixels finished (a steady-clock time stamp; 0 if read).
  uint64_t RenderedAt() const { return renderedAt_; }

 private:
  const uint32_t width_, height_, frame_;
  FrameLedger* const ledger_;
  uint64_t renderedAt_ = 0;
  mutable std::mutex mutex_;  // guards pixels_ and disowned_
  std::shared_ptr<Pixels> pixels_;
  bool disowned_ = false;
};

}  // namespace jx::tool
