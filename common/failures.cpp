#include "common/failures.h"

#include "host/config.h"
#include "host/y_api.h"
#include "common/messages.h"

namespace jx {
namespace {
constexpr int32_t kCacheErrorClass = 0x3a0000;
constexpr int32_t kSeverityError = 2;
}  // namespace

void FailVerification(const char* text, int code) {
  Y_ReportFailedVerification(text);
  throw code;
}

void FailWithMessage(int messageNumber, int code) {
  if (Y_IsOnMainThread()) {
    Yp_ReportErrString(kCacheErrorClass, kSeverityError, LookupMessage(messageNumber));
  }
  throw code;
}

void ThrowNullPtr(const char* typeName) { zelcore::config::DoThrowNullPtrException(typeName); }

}  // namespace jx
