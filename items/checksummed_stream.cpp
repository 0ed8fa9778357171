#include "jxcache/items/checksummed_stream.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <new>
#include <string>

#include "items/checksum_helper.h"
#include "items/xxh3.h"
#include "jxcache/host/cpu_relax.h"
#include "jxcache/host/host_services.h"

using zelcore::filesupport::CorruptDataError;

namespace jx {
namespace {

// Large transfers are hashed and moved a slice at a time, so that the slice the hash just read
// is still in the processor's cache when it is copied (and the reverse when reading): the data
// then comes from memory once, not twice.
constexpr size_t kSlice = 128 * 1024;

using StatePtr = std::unique_ptr<XXH3_state_s, void (*)(XXH3_state_s*)>;

// The seed of the stream wrapped: its identity's, or none (0, the plain XXH3-64).
template <class Stream>
uint64_t SeedOf(const Stream& stream) {
  const auto* identity = dynamic_cast<const ChecksumIdentity*>(&stream);
  return identity ? identity->ChecksumSeed() : 0;
}

StatePtr NewState(uint64_t seed) {
  StatePtr state(XXH3_createState(), [](XXH3_state_s* s) { XXH3_freeState(s); });
  if (!state || XXH3_64bits_reset_withSeed(state.get(), seed) != XXH_OK) throw std::bad_alloc();
  return state;
}

void Update(XXH3_state_s* state, const void* data, size_t length) {
  if (length != 0) JX_XXH3_UPDATE(state, data, length);
}

// A read of at least this many bytes in one call is hashed by the helper thread, a slice behind
// the reads, when the helper is free.
constexpr size_t kHelperMin = 1 << 20;
// The helper's slices are larger: each hand-over costs a wake-up when the helper sleeps.
constexpr size_t kHelperSlice = 512 * 1024;
// How long the helper spins for the next slice before it sleeps: some 80 us, about the time the
// kernel takes to copy one from the page cache.
constexpr int kHelperSpins = 4000;

// One thread for the whole process that hashes a transfer's bytes while the transferring thread
// reads the next ones: with the page cache warm, XXH3 costs about a third of the copy, and the
// read then costs about what a bare read does. One transfer has it at a time, under a lease; a
// transfer that finds it taken hashes inline rather than wait.
//
// A stop never waits for a transfer: the helper gives up the one it serves at its next slice,
// and the reading thread hashes the rest inline from where the helper left off. The thread's start
// and stop are guarded by a flag of their own; a transfer that finds a stop under way hashes
// inline.
class ChecksumHelper {
 public:
  static ChecksumHelper& Instance() {
    // Never destroyed: a payload may read from a static destructor; StopChecksumHelper joins.
    static ChecksumHelper* helper = [] {
      auto* made = new ChecksumHelper;
      // The fork handlers find the helper through a plain pointer, set once it is whole: a fork
      // while another thread is still in here must not wait for that thread's initialisation.
      ::pthread_atfork(
          [] {
            if (ChecksumHelper* h = gForkable.load(std::memory_order_acquire)) {
              h->QuiesceBeforeFork();
            }
          },
          nullptr,
          [] {
            if (ChecksumHelper* h = gForkable.load(std::memory_order_acquire)) {
              h->ForgetAfterFork();
            }
          });
      gForkable.store(made, std::memory_order_release);
      return made;
    }();
    return *helper;
  }

  bool TryLease() {
    bool expected = false;
    if (leased_.load(std::memory_order_relaxed) ||
        !leased_.compare_exchange_strong(expected, true, std::memory_order_acquire)) {
      return false;
    }
    tLessee = true;
    return true;
  }
  void EndLease() {
    tLessee = false;
    leased_.store(false, std::memory_order_release);
  }

