// Small language helpers of the host core library: the null-pointer exception and a scope guard
// that runs a function when the scope ends, whether it ends normally or by an exception.
#pragma once

#include <exception>
#include <stdexcept>
#include <string>
#include <utility>

namespace zelcore::config {

class NullPtrException : public std::logic_error {
 public:
  explicit NullPtrException(const std::string& typeName)
      : std::logic_error("null pointer: " + typeName) {}
};

[[noreturn]] inline void DoThrowNullPtrException(const char* typeName) {
  throw NullPtrException(typeName);
}

// Runs `fn` at the end of the scope. If `fn` throws while the scope is already unwinding from
// another exception, the second exception is dropped (the first one wins).
template <class Fn>
class ExecuteTopLevelFunction {
 public:
  explicit ExecuteTopLevelFunction(Fn fn) : fn_(std::move(fn)) {}
  ~ExecuteTopLevelFunction() noexcept(false) {
    if (std::uncaught_exceptions() > uncaught_) {
      try {
        fn_();
      } catch (...) {
      }
    } else {
      fn_();
    }
  }
  ExecuteTopLevelFunction(const ExecuteTopLevelFunction&) = delete;
  ExecuteTopLevelFunction& operator=(const ExecuteTopLevelFunction&) = delete;

 private:
  Fn fn_;
  int uncaught_ = std::uncaught_exceptions();
};

}  // namespace zelcore::config
