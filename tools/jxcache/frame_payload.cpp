#include "tools/jxcache/frame_payload.h"

#include <cmath>
#include <cstring>

#include "host/high_precision_time.h"

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

// A moving interference pattern with a little per-pixel grain: several table look-ups and a hash
// per pixel, which is what makes a frame cost milliseconds.
inline void Shade(uint32_t x, uint32_t y, uint32_t frame, const int16_t* sine, uint8_t* px) {
  const uint32_t t = frame * 7;
  const int a = sine[(x * 3 + t) & (kSineSteps - 1)];
  const int b = sine[(y * 5 + 2 * t) & (kSineSteps - 1)];
  const int c = sine[((x + y) * 2 + 3 * t) & (kSineSteps - 1)];
  const int d = sine[((x * x + y * y) / 64 + 5 * t) & (kSineSteps - 1)];
  uint32_t h = (x * 0x9E3779B1u) ^ (y * 0x85EBCA77u) ^ (frame * 0xC2B2AE3Du);
  h ^= h >> 15;
  h *= 0x2C1B3C6Du;
  h ^= h >> 12;
  const int grain = static_cast<int>(h & 15) - 8;
  px[0] = static_cast<uint8_t>(128 + (a + c) / 2 + grain);
  px[1] = static_cast<uint8_t>(128 + (b + d) / 2 + grain);
  px[2] = static_cast<uint8_t>(128 + (a + d) / 2 - grain);
  px[3] = 255;
}

}  // namespace

FramePayload::FramePayload(uint32_t width, uint32_t height, uint32_t frame)
    : width_(width), height_(height), frame_(frame) {}

zelcore::utility::IntrusivePtr<FramePayload> FramePayload::Render(uint32_t width, uint32_t height,
                                                                  uint32_t frame) {
  IntrusivePtr<FramePayload> payload(new FramePayload(width, height, frame));
  auto pixels = std::make_shared<Pixels>(payload->ByteCount());
  const int16_t* sine = SineTable();
  uint8_t* px = pixels->data();
  for (uint32_t y = 0; y < height; ++y) {
    for (uint32_t x = 0; x < width; ++x, px += 4) Shade(x, y, frame, sine, px);
  }
  payload->pixels_ = std::move(pixels);
  payload->renderedAt_ = zelcore::utility::HighPrecisionTime::GetCurrentTimeStamp();
  return payload;
}

void FramePayload::ExpectedPixel(uint32_t x, uint32_t y, uint32_t frame, uint8_t rgba[4]) {
  Shade(x, y, frame, SineTable(), rgba);
}

void FramePayload::RegisterFactory() {
  Factory factory = [](const Header& header) -> IntrusivePtr<JX_StuffData> {
    if (header.size() != 12) return {};
    uint32_t v[3];
    std::memcpy(v, header.data(), 12);
    if (v[0] == 0 || v[1] == 0 || uint64_t{v[0]} * v[1] * 4 > UINT32_MAX) return {};
    return IntrusivePtr<JX_StuffData>(new FramePayload(v[0], v[1], v[2]));
  };
  JX_StuffData::RegisterFactory(kMatchname, factory);
}

unsigned int FramePayload::GetApproximateMemorySize() const {
  return IsInMemory() ? static_cast<unsigned int>(ByteCount()) : 0;
}

bool FramePayload::PurgeIfPossible(ReleaseQueue* toRelease) {
  std::shared_ptr<Pixels> pixels;
  {
    std::lock_guard<std::mutex> l(mutex_);
    pixels = std::move(pixels_);
  }
  if (!pixels) return false;
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
  if (pixels) out.Write(pixels->data(), pixels->size());
  return 0.0;
}

double FramePayload::Read(zelcore::filesupport::IByteStream& in,
                          zelcore::threads::MultiTenantRecursiveMutex&) {
  zelcore::utility::Timer timer;
  auto pixels = std::make_shared<Pixels>(ByteCount());
  in.ReadExactly(pixels->data(), pixels->size());
  {
    std::lock_guard<std::mutex> l(mutex_);
    pixels_ = std::move(pixels);
  }
  ++tReads;
  return timer.GetElapsedSeconds();
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
    ExpectedPixel(cx, cy, frame_, want);
    if (std::memcmp(pixels->data() + (size_t{cy} * width_ + cx) * 4, want, 4) != 0) return false;
  }
  return true;
}

}  // namespace jx::tool