  // With the lease: hands the helper a transfer into `bytes`, hashed into `state`. False when
  // the thread cannot be had (a stop is under way, or the host gave none).
  bool Begin(XXH3_state_s* state, const uint8_t* bytes) {
    if (!TryGuardThread()) return false;
    Unguard unguard{this};
    if (!thread_) {
      // The host may call back into a stop from inside StartThread: it is carried out below.
      tStarting = true;
      try {
        const uint32_t before = job_.load(std::memory_order_relaxed);
        thread_ = host::GetThreads().StartThread([this, before] { Run(before); });
      } catch (...) {
      }
      tStarting = false;
      if (stopWhileStarting_) {
        stopWhileStarting_ = false;
        StopThread();
      }
      if (!thread_) return false;
    }
    state_ = state;
    bytes_ = bytes;
    published_ = 0;
    orphaned_ = false;
    ready_.store(0, std::memory_order_relaxed);
    hashed_.store(0, std::memory_order_relaxed);
    myJob_ = job_.load(std::memory_order_relaxed) + 1;
    job_.store(myJob_, std::memory_order_release);
    Wake();
    transfers_.fetch_add(1, std::memory_order_relaxed);
    return true;
  }
  // bytes[0, n) are final and may be hashed.
  void Publish(uint64_t n) {
    if (!orphaned_) TakeOverIfAbandoned();
    if (orphaned_) {  // the helper gave the transfer up: the reading thread hashes the rest
      HashInlineUpTo(n);
      published_ = n;
      return;
    }
    // A read-modify-write, so that a stop's flag in the same word is never overwritten.
    ready_.fetch_add(n - published_, std::memory_order_release);
    published_ = n;
    ready_.notify_one();
  }
  // Returns once every published byte is hashed.
  void Finish() {
    if (!orphaned_) {
      // The flag travels in the word the helper waits on, so it cannot miss it.
      ready_.fetch_or(kDone, std::memory_order_acq_rel);
      ready_.notify_one();
      for (int i = 0; i < kHelperSpins && finished_.load(std::memory_order_acquire) != myJob_;
           ++i) {
        zelcore::threads::CpuRelax();
      }
      for (uint32_t seen; (seen = finished_.load(std::memory_order_acquire)) != myJob_;) {
        finished_.wait(seen, std::memory_order_acquire);
      }
      TakeOverIfAbandoned();
    }
    if (orphaned_) {
      HashInlineUpTo(published_);
      orphaned_ = false;
    }
  }

  // Ends the thread. Waits only for the thread to leave the slice it hashes (and for another
  // stop, or a start, under way), never for a read.
  void Stop() {
    if (tStarting) {  // asked by the host from inside StartThread, on the starting thread
      stopWhileStarting_ = true;
      return;
    }
    GuardThread();
    Unguard unguard{this};  // also if the host's Join throws
    StopThread();
  }

  // Before fork(), on the forking thread: if it holds the lease, the helper catches up with what
  // it was given (or gives it up) and is left outside XXH3, so the child inherits a whole state.
  void QuiesceBeforeFork() {
    if (!tLessee || orphaned_) return;
    for (uint64_t h;
         (h = hashed_.load(std::memory_order_acquire)) != published_ && (h & kAbandoned) == 0;) {
      hashed_.wait(h, std::memory_order_acquire);
    }
  }

  // In a forked child, which has only the thread that forked: the helper thread, whoever held the
  // lease and whoever was starting or stopping the thread stayed behind in the parent. The
  // thread's handle is dropped without a join.
  void ForgetAfterFork() {
    orphan_ = thread_.release();  // kept reachable: it is not a leak of the child's
    stop_.store(false, std::memory_order_relaxed);
    guarded_.store(false, std::memory_order_relaxed);
    if (tLessee) {
      // This thread's read goes on here, hashed inline from where the helper was.
      if (!orphaned_) {
        orphaned_ = true;
        orphanedAt_ = hashed_.load(std::memory_order_relaxed) & ~kAbandoned;
      }
    } else {
      leased_.store(false, std::memory_order_relaxed);
    }
  }

  uint64_t Transfers() const { return transfers_.load(std::memory_order_relaxed); }

 private:
  static constexpr uint64_t kDone = uint64_t{1} << 63;            // in ready_: nothing more comes
  static constexpr uint64_t kStop = uint64_t{1} << 62;            // in ready_: give the transfer up
  static constexpr uint64_t kAbandoned = uint64_t{1} << 63;       // in hashed_: given up there
  static inline thread_local bool tLessee = false;                // this thread holds the lease
  static inline thread_local bool tStarting = false;              // this thread is in StartThread
  static inline std::atomic<ChecksumHelper*> gForkable{nullptr};  // for the fork handlers

  bool TryGuardThread() {
    return !guarded_.load(std::memory_order_relaxed) &&
           !guarded_.exchange(true, std::memory_order_acquire);
  }
  void GuardThread() {
    while (guarded_.exchange(true, std::memory_order_acquire)) {
      guarded_.wait(true, std::memory_order_relaxed);
    }
  }
  void UnguardThread() {
    guarded_.store(false, std::memory_order_release);
    guarded_.notify_all();
  }
  struct Unguard {
    ChecksumHelper* helper;
    ~Unguard() { helper->UnguardThread(); }
  };

