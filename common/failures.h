// How the library reports misuse and broken invariants: report through the host, then throw the
// plain integer code. Every report-and-throw in the library goes through these helpers.
#pragma once

namespace jx {

// Codes thrown as plain ints.
inline constexpr int kErrBadCall = 3;              // bad call or broken invariant
inline constexpr int kErrVersionMismatch = 9;      // a disk cache file of another version
inline constexpr int kErrCheckedOutWrite = 14851;  // check-out misuse: writeable / too many
inline constexpr int kErrNotCheckedOut = 14852;    // check-out misuse: not checked out

// Reports `text` as a failed verification, then throws `code`.
[[noreturn]] void FailVerification(const char* text, int code = kErrBadCall);
// Reports message `messageNumber` of the localised table (only on the main thread, where a
// person can see it), then throws `code` on every thread.
[[noreturn]] void FailWithMessage(int messageNumber, int code);
// The library's null-pointer error, naming the type.
[[noreturn]] void ThrowNullPtr(const char* typeName);

}  // namespace jx
