#pragma once

namespace zelcore::utility {

// Base for classes whose objects own something and must not be copied.
class noncopyable {
 protected:
  noncopyable() = default;
  ~noncopyable() = default;

 public:
  noncopyable(const noncopyable&) = delete;
  noncopyable& operator=(const noncopyable&) = delete;
};

}  // namespace zelcore::utility