  void Wake() {
    wake_.fetch_add(1, std::memory_order_release);
    wake_.notify_one();
  }

  // The reading thread: if the helper gave its transfer up, the rest is hashed here from where
  // the helper stopped. The helper touches nothing of the transfer after it says so.
  void TakeOverIfAbandoned() {
    const uint64_t h = hashed_.load(std::memory_order_acquire);
    if ((h & kAbandoned) == 0) return;
    orphaned_ = true;
    orphanedAt_ = h & ~kAbandoned;
  }

  // The reading thread, once the helper is out of the transfer: hashes bytes[orphanedAt_, n).
  void HashInlineUpTo(uint64_t n) {
    Update(state_, bytes_ + orphanedAt_, n - orphanedAt_);
    orphanedAt_ = n;
  }

  // With the guard held.
  void StopThread() {
    if (!thread_) return;
    // Released: a helper that sees the flag also sees the job handed over before the stop.
    stop_.store(true, std::memory_order_release);
    // Both words the helper may sleep on change, and a transfer it serves sees the flag in its own
    // word at its next slice.
    ready_.fetch_or(kStop, std::memory_order_release);
    ready_.notify_all();
    Wake();
    thread_->Join();
    thread_.reset();
    stop_.store(false, std::memory_order_relaxed);
  }

  // `done`: the last job number before this thread started; the job that started it is next.
  void Run(uint32_t done) {
    for (;;) {
      const uint32_t woken = wake_.load(std::memory_order_acquire);
      const uint32_t job = job_.load(std::memory_order_acquire);
      if (job != done) {
        HashTransfer(job);
        done = job;
        continue;
      }
      if (stop_.load(std::memory_order_acquire)) {
        // The job may have been handed over after the look above and before the stop: its read
        // waits for the helper to serve it (if only to give it up), so it is looked at again.
        if (job_.load(std::memory_order_acquire) != done) continue;
        return;
      }
      wake_.wait(woken, std::memory_order_acquire);
    }
  }

  void HashTransfer(uint32_t job) {
    uint64_t hashed = 0;
    int spins = 0;
    for (;;) {
      const uint64_t word = ready_.load(std::memory_order_acquire);
      if ((word & kStop) != 0 || stop_.load(std::memory_order_relaxed)) {
        hashed_.store(hashed | kAbandoned, std::memory_order_release);
        hashed_.notify_all();
        break;
      }
      const uint64_t ready = word & ~(kDone | kStop);
      if (ready > hashed) {
        // A slice at a time even when behind, so that a stop waits for one slice at most.
        const uint64_t upto = std::min<uint64_t>(ready, hashed + kHelperSlice);
        Update(state_, bytes_ + hashed, upto - hashed);
        hashed = upto;
        hashed_.store(hashed, std::memory_order_release);
        hashed_.notify_all();
        spins = 0;
      } else if (word & kDone) {
        break;
      } else if (++spins < kHelperSpins) {
        zelcore::threads::CpuRelax();
      } else {
        ready_.wait(word, std::memory_order_acquire);
      }
    }
    finished_.store(job, std::memory_order_release);
    finished_.notify_one();
  }

  std::atomic<bool> leased_{false};
  std::atomic<bool> guarded_{false};              // the thread is being started or stopped
  std::unique_ptr<host::JoinableThread> thread_;  // started and stopped under the guard
  host::JoinableThread* orphan_ = nullptr;        // the parent's, in a forked child
  bool stopWhileStarting_ = false;                // under the guard
  std::atomic<bool> stop_{false};
  std::atomic<uint32_t> wake_{0};  // moves on for every job and every stop
  // The transfer, set under the lease and the guard before job_ moves on.
  XXH3_state_s* state_ = nullptr;
  const uint8_t* bytes_ = nullptr;
  std::atomic<uint64_t> ready_{0};   // bytes published, with kDone and kStop
  std::atomic<uint64_t> hashed_{0};  // of the current transfer by the helper, with kAbandoned
  std::atomic<uint32_t> job_{0};     // written under the lease only
  std::atomic<uint32_t> finished_{0};
  std::atomic<uint64_t> transfers_{0};
  // The lessee's thread only.
  uint32_t myJob_ = 0;
  uint64_t published_ = 0;
  bool orphaned_ = false;  // hashing inline: the helper gave the transfer up, or stayed behind
  uint64_t orphanedAt_ = 0;
};

// A lease of the helper for one read, given back (after the hash has caught up) however the read
// ends.
class HelperLease {
 public:
  HelperLease(XXH3_state_s* state, const uint8_t* bytes) {
    ChecksumHelper& helper = ChecksumHelper::Instance();
    if (!helper.TryLease()) return;
    if (!helper.Begin(state, bytes)) {
      helper.EndLease();
      return;
    }
    helper_ = &helper;
  }
  ~HelperLease() {
    if (!helper_) return;
    helper_->Finish();
    helper_->EndLease();
  }
  HelperLease(const HelperLease&) = delete;
  HelperLease& operator=(const HelperLease&) = delete;

