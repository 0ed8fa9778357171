// FastWriteOnlyStream: whole aligned blocks out, the true length at close.
#include "disk/fast_write_stream.h"

#include "jxcache/host/host_services.h"

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "host/file_utils.h"

namespace jx::disk {

using zelcore::filesupport::AllocateAligned;
using zelcore::filesupport::File;
using zelcore::filesupport::OPlatformByteStream;

// Writes the slots the caller queues, in the order queued, the k-th queued being slot
// k % slots. Consecutive queued slots that do not wrap around the buffer go out in one block.
// After a failed block, later ones are counted as written but skipped: the file is lost anyway,
// and the caller is told at its next wait.
class FastWriteOnlyStream::BackgroundWriter {
 public:
  explicit BackgroundWriter(FastWriteOnlyStream& stream)
      : stream_(stream), thread_(jx::host::GetThreads().StartThread([this] { Run(); })) {}
  // Leaves the slots not yet started unwritten; a block being written is finished first.
  ~BackgroundWriter() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopping_ = true;
    }
    changed_.notify_all();
    thread_->Join();
  }
  BackgroundWriter(const BackgroundWriter&) = delete;
  BackgroundWriter& operator=(const BackgroundWriter&) = delete;

  void QueueNextSlot() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      ++queued_;
    }
    changed_.notify_all();
  }

  // Waits until at most `pending` queued slots are still to be written. Throws the failure of
  // any block written so far.
  void WaitUntilPendingAtMost(uint64_t pending) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return queued_ - written_ <= pending; });
    if (failure_) std::rethrow_exception(failure_);
  }

 private:
  void Run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      changed_.wait(lock, [&] { return stopping_ || written_ < queued_; });
      if (stopping_) return;
      const size_t first = static_cast<size_t>(written_ % stream_.slots_);
      const size_t count =
          static_cast<size_t>(std::min<uint64_t>(queued_ - written_, stream_.slots_ - first));
      if (!failure_) {
        lock.unlock();
        std::exception_ptr failure;
        try {
          stream_.WriteBlock(stream_.Slot(first), count * stream_.slotSize_);
        } catch (...) {
          failure = std::current_exception();
        }
        lock.lock();
        failure_ = failure;
      }
      written_ += count;
      changed_.notify_all();
    }
  }

  FastWriteOnlyStream& stream_;
  std::mutex mutex_;
  std::condition_variable changed_;  // queued_, written_ or stopping_ changed
  uint64_t queued_ = 0;
  uint64_t written_ = 0;
  bool stopping_ = false;
  std::exception_ptr failure_;
  // Last: starts once the members it reads are set up. A thread of the host's (the seam's
  // Threads service).
  std::unique_ptr<jx::host::JoinableThread> thread_;
};

FastWriteOnlyStream::FastWriteOnlyStream(const File& file)
    : OPlatformByteStream(file, /*unbuffered=*/true),
      unit_(zelcore::utility::FileUtils::GetEfficientDiskBufferSizeFromPath(file.GetPath())),
      bufferSize_((kBufferBytes + unit_ - 1) / unit_ * unit_),
      slots_(bufferSize_ / unit_ >= kSlots ? kSlots : 1),
      slotSize_(bufferSize_ / unit_ / slots_ * unit_),
      buffer_(AllocateAligned(bufferSize_, unit_)) {}

FastWriteOnlyStream::~FastWriteOnlyStream() = default;

void FastWriteOnlyStream::Write(const void* data, size_t length) {
  if (finalBlockWritten_) throw std::logic_error("FastWriteOnlyStream: write after the last block");
  const auto* bytes = static_cast<const uint8_t*>(data);
  totalCount_ += length;
  while (length > 0) {
    // A full slot waits for more bytes before it goes: if none come, it is the final block.
    if (cursor_ == slotSize_) HandOffFullSlot();
    const size_t n = std::min(length, slotSize_ - cursor_);
    std::memcpy(Slot(slot_) + cursor_, bytes, n);
    cursor_ += n;
    bytes += n;
    length -= n;
  }
}

void FastWriteOnlyStream::HandOffFullSlot() {
  if (slots_ > 1 && !writer_) {
    try {
      writer_ = std::make_unique<BackgroundWriter>(*this);
    } catch (const std::system_error&) {
      slots_ = 1;  // no thread to be had: the caller writes every slot itself
    }
  }
  if (slots_ == 1) {
    WriteBlock(Slot(0), slotSize_);
    cursor_ = 0;
    return;
  }
  writer_->QueueNextSlot();
  slot_ = (slot_ + 1) % slots_;
  cursor_ = 0;
  // The next slot is free once fewer slots than there are remain queued.
  writer_->WaitUntilPendingAtMost(slots_ - 1);
}

void FastWriteOnlyStream::WriteFinalBlock() {
  if (finalBlockWritten_) return;
  // Blocks go out in order: the tail only after every queued slot, and not at all after a
  // failure (thrown here, and again by any later call).
  if (writer_) writer_->WaitUntilPendingAtMost(0);
  finalBlockWritten_ = 1;
  if (cursor_ == 0) return;
  const size_t tail = cursor_;
  cursor_ = 0;
  const size_t whole = tail / unit_ * unit_;
  if (!IsDirect() || whole == tail) {
    WriteBlock(Slot(slot_), tail);
    return;
  }
  // Unbuffered transfers take whole units only. The last part of a unit goes through the page
  // cache, synced at close with the rest: padding it to a unit and cutting the file back to
  // its true length took more than a twentieth of an 8 MiB write, most of it the cut.
  if (whole > 0) WriteBlock(Slot(slot_), whole);
  if (LeaveDirectMode()) {
    WriteBlock(Slot(slot_) + whole, tail - whole);
    return;
  }
  // Still direct: the padding is cut off again at close.
  const size_t padded = whole + unit_;
  std::memset(Slot(slot_) + tail, 0, padded - tail);
  WriteBlock(Slot(slot_) + whole, unit_);
  SetFinalLength(totalCount_);
}

void FastWriteOnlyStream::Close() {
  WriteFinalBlock();
  OPlatformByteStream::Close();
}

}  // namespace jx::disk
