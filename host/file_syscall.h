// Internal helpers shared by the file layer's sources (file.cpp, safe_save.cpp, byte_stream.cpp):
// turning an errno into the right exception, and the transfers as the streams make them. Not for
// use outside host/.
#pragma once

#include <sys/types.h>

#include <string>

#include "jxcache/host/file.h"
#include "jxcache/host/host_services.h"

namespace zelcore::filesupport::detail {

// Throws FileNotFoundError for ENOENT, FileError otherwise; the text is "<op> <path>".
[[noreturn]] void ThrowFileError(int err, FileOp op, const std::string& path);

// The host's file system.
inline jx::host::FileSystem& Fs() { return jx::host::GetFiles(); }

// write(2) and read(2) through the host's file system: -1 with errno set on failure.
inline ssize_t WriteSome(int fd, const void* data, size_t length) {
  return Fs().Write(fd, data, length);
}
inline ssize_t ReadSome(int fd, void* data, size_t length) { return Fs().Read(fd, data, length); }

// Flushes the file's data (not necessarily its metadata) to the device; returns 0 or an errno.
int SyncData(int fd);

}  // namespace zelcore::filesupport::detail
