#include "farm/redis_client.h"

#include <hiredis/hiredis.h>

#include <poll.h>
#include <pthread.h>
#include <sys/time.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <ctime>

#include "host/trace.h"
#include "jxcache/host/host_services.h"

namespace jx::farm {
namespace {

constexpr std::string_view kTcpScheme = "redis://";
constexpr std::string_view kUnixScheme = "unix://";

timeval ToTimeval(std::chrono::milliseconds ms) {
  timeval tv;
  tv.tv_sec = static_cast<time_t>(ms.count() / 1000);
  tv.tv_usec = static_cast<suseconds_t>((ms.count() % 1000) * 1000);
  return tv;
}

uint64_t NowNs() { return jx::host::GetClock().NowNanoseconds(); }

// A write to a connection the server has closed (a restart, an idle timeout) raises SIGPIPE,
// whose default action ends the process: the host's, which a library cannot ask to ignore it.
// hiredis writes with plain write(), so the signal is blocked on this thread for the write, and
// the one a write raised (it failed with EPIPE) is taken off before the old mask comes back.
// Any other SIGPIPE stays pending for the host: one pending before the write, one sent to the
// process meanwhile (unless a failed write's own merged with it), and every one while the host
// blocks SIGPIPE on this thread itself.
class ScNoSigpipe {
 public:
  ScNoSigpipe() {
    sigemptyset(&pipe_);
    sigaddset(&pipe_, SIGPIPE);
    sigset_t pending;
    pendingBefore_ = sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
    blocked_ = pthread_sigmask(SIG_BLOCK, &pipe_, &old_) == 0 && sigismember(&old_, SIGPIPE) == 0;
  }
  ~ScNoSigpipe() {
    if (!blocked_) return;
    sigset_t pending;
    if (writeRaised_ && !pendingBefore_ && sigpending(&pending) == 0 &&
        sigismember(&pending, SIGPIPE) == 1) {
      const int saved = errno;
      const timespec now{0, 0};
      while (sigtimedwait(&pipe_, nullptr, &now) < 0 && errno == EINTR) {
      }
      errno = saved;
    }
    pthread_sigmask(SIG_SETMASK, &old_, nullptr);
  }
  // Called right after a failed write, while errno still says why.
  void NoteFailedWrite() {
    if (errno == EPIPE) writeRaised_ = true;
  }
  ScNoSigpipe(const ScNoSigpipe&) = delete;
  ScNoSigpipe& operator=(const ScNoSigpipe&) = delete;

 private:
  sigset_t pipe_;
  sigset_t old_;
  bool pendingBefore_ = false;
  bool blocked_ = false;
  bool writeRaised_ = false;
};

// hiredis reports a read that hit its timeout as an I/O error with errno EAGAIN.
Fault FaultOf(const redisContext* c) {
  if (c->err == REDIS_ERR_IO && (errno == EAGAIN || errno == EWOULDBLOCK || errno == ETIMEDOUT)) {
    return Fault::kTimeout;
  }
  return Fault::kConnection;
}

// Takes `r` over: a string reply keeps it as the owner of its bytes, any other frees it.
Reply Convert(redisReply* r) {
  Reply out;
  if (r->type == REDIS_REPLY_STRING) {
    out.kind = Reply::Kind::kString;
    out.bytes = std::string_view(r->str, r->len);
    out.owner = std::shared_ptr<const void>(
        r, [](const void* p) { freeReplyObject(const_cast<void*>(p)); });
    return out;
  }
  switch (r->type) {
    case REDIS_REPLY_NIL:
      out.kind = Reply::Kind::kNil;
      break;
    case REDIS_REPLY_STATUS:
      out.kind = Reply::Kind::kStatus;
      out.text.assign(r->str, r->len);
      break;
    case REDIS_REPLY_INTEGER:
      out.kind = Reply::Kind::kInteger;
      out.integer = r->integer;
      break;
    case REDIS_REPLY_ARRAY:
      out.kind = Reply::Kind::kArray;
      out.integer = static_cast<long long>(r->elements);
      break;
    case REDIS_REPLY_ERROR:
    default:
      out.kind = Reply::Kind::kError;
      if (r->str) out.text.assign(r->str, r->len);
      out.fault = Fault::kRefused;
      break;
  }
  freeReplyObject(r);
  return out;
}

}  // namespace

std::string Address::ToString() const {
  return unixSocket ? std::string(kUnixScheme) + path
                    : std::string(kTcpScheme) + host + ":" + std::to_string(port);
}

bool ParseAddress(std::string_view text, Address* out, std::string* why) {
  Address a;
  if (text.substr(0, kUnixScheme.size()) == kUnixScheme) {
    a.unixSocket = true;
    a.path = std::string(text.substr(kUnixScheme.size()));
    if (a.path.empty() || a.path[0] != '/') {
      *why = "a unix socket address needs an absolute path: unix:///path/to/socket";
      return false;
    }
  } else if (text.substr(0, kTcpScheme.size()) == kTcpScheme) {
    const std::string_view rest = text.substr(kTcpScheme.size());
    const size_t colon = rest.rfind(':');
    a.host = std::string(rest.substr(0, colon));
    if (colon != std::string_view::npos) {
      const std::string_view port = rest.substr(colon + 1);
      auto [end, ec] = std::from_chars(port.data(), port.data() + port.size(), a.port);
      if (ec != std::errc() || end != port.data() + port.size() || a.port < 1 || a.port > 65535) {
        *why = "the port must be a number from 1 to 65535";
        return false;
      }
    }
    if (a.host.empty()) {
      *why = "a TCP address needs a host: redis://HOST:PORT";
      return false;
    }
  } else {
    *why = "give redis://HOST:PORT or unix:///path/to/socket";
    return false;
  }
  *out = std::move(a);
  return true;
}

const char* DescribeFault(Fault fault) {
  switch (fault) {
    case Fault::kNone:
      return "none";
    case Fault::kTimeout:
      return "timeout";
    case Fault::kConnection:
      return "connection";
    case Fault::kRefused:
      return "refused";
    case Fault::kBackOff:
      return "backing off";
  }
  return "unknown";
}

RedisPool::RedisPool(Options options) : options_(std::move(options)) {}

RedisPool::~RedisPool() {
  for (redisContext* c : idle_) redisFree(c);
}

void RedisPool::StartBackOff() {
  backOffUntil_.store(
      NowNs() + static_cast<uint64_t>(std::chrono::nanoseconds(options_.backOff).count()),
      std::memory_order_relaxed);
}

bool RedisPool::BackingOff() const {
  return NowNs() < backOffUntil_.load(std::memory_order_relaxed);
}

redisContext* RedisPool::Borrow(Fault* fault) {
  // Before the idle connections too: each one left from a busier moment would otherwise wait
  // out a timeout of its own on a stalled server.
  if (NowNs() < backOffUntil_.load(std::memory_order_relaxed)) {
    *fault = Fault::kBackOff;
    return nullptr;
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!idle_.empty()) {
      redisContext* c = idle_.back();
      idle_.pop_back();
      return c;
    }
  }
  const timeval connectTimeout = ToTimeval(options_.connectTimeout);
  const Address& a = options_.address;
  redisContext* c = a.unixSocket ? redisConnectUnixWithTimeout(a.path.c_str(), connectTimeout)
                                 : redisConnectWithTimeout(a.host.c_str(), a.port, connectTimeout);
  if (!c || c->err) {
    ZC_TRACE("JX_Farm", 3,
             "connect to " << a.ToString() << " failed: " << (c ? c->errstr : "out of memory"));
    *fault = c && FaultOf(c) == Fault::kTimeout ? Fault::kTimeout : Fault::kConnection;
    if (c) redisFree(c);
    StartBackOff();
    return nullptr;
  }
  if (redisSetTimeout(c, ToTimeval(options_.commandTimeout)) != REDIS_OK) {
    redisFree(c);
    *fault = Fault::kConnection;
    return nullptr;
  }
  opened_.fetch_add(1, std::memory_order_relaxed);
  return c;
}

