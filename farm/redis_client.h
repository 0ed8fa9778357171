// A small pool of Redis connections for the farm tier.
//
// A hiredis context is not thread-safe, so every command borrows one connection from the pool,
// runs on it alone and gives it back; a connection that failed in any way (timeout, reset, a
// reply that could not be parsed) is closed rather than returned, because a late reply to a
// timed-out command would otherwise be read as the answer to the next one; a broken connection
// closes the idle ones too, which the same break most likely took.
//
// Every command is bounded: connecting by the connect timeout, each command by the command
// timeout. After a failed connect or a timeout the pool fails fast for a short back-off, so that
// a dead or stalled server costs each render thread at most one timeout, not one per command.
// Faults never throw: they come back in the reply, and the farm tier turns them into misses.
//
// Threads: any thread may call Command concurrently. The pool's mutex is a leaf, held only to
// take or return a connection, never across network I/O.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

struct redisContext;
struct redisReply;

namespace jx::farm {

// Where the farm tier's server listens: "redis://HOST:PORT" or "unix:///path/to/socket".
struct Address {
  bool unixSocket = false;
  std::string host;  // TCP
  int port = 6379;   // TCP
  std::string path;  // unix socket
  std::string ToString() const;
};
// False (and `why`) when `text` is neither form.
bool ParseAddress(std::string_view text, Address* out, std::string* why);

enum class Fault : uint8_t {
  kNone,
  kTimeout,     // no answer within the command (or connect) timeout
  kConnection,  // could not connect, or the connection broke (reset, closed by the server)
  kRefused,     // the server answered with an error (maxmemory, wrong type, script error)
  kBackOff,     // not tried: the server failed a moment ago
};
const char* DescribeFault(Fault fault);

struct Reply {
  enum class Kind : uint8_t { kNil, kString, kInteger, kStatus, kArray, kError, kNone };
  Kind kind = Kind::kNone;
  std::string text;  // status or error text
  // A string reply's bytes where they arrived, not copied again: a value is up to a part's
  // 8 MiB, and a second copy costs a fetch a good share of its time. Valid while `owner` (or a
  // copy of it) lives.
  std::string_view bytes;
  std::shared_ptr<const void> owner;
  long long integer = 0;
  Fault fault = Fault::kNone;
  bool Ok() const { return fault == Fault::kNone; }
};

class RedisPool {
 public:
  struct Options {
    Address address;
    std::chrono::milliseconds connectTimeout{100};
    std::chrono::milliseconds commandTimeout{250};
    std::chrono::milliseconds backOff{500};
    uint32_t maxIdle = 8;  // connections kept open between commands
  };
  explicit RedisPool(Options options);
  ~RedisPool();
  RedisPool(const RedisPool&) = delete;
  RedisPool& operator=(const RedisPool&) = delete;

  // Runs one command (binary-safe arguments). Never throws.
  Reply Command(const std::vector<std::string_view>& args);
  const Options& GetOptions() const { return options_; }
  // Whether the pool fails fast now (a connect failed or a command timed out a moment ago): a
  // caller about to prepare a large request can skip it.
  bool BackingOff() const;
  // Connections opened so far (a test sees reconnects through it).
  uint64_t ConnectionsOpened() const { return opened_.load(std::memory_order_relaxed); }

 private:
  redisContext* Borrow(Fault* fault);
  void Return(redisContext* c);
  void DropIdle();
  void StartBackOff();
  // Sends the command appended to `c` and reads its reply, all within the command timeout.
  Fault RoundTrip(redisContext* c, redisReply** reply);

  const Options options_;
  std::mutex mutex_;  // guards idle_
  std::vector<redisContext*> idle_;
  std::atomic<uint64_t> backOffUntil_{0};  // host clock nanoseconds
  std::atomic<uint64_t> opened_{0};
};

}  // namespace jx::farm
