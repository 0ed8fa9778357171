#include "tools/jxcache/histogram_plugin.h"

#include <array>
#include <cstring>

#include "jxcache/kqgp_compute_cache.h"
#include "jxcache/y_vx_suite.h"
#include "tools/jxcache/tool_error.h"

namespace jx::tool {

namespace {

constexpr const char* kClassId = "jxcache.simulate.histogram";

// One call's request: the callbacks see it, and the compute callback marks it, so the caller
// can tell a value it had computed from one the cache already held.
struct Request {
  const FramePayload* frame;
  std::atomic<uint64_t>* computes;  // the asking instance's count
  bool computed = false;
};

struct Value {
  std::array<uint32_t, 256> bins{};
  uint64_t pixels = 0;
};

int32_t GenerateKey(void* request, KQGP_GUID* outKey) {
  const FramePayload* f = static_cast<Request*>(request)->frame;
  const uint32_t v[3] = {f->Width(), f->Height(), f->Frame()};
  std::memcpy(outKey->bytes, "JXHG", 4);
  std::memcpy(outKey->bytes + 4, v, 12);
  return kKQGPComputeCacheNoError;
}

int32_t Compute(void* opaque, intptr_t* outValue) {
  auto* request = static_cast<Request*>(opaque);
  const auto pixels = request->frame->GetPixels();
  if (!pixels) return kKQGPComputeCacheBadParameter;
  auto* value = new Value;
  for (size_t i = 0; i + 3 < pixels->size(); i += 4) {
    const uint32_t y = (54 * (*pixels)[i] + 183 * (*pixels)[i + 1] + 19 * (*pixels)[i + 2]) >> 8;
    ++value->bins[y & 255];
  }
  value->pixels = pixels->size() / 4;
  request->computed = true;
  request->computes->fetch_add(1, std::memory_order_relaxed);
  *outValue = reinterpret_cast<intptr_t>(value);
  return kKQGPComputeCacheNoError;
}

size_t ApproxSize(intptr_t) { return sizeof(Value); }

void Delete(intptr_t value) { delete reinterpret_cast<Value*>(value); }

}  // namespace

HistogramPlugin::HistogramPlugin() {
  const void* table = nullptr;
  if (Y_VX_AcquireVXSuite(kKQGPComputeCacheSuite, kKQGPComputeCacheSuiteVersion1, &table) != 0 ||
      !table) {
    throw ToolError("the compute-cache suite is not published");
  }
  suite_ = static_cast<const KQGP_ComputeCacheSuite1*>(table);
  const KQGP_ComputeCacheCallbacks callbacks = {GenerateKey, Compute, ApproxSize, Delete};
  if (suite_->ClassRegister(kClassId, &callbacks) != kKQGPComputeCacheNoError)
    throw ToolError("the compute-cache suite refused the histogram class");
}

HistogramPlugin::~HistogramPlugin() { suite_->ClassUnregister(kClassId); }

uint64_t HistogramPlugin::Histogram(const FramePayload& frame) {
  calls_.fetch_add(1, std::memory_order_relaxed);
  Request request{&frame, &computes_};
  KQGP_JXComputeReceipt receipt = nullptr;
  intptr_t value = 0;
  uint64_t pixels = 0;
  if (suite_->ComputeIfNeededAndCheckout(kClassId, &request, true, &receipt) ==
          kKQGPComputeCacheNoError &&
      suite_->GetReceiptComputeValue(receipt, &value) == kKQGPComputeCacheNoError && value) {
    pixels = reinterpret_cast<const Value*>(value)->pixels;
  }
  suite_->CheckinReceipt(receipt);
  if (pixels == 0) {
    failures_.fetch_add(1, std::memory_order_relaxed);
  } else if (!request.computed) {
    hits_.fetch_add(1, std::memory_order_relaxed);
  }
  return pixels;
}

}  // namespace jx::tool
