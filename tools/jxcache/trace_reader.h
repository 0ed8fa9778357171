// Access traces for `jxcache replay`: a sequence of (object id, object size) requests.
//
// Two formats: "oracle-general", binary records of 24 bytes, little-endian (uint32 time, uint64
// object id, uint32 object size, int64 next access time; only id and size are used), and "csv",
// one "id,size" per line with an optional header line. Either may be zstd-compressed: a file
// that starts with zstd's magic number is decompressed as it is read, whatever its name.
//
// The reader streams: it holds one buffer of the file (and one of decompressed bytes), never the
// trace, so a trace of any length is read in constant memory.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace jx::tool {

struct TraceRequest {
  uint64_t id;
  uint32_t size;
};

enum class TraceFormat { kOracleGeneral, kCsv };

// Throws UsageError for an unknown name.
TraceFormat ParseTraceFormat(const std::string& name);
// csv for a name ending in ".csv" (or ".csv.zst"), else oracle-general.
TraceFormat GuessTraceFormat(const std::string& path);

// Anything that hands out requests in order.
class RequestSource {
 public:
  virtual ~RequestSource() = default;
  // The next request, or false at the end.
  virtual bool Next(TraceRequest* out) = 0;
};

class TraceReader : public RequestSource {
 public:
  // Throws ToolError, with the path, when the file cannot be opened or is a folder.
  TraceReader(const std::string& path, TraceFormat format);
  ~TraceReader() override;
  TraceReader(const TraceReader&) = delete;
  TraceReader& operator=(const TraceReader&) = delete;

  // Throws ToolError, with the path and the place, when the file cannot be read, a binary record
  // is cut short, a csv line is not "id,size", or the compressed stream is damaged or cut short.
  bool Next(TraceRequest* out) override;

  // Whether the trace (decompressed) starts with text only: no binary trace does, and a csv one
  // read as binary records would give numbers from its digits. Call before the first Next.
  bool StartsWithText();

  bool compressed() const { return zstd_ != nullptr; }
  // Bytes of the file itself read so far (compressed bytes for a compressed trace), and its size:
  // the measure of progress.
  uint64_t fileBytesRead() const { return fileRead_; }
  uint64_t fileSize() const { return fileSize_; }

 private:
  struct Zstd;
  // Refills buf_ from the file (decompressing); false at the end of the data.
  bool Fill();
  bool NextOracle(TraceRequest* out);
  bool NextCsv(TraceRequest* out);
  [[noreturn]] void Fail(const std::string& what) const;

  std::string path_;
  TraceFormat format_;
  std::FILE* file_ = nullptr;
  std::unique_ptr<Zstd> zstd_;
  uint64_t fileSize_ = 0, fileRead_ = 0;
  std::vector<unsigned char> raw_;  // read from the file, not yet decompressed
  size_t rawPos_ = 0, rawEnd_ = 0;
  std::vector<unsigned char> buf_;  // trace bytes not yet parsed
  size_t pos_ = 0, end_ = 0;
  uint64_t consumed_ = 0;  // trace bytes before buf_[0]
  bool eof_ = false;
  uint64_t lineNo_ = 0;
  bool seenLine_ = false;
};

}  // namespace jx::tool
