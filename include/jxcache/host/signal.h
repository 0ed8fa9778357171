// A minimal signal: handlers connected by callers, all called by Fire. Thread-safe; handlers run
// on the firing thread without the signal's lock held.
#pragma once

#include <functional>
#include <mutex>
#include <vector>

namespace zelcore::messaging {

template <class Sig>
class Signal;

template <class... Args>
class Signal<void(Args...)> {
 public:
  using Handler = std::function<void(Args...)>;
  // Returns an id for Disconnect.
  size_t Connect(Handler h) {
    std::lock_guard<std::mutex> l(mutex_);
    handlers_.push_back({++nextId_, std::move(h)});
    return nextId_;
  }
  void Disconnect(size_t id) {
    std::lock_guard<std::mutex> l(mutex_);
    std::erase_if(handlers_, [id](const auto& e) { return e.first == id; });
  }
  void Fire(Args... args) const {
    std::vector<std::pair<size_t, Handler>> copy;
    {
      std::lock_guard<std::mutex> l(mutex_);
      if (handlers_.empty()) return;
      copy = handlers_;
    }
    for (auto& e : copy) e.second(args...);
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::pair<size_t, Handler>> handlers_;
  size_t nextId_ = 0;
};

}  // namespace zelcore::messaging