  explicit operator bool() const { return helper_ != nullptr; }
  void Publish(uint64_t n) { helper_->Publish(n); }

 private:
  ChecksumHelper* helper_ = nullptr;
};

void StoreLittleEndian(uint64_t v, uint8_t out[kChecksumTrailerSize]) {
  for (size_t i = 0; i < kChecksumTrailerSize; ++i) out[i] = static_cast<uint8_t>(v >> (8 * i));
}

uint64_t LoadLittleEndian(const uint8_t in[kChecksumTrailerSize]) {
  uint64_t v = 0;
  for (size_t i = 0; i < kChecksumTrailerSize; ++i) v |= uint64_t{in[i]} << (8 * i);
  return v;
}

}  // namespace

ChecksummedOByteStream::ChecksummedOByteStream(zelcore::filesupport::OByteStream& out)
    : out_(out), state_(NewState(SeedOf(out))) {}

ChecksummedOByteStream::~ChecksummedOByteStream() = default;

void ChecksummedOByteStream::Write(const void* data, size_t length) {
  if (finished_) throw zelcore::filesupport::FileError(EINVAL, "write after the checksum trailer");
  const auto* bytes = static_cast<const uint8_t*>(data);
  while (length > 0) {
    const size_t n = std::min(length, kSlice);
    Update(state_.get(), bytes, n);
    out_.Write(bytes, n);
    bytes += n;
    length -= n;
  }
}

void ChecksummedOByteStream::Finish() {
  if (finished_) return;
  uint8_t trailer[kChecksumTrailerSize];
  StoreLittleEndian(XXH3_64bits_digest(state_.get()), trailer);
  out_.Write(trailer, sizeof trailer);
  finished_ = true;
}

ChecksummedIByteStream::ChecksummedIByteStream(zelcore::filesupport::IByteStream& in)
    : in_(in), state_(NewState(SeedOf(in))) {}

ChecksummedIByteStream::~ChecksummedIByteStream() = default;

uint64_t ChecksummedIByteStream::Remaining() const {
  const uint64_t left = in_.Remaining();
  if (left == kUnknownLength) return left;
  return left > kChecksumTrailerSize ? left - kChecksumTrailerSize : 0;
}

size_t ChecksummedIByteStream::Read(void* data, size_t length) {
  length = static_cast<size_t>(std::min<uint64_t>(length, Remaining()));
  auto* bytes = static_cast<uint8_t*>(data);
  size_t done = 0;
  if (length >= kHelperMin) {
    HelperLease helper(state_.get(), bytes);
    if (helper) {
      while (done < length) {
        const size_t n = in_.Read(bytes + done, std::min(length - done, kHelperSlice));
        if (n == 0) break;
        done += n;
        helper.Publish(done);
      }
      return done;  // the lease's end waits for the hash to catch up
    }
  }
  while (done < length) {
    const size_t n = in_.Read(bytes + done, std::min(length - done, kSlice));
    if (n == 0) break;
    Update(state_.get(), bytes + done, n);
    done += n;
  }
  return done;
}

void ChecksummedIByteStream::Verify() {
  uint8_t trailer[kChecksumTrailerSize];
  size_t got = 0;
  while (got < sizeof trailer) {
    const size_t n = in_.Read(trailer + got, sizeof trailer - got);
    if (n == 0) throw CorruptDataError("the checksum trailer is missing");
    got += n;
  }
  if (LoadLittleEndian(trailer) != XXH3_64bits_digest(state_.get())) {
    throw CorruptDataError("checksum mismatch");
  }
  uint8_t extra;
  if (in_.Read(&extra, 1) != 0) throw CorruptDataError("bytes after the checksum trailer");
}

void StopChecksumHelper() { ChecksumHelper::Instance().Stop(); }

uint64_t ChecksumHelperTransfers() { return ChecksumHelper::Instance().Transfers(); }

}  // namespace jx