void RedisPool::DropIdle() {
  std::vector<redisContext*> idle;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    idle.swap(idle_);
  }
  for (redisContext* c : idle) redisFree(c);
}

void RedisPool::Return(redisContext* c) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (idle_.size() < options_.maxIdle) {
      idle_.push_back(c);
      return;
    }
  }
  redisFree(c);
}

Fault RedisPool::RoundTrip(redisContext* c, redisReply** reply) {
  // The socket's own timeouts bound each read and write, not the command: a reply that keeps
  // trickling in would never end it. So the command has a deadline, and each read waits for
  // what is left of it.
  const uint64_t deadline =
      NowNs() + static_cast<uint64_t>(std::chrono::nanoseconds(options_.commandTimeout).count());
  int done = 0;
  {
    ScNoSigpipe noSigpipe;
    while (!done) {
      if (redisBufferWrite(c, &done) != REDIS_OK) {
        noSigpipe.NoteFailedWrite();
        return FaultOf(c);
      }
      if (!done && NowNs() >= deadline) return Fault::kTimeout;
    }
  }
  for (;;) {
    void* got = nullptr;
    if (redisGetReplyFromReader(c, &got) != REDIS_OK) return FaultOf(c);
    if (got) {
      *reply = static_cast<redisReply*>(got);
      return Fault::kNone;
    }
    const uint64_t now = NowNs();
    if (now >= deadline) return Fault::kTimeout;
    pollfd p{c->fd, POLLIN, 0};
    const int waitMs = static_cast<int>((deadline - now + 999999) / 1000000);
    const int ready = poll(&p, 1, waitMs);
    if (ready == 0) return Fault::kTimeout;
    if (ready < 0 && errno != EINTR) return Fault::kConnection;
    if (ready > 0 && redisBufferRead(c) != REDIS_OK) return FaultOf(c);
  }
}

Reply RedisPool::Command(const std::vector<std::string_view>& args) {
  Reply out;
  redisContext* c = Borrow(&out.fault);
  if (!c) return out;
  std::vector<const char*> argv;
  std::vector<size_t> lengths;
  argv.reserve(args.size());
  lengths.reserve(args.size());
  for (std::string_view a : args) {
    argv.push_back(a.data());
    lengths.push_back(a.size());
  }
  redisReply* r = nullptr;
  if (redisAppendCommandArgv(c, static_cast<int>(argv.size()), argv.data(), lengths.data()) !=
      REDIS_OK) {
    out.fault = FaultOf(c);
  } else {
    out.fault = RoundTrip(c, &r);
  }
  if (!r) {
    ZC_TRACE("JX_Farm", 3,
             "command " << args[0] << " failed (" << DescribeFault(out.fault)
                        << "): " << (c->err ? c->errstr : "no whole reply in time"));
    // The connection may still owe us the reply: it is never used again.
    redisFree(c);
    if (out.fault == Fault::kTimeout) StartBackOff();
    // A connection the server dropped: it most likely dropped the idle ones too (a restart, a
    // failover, a reset on the way), and each would fail a command of its own.
    if (out.fault == Fault::kConnection) DropIdle();
    return out;
  }
  out = Convert(r);
  if (out.fault == Fault::kRefused) {
    ZC_TRACE("JX_Farm", 3, "command " << args[0] << " refused: " << out.text);
  }
  Return(c);
  return out;
}

}  // namespace jx::farm
