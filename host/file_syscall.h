// Internal helpers shared by the file layer's sources (file.cpp, safe_save.cpp, byte_stream.cpp):
// turning an errno into the right exception and asking fault injection before a system call, so
// that an injected fault and a real one look the same to the caller. Not for use outside host/.
#pragma once

#include <sys/types.h>

#include <string>

#include "host/fault_injection.h"

namespace zelcore::filesupport::detail {

// Throws FileNotFoundError for ENOENT, FileError otherwise; the text is "<op> <path>".
[[noreturn]] void ThrowFileError(int err, FileOp op, const std::string& path);

// Throws as ThrowFileError would when fault injection plans a failure of this call of `op`.
void CheckInjected(FileOp op, const std::string& path);

// write(2) and read(2) as the streams make them, fault injection asked first: an injected
// errno comes back as -1 with errno set, a planned short transfer moves half the bytes asked
// (rounded up) and returns that count, with the file position just past them.
ssize_t WriteSome(int fd, const void* data, size_t length);
ssize_t ReadSome(int fd, void* data, size_t length);

// Flushes the file's data (not necessarily its metadata) to the device; returns 0 or an errno.
int SyncData(int fd);

}  // namespace zelcore::filesupport::detail
