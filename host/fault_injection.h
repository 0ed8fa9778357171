// Fault injection for the file layer (tests only). Every file operation of file.h, safe_save.h
// and byte_stream.h asks ShouldFail before its system call; a planned fault makes the N-th call
// of that operation fail with the chosen errno, once or from then on. Short reads make every
// read return at most one byte less than asked (never zero when something was asked). The plan
// is process-wide and thread-safe.
#pragma once

#include <cstdint>

namespace zelcore::filesupport {

enum class FileOp { kCreate, kOpen, kWrite, kFlush, kTruncate, kRename, kSize, kDelete, kRead };
constexpr int kFileOpCount = 9;
const char* FileOpName(FileOp op);

class FaultInjection {
 public:
  // Fails the nth call (1-based, counted from now) of `op` with `err`; with `persistent`, that
  // call and every later one fail.
  static void FailNth(FileOp op, uint64_t nth, int err, bool persistent = false);
  static void SetShortReads(bool on);
  static bool ShortReads();
  // Clears every plan and the call counts.
  static void Reset();
  // Calls of `op` seen since the last Reset.
  static uint64_t CallCount(FileOp op);
  // Faults actually injected since the last Reset.
  static uint64_t InjectedCount();
  // Called by the file layer: 0 to proceed, or the errno to fail with.
  static int ShouldFail(FileOp op);
};

}  // namespace zelcore::filesupport
