// Fault injection for the file layer (tests only): a host file system (jx::host::FileSystem)
// that wraps the library's default one and is installed by the first use of FaultInjection (or
// by Install). Every file operation asks ShouldFail before it reaches the real call; a planned
// fault makes the N-th call of that operation fail with the chosen errno, once or from then on. A
// planned short transfer makes the N-th write or read move only part of what was asked, as a device
// may. Short reads (SetShortReads) make every read return at most one byte less than asked (never
// zero when something was asked). The plan is process-wide and thread-safe.
//
// Crash points, for crash tests only: a planned kill makes the process kill itself with SIGKILL
// the N-th time it reaches a point of a disk write, as a power cut or kill -9 would stop it
// there. No cleanup runs and nothing is flushed.
#pragma once

#include <cstdint>

#include "jxcache/host/file.h"

namespace zelcore::filesupport {

enum class CrashPoint {
  kCreated,   // a file was just created (a write's temporary, empty)
  kWritten,   // a write call just moved some bytes
  kRenaming,  // a rename is about to be made
  kRenamed,   // a safe save just renamed its temporary over its target
};
constexpr int kCrashPointCount = 4;
const char* CrashPointName(CrashPoint point);

class FaultInjection {
 public:
  // Puts the fault-injecting file system in place, around the library's default one. Every
  // other method does so on first use; a program may call it up front, before the library runs.
  static void Install();
  // Fails the nth call (1-based, counted from now) of `op` with `err`; with `persistent`, that
  // call and every later one fail.
  static void FailNth(FileOp op, uint64_t nth, int err, bool persistent = false);
  // Makes the nth call of kWrite or kRead (and with `persistent` every later one) move half of
  // the bytes asked, rounded up: never none, and for a request of one disk unit not a whole
  // number of units. Requests of one byte go through whole. Other operations are ignored.
  static void ShortNth(FileOp op, uint64_t nth, bool persistent = false);
  static void SetShortReads(bool on);
  static bool ShortReads();
  // Kills the process with SIGKILL the nth time (1-based, counted from now) it reaches `point`.
  static void KillAtNth(CrashPoint point, uint64_t nth);
  // Clears every plan (planned kills too) and the call counts.
  static void Reset();
  // Calls of `op` seen since the last Reset.
  static uint64_t CallCount(FileOp op);
  // Faults actually injected since the last Reset.
  static uint64_t InjectedCount();
  // Asked by the fault-injecting file system: 0 to proceed, kShortTransfer (writes and reads
  // only) to move fewer bytes, or the errno to fail with.
  static int ShouldFail(FileOp op);
  static constexpr int kShortTransfer = -1;
  // Called where `point` is reached; returns only when no kill is due.
  static void Reached(CrashPoint point);
};

}  // namespace zelcore::filesupport
