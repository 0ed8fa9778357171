#include "compute/compute_suite.h"

#include "compute/compute_core.h"
#include "compute/compute_registry.h"
#include "host/y_api.h"

namespace {

using jx::compute::Mode;

constexpr int32_t kSuiteEntryCount = 6;
constexpr int32_t kSuiteInternalVersion = 1;

// Runs `body` and turns whatever it throws into a code.
template <class Body>
int32_t Guarded(Body&& body) noexcept {
  try {
    return body();
  } catch (int code) {
    return code;
  } catch (...) {
    return Y_TranslateAndReportException();
  }
}

int32_t ClassRegister(const char* classId, const KQGP_ComputeCacheCallbacks* callbacks) {
  return JX_ComputeClassRegister(classId, callbacks);  // catches everything itself
}

int32_t ClassUnregister(const char* classId) { return JX_ComputeClassUnregister(classId); }

int32_t ComputeIfNeededAndCheckout(const char* classId, void* request, bool wait,
                                   KQGP_JXComputeReceipt* receipt) {
  return Guarded([&] {
    return jx::compute::ComputeAndCheckout(classId, request, wait ? Mode::kWait : Mode::kNoWait,
                                           receipt);
  });
}

int32_t CheckoutCached(const char* classId, void* request, KQGP_JXComputeReceipt* receipt) {
  return Guarded([&] {
    return jx::compute::ComputeAndCheckout(classId, request, Mode::kCachedOnly, receipt);
  });
}

int32_t GetReceiptComputeValue(KQGP_JXComputeReceipt receipt, intptr_t* outValue) {
  return Guarded([&] {
    jx::compute::GetReceiptValue(receipt, outValue);
    return 0;
  });
}

int32_t CheckinReceipt(KQGP_JXComputeReceipt receipt) {
  return Guarded([&] { return jx::compute::CheckinReceipt(receipt); });
}

const KQGP_ComputeCacheSuite1 kSuite1 = {
    ClassRegister,  ClassUnregister,        ComputeIfNeededAndCheckout,
    CheckoutCached, GetReceiptComputeValue, CheckinReceipt,
};

}  // namespace

const KQGP_ComputeCacheSuite1& JX_ComputeSuite1() { return kSuite1; }

int32_t JX_ComputeSuiteRegister() {
  return Y_VX_AddVXSuite(0, 0, kKQGPComputeCacheSuite, kKQGPComputeCacheSuiteVersion1,
                         kSuiteInternalVersion, kSuiteEntryCount, &kSuite1);
}
