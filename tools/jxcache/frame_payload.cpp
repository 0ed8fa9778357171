#include "tools/jxcache/frame_payload.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>

#include "jxcache/host/high_precision_time.h"
#include "jxcache/items/checksummed_stream.h"

namespace jx::tool {
namespace {

constexpr int kSineSteps = 1024;

thread_local uint64_t tReads = 0;

const int16_t* SineTable() {
  static const auto table = [] {
    static int16_t t[kSineSteps];
    for (int i = 0; i < kSineSteps; ++i)
      t[i] = static_cast<int16_t>(std::lround(127.0 * std::sin(2.0 * M_PI * i / kSineSteps)));
    return t;
  }();
  return table;
}

// The layers of the shot, each a pure function of (x, y, frame) in integer arithmetic, so that a
// single pixel can be recomputed exactly to check a frame read back from disk.

// Background plate: a moving interference pattern.
inline void Background(uint32_t x, uint32_t y, uint32_t frame, const int16_t* sine, int rgb[3]) {
  const uint32_t t = frame * 7;
  const int a = sine[(x * 3 + t) & (kSineSteps - 1)];
  const int b = sine[(y * 5 + 2 * t) & (kSineSteps - 1)];
  const int c = sine[((x + y) * 2 + 3 * t) & (kSineSteps - 1)];
  const int d = sine[((x * x + y * y) / 64 + 5 * t) & (kSineSteps - 1)];
  rgb[0] = 128 + (a + c) / 2;
  rgb[1] = 128 + (b + d) / 2;
  rgb[2] = 128 + (a + d) / 2;
}

inline uint32_t Mix(uint32_t h) {
  h ^= h >> 15;
  h *= 0x2C1B3C6Du;
  h ^= h >> 12;
  h *= 0x297A2D39u;
  h ^= h >> 15;
  return h;
}

// The value (0..255) of one lattice point of an octave of noise.
inline int Lattice(uint32_t ix, uint32_t iy, uint32_t octave) {
  return static_cast<int>(Mix(ix * 0x27D4EB2Du ^ iy * 0x165667B1u ^ octave * 0x9E3779B1u) >> 24);
}

// Smooth interpolation weight of a fraction f/cell, in 1/256ths.
inline int Smooth(uint32_t f, uint32_t shift) {
  const int w = static_cast<int>((f << 8) >> shift);  // 0..255
  return (w * w * (768 - 2 * w)) >> 16;
}

// Matte layer: fractal value noise (smoke drifting across the plate), 0..255.
constexpr uint32_t kOctaves = 2;
inline int Smoke(uint32_t x, uint32_t y, uint32_t frame) {
  int sum = 0;
  for (uint32_t o = 0; o < kOctaves; ++o) {
    const uint32_t shift = 6 - 2 * o;  // cells of 64, then 16 pixels
    const uint32_t px = x + frame * (3 + o) + 4096, py = y + frame * (1 + o) + 4096;
    const uint32_t ix = px >> shift, iy = py >> shift;
    const uint32_t mask = (1u << shift) - 1;
    const int wx = Smooth(px & mask, shift), wy = Smooth(py & mask, shift);
    const int v00 = Lattice(ix, iy, o), v10 = Lattice(ix + 1, iy, o);
    const int v01 = Lattice(ix, iy + 1, o), v11 = Lattice(ix + 1, iy + 1, o);
    const int top = v00 * 256 + (v10 - v00) * wx, bottom = v01 * 256 + (v11 - v01) * wx;
    const int v = (top * 256 + (bottom - top) * wy) >> 16;  // 0..255
    sum += v >> (o + 1);                                    // amplitude halves per octave
  }
  return sum * 255 / 190;  // 190: the most the octaves add up to
}

// What every pixel of one frame shares.
struct Shot {
  Shot(uint32_t width, uint32_t height, uint32_t frame)
      : width(width),
        height(height),
        frame(frame),
        reciprocal((uint64_t{256} << 32) / (uint64_t{width} * width + uint64_t{height} * height)),
        sine(SineTable()) {}
  const uint32_t width, height, frame;
  // 256 * 2^32 over the squared diagonal: the vignette multiplies by it instead of dividing.
  const uint64_t reciprocal;
  const int16_t* const sine;
};

// The composite: smoke over the plate through its own matte, a lens vignette, film grain.
inline void Shade(const Shot& shot, uint32_t x, uint32_t y, uint8_t* px) {
  int plate[3];
  Background(x, y, shot.frame, shot.sine, plate);
  const int smoke = Smoke(x, y, shot.frame);
  const int alpha = std::clamp((smoke - 96) * 2, 0, 255);
  static constexpr int kSmokeColour[3] = {236, 228, 214};
  // Vignette: 1 at the centre down to 5/8 in the corners, in 1/256ths.
  const int64_t dx = 2 * int64_t{x} - shot.width, dy = 2 * int64_t{y} - shot.height;
  const int r2 =
      static_cast<int>((static_cast<uint64_t>(dx * dx + dy * dy) * shot.reciprocal) >> 32);
  const int vignette = 256 - r2 * 3 / 8;
  const uint32_t h = Mix((x * 0x9E3779B1u) ^ (y * 0x85EBCA77u) ^ (shot.frame * 0xC2B2AE3Du));
  const int grain = static_cast<int>(h & 15) - 8;
  for (int c = 0; c < 3; ++c) {
    const int over = (kSmokeColour[c] * alpha + plate[c] * (255 - alpha)) / 255;
    px[c] = static_cast<uint8_t>(std::clamp(over * vignette / 256 + grain, 0, 255));
  }
  px[3] = 255;
}

}  // namespace

FrameLedger::FrameLedger(uint32_t frames) : inMemory_(frames), rendered_(frames) {}

void FrameLedger::Rendered(uint32_t frame) {
  if (frame >= inMemory_.size()) return;
  if (inMemory_[frame].fetch_add(1) > 0) {
    rendersWhileInMemory_.fetch_add(1);
  } else if (rendered_[frame].exchange(true)) {
    rendersAfterPurge_.fetch_add(1);
  } else {
    firstRenders_.fetch_add(1);
  }
}

void FrameLedger::Loaded(uint32_t frame) {
  if (frame < inMemory_.size()) inMemory_[frame].fetch_add(1);
}

void FrameLedger::Purged(uint32_t frame) {
  if (frame < inMemory_.size()) inMemory_[frame].fetch_sub(1);
}

zelcore::utility::Guid FramePayload::KeyOf(uint32_t width, uint32_t height, uint32_t frame) {
  std::array<uint8_t, 16> bytes{};
  const uint32_t v[3] = {width, height, frame};
  std::memcpy(bytes.data(), "JXSF", 4);
  std::memcpy(bytes.data() + 4, v, 12);
  return zelcore::utility::Guid(bytes);
}

FramePayload::FramePayload(uint32_t width, uint32_t height, uint32_t frame, FrameLedger* ledger)
    : width_(width), height_(height), frame_(frame), ledger_(ledger) {}

zelcore::utility::IntrusivePtr<FramePayload> FramePayload::Render(uint32_t width, uint32_t height,
                                                                  uint32_t frame,
                                                                  FrameLedger* ledger) {
  IntrusivePtr<FramePayload> payload(new FramePayload(width, height, frame, ledger));
  auto pixels = std::make_shared<Pixels>(payload->ByteCount());
  const Shot shot(width, height, frame);
  uint8_t* px = pixels->data();
  for (uint32_t y = 0; y < height; ++y) {
    for (uint32_t x = 0; x < width; ++x, px += 4) Shade(shot, x, y, px);
  }
  payload->pixels_ = std::move(pixels);
  payload->renderedAt_ = zelcore::utility::HighPrecisionTime::GetCurrentTimeStamp();
  if (ledger) ledger->Rendered(frame);
  return payload;
}

void FramePayload::ExpectedPixel(uint32_t width, uint32_t height, uint32_t x, uint32_t y,
                                 uint32_t frame, uint8_t rgba[4]) {
  Shade(Shot(width, height, frame), x, y, rgba);
}

void FramePayload::RegisterFactory(FrameLedger* ledger) {
  Factory factory = [ledger](const Header& header) -> IntrusivePtr<JX_StuffData> {
    if (header.size() != 12) return {};
    uint32_t v[3];
    std::memcpy(v, header.data(), 12);
    if (v[0] == 0 || v[1] == 0 || uint64_t{v[0]} * v[1] * 4 > kMaxFrameBytes) return {};
    return IntrusivePtr<JX_StuffData>(new FramePayload(v[0], v[1], v[2], ledger));
  };
  JX_StuffData::RegisterFactory(kMatchname, factory);
}

unsigned int FramePayload::GetApproximateMemorySize() const {
  return IsInMemory() ? static_cast<unsigned int>(ByteCount()) : 0;
}

bool FramePayload::PurgeIfPossible(ReleaseQueue* toRelease) {
  std::shared_ptr<Pixels> pixels;
  bool counted;
  {
    std::lock_guard<std::mutex> l(mutex_);
    pixels = std::move(pixels_);
    counted = !disowned_;
  }
  if (!pixels) return false;
  if (ledger_ && counted) ledger_->Purged(frame_);
  // The memory goes back after the cache's locks are released, when the queue's owner drops it.
  if (toRelease) toRelease->push_back(std::move(pixels));
  return true;
}

bool FramePayload::IsInMemory() const {
  std::lock_guard<std::mutex> l(mutex_);
  return pixels_ != nullptr;
}

void FramePayload::GetHeader(Header& header) const {
  const uint32_t v[3] = {width_, height_, frame_};
  header.resize(12);
  std::memcpy(header.data(), v, 12);
}

double FramePayload::Write(zelcore::filesupport::OByteStream& out) const {
  auto pixels = GetPixels();
  if (!pixels) throw zelcore::filesupport::FileError(EINVAL, "frame purged before its write");
  ChecksummedOByteStream sum(out);
  sum.Write(pixels->data(), pixels->size());
  sum.Finish();
  return 0.0;
}

double FramePayload::Read(zelcore::filesupport::IByteStream& in,
                          zelcore::threads::MultiTenantRecursiveMutex&) {
  zelcore::utility::Timer timer;
  ChecksummedIByteStream sum(in);
  // The header comes from the file's name: a damaged one must not make us allocate more than the
  // file holds.
  sum.ExpectAtLeast(ByteCount(), "frame pixels");
  auto pixels = std::make_shared<Pixels>(ByteCount());
  sum.ReadExactly(pixels->data(), pixels->size());
  sum.Verify();
  bool filled;
  {
    std::lock_guard<std::mutex> l(mutex_);
    filled = pixels_ == nullptr && !disowned_;
    pixels_ = std::move(pixels);
  }
  if (filled && ledger_) ledger_->Loaded(frame_);
  ++tReads;
  return timer.GetElapsedSeconds();
}

void FramePayload::Disown() {
  bool counted;
  {
    std::lock_guard<std::mutex> l(mutex_);
    counted = pixels_ != nullptr && !disowned_;
    disowned_ = true;
  }
  if (ledger_ && counted) ledger_->Purged(frame_);
}

bool FramePayload::CanSatisfyRequest(IntrusivePtr<JX_StuffData> request) const {
  auto* other = dynamic_cast<FramePayload*>(request.get());
  return !other ||
         (other->width_ == width_ && other->height_ == height_ && other->frame_ == frame_);
}

uint64_t FramePayload::ReadsOnThisThread() { return tReads; }

std::shared_ptr<const FramePayload::Pixels> FramePayload::GetPixels() const {
  std::lock_guard<std::mutex> l(mutex_);
  return pixels_;
}

bool FramePayload::Verify() const {
  auto pixels = GetPixels();
  if (!pixels || pixels->size() != ByteCount()) return false;
  // A spread of sample points, corners included: a short or shifted read shows up.
  for (uint32_t i = 0; i < 16; ++i) {
    const uint32_t x = (i * 7919u) % width_, y = (i * 104729u) % height_;
    const uint32_t cx = (i == 0) ? 0 : (i == 1 ? width_ - 1 : x);
    const uint32_t cy = (i == 0) ? 0 : (i == 1 ? height_ - 1 : y);
    uint8_t want[4];
    ExpectedPixel(width_, height_, cx, cy, frame_, want);
    if (std::memcmp(pixels->data() + (size_t{cy} * width_ + cx) * 4, want, 4) != 0) return false;
  }
  return true;
}

}  // namespace jx::tool
