#include "tools/jxcache/trace_reader.h"

#include <sys/stat.h>
#include <zstd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "tools/jxcache/tool_error.h"

namespace jx::tool {
namespace {

constexpr size_t kOracleRecordSize = 24;
// A multiple of the record size, and large enough that a read costs little per record.
constexpr size_t kBufferBytes = kOracleRecordSize * (1u << 15);
// A csv line is a few dozen bytes; one this long means the file is not a trace.
constexpr size_t kMaxCsvLine = 1u << 20;
constexpr unsigned char kZstdMagic[4] = {0x28, 0xB5, 0x2F, 0xFD};

uint64_t LoadLE(const unsigned char* p, int bytes) {
  uint64_t v = 0;
  for (int i = bytes - 1; i >= 0; --i) v = (v << 8) | p[i];
  return v;
}

std::string_view Trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r'))
    s.remove_suffix(1);
  return s;
}

template <class T>
bool ParseNumber(std::string_view s, T* out) {
  s = Trim(s);
  if (s.empty()) return false;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), *out);
  return ec == std::errc() && end == s.data() + s.size();
}

// A line that does not parse, as an error quotes it: its start only, with every byte that is not
// printable ASCII escaped. A binary file read as csv has lines of any length and any bytes, and
// the message goes to a terminal.
std::string Excerpt(std::string_view line) {
  constexpr size_t kShown = 40;
  std::string out;
  for (const char c : line.substr(0, kShown)) {
    if (c >= 0x20 && c < 0x7f) {
      out += c;
    } else {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02X", static_cast<unsigned char>(c));
      out += hex;
    }
  }
  if (line.size() > kShown) out += "...";
  return out;
}

bool EndsWith(const std::string& s, std::string_view suffix) {
  return s.size() >= suffix.size() &&
         s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

struct TraceReader::Zstd {
  ZSTD_DCtx* ctx = ZSTD_createDCtx();
  // What the last call that consumed or produced anything returned: 0 when it ended a frame. A
  // call with nothing to do answers with a hint at the next frame's header instead.
  size_t lastResult = 0;
  ~Zstd() { ZSTD_freeDCtx(ctx); }
};

TraceFormat ParseTraceFormat(const std::string& name) {
  if (name == "oracle-general") return TraceFormat::kOracleGeneral;
  if (name == "csv") return TraceFormat::kCsv;
  throw UsageError("--format: '" + name + "' is not a trace format (use oracle-general or csv)");
}

TraceFormat GuessTraceFormat(const std::string& path) {
  return EndsWith(path, ".csv") || EndsWith(path, ".csv.zst") ? TraceFormat::kCsv
                                                              : TraceFormat::kOracleGeneral;
}

TraceReader::TraceReader(const std::string& path, TraceFormat format)
    : path_(path), format_(format) {
  struct stat st {};
  if (::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
    throw ToolError("cannot read trace '" + path + "': it is a folder");
  file_ = std::fopen(path.c_str(), "rb");
  if (!file_) throw ToolError("cannot open trace '" + path + "': " + std::strerror(errno));
  if (::fstat(::fileno(file_), &st) == 0) fileSize_ = static_cast<uint64_t>(st.st_size);
  raw_.resize(kBufferBytes);
  buf_.resize(kBufferBytes);
  rawEnd_ = std::fread(raw_.data(), 1, raw_.size(), file_);
  fileRead_ = rawEnd_;
  if (std::ferror(file_)) Fail("cannot read it");
  if (rawEnd_ >= sizeof kZstdMagic && std::memcmp(raw_.data(), kZstdMagic, 4) == 0) {
    zstd_ = std::make_unique<Zstd>();
    if (!zstd_->ctx) throw ToolError("out of memory for the decompressor");
  }
}

TraceReader::~TraceReader() {
  if (file_) std::fclose(file_);
}

void TraceReader::Fail(const std::string& what) const {
  throw ToolError("trace '" + path_ + "': " + what);
}

bool TraceReader::Fill() {
  if (pos_ > 0) {
    std::memmove(buf_.data(), buf_.data() + pos_, end_ - pos_);
    consumed_ += pos_;
    end_ -= pos_;
    pos_ = 0;
  }
  if (end_ == buf_.size()) {
    if (buf_.size() >= kMaxCsvLine) Fail("a line of more than 1 MiB: not a trace");
    buf_.resize(buf_.size() * 2);
  }
  const size_t before = end_;
  while (end_ == before) {
    if (rawPos_ == rawEnd_ && !eof_) {
      rawPos_ = 0;
      rawEnd_ = std::fread(raw_.data(), 1, raw_.size(), file_);
      fileRead_ += rawEnd_;
      if (std::ferror(file_)) Fail(std::string("cannot read it: ") + std::strerror(errno));
      eof_ = rawEnd_ == 0;
    }
    if (!zstd_) {
      if (eof_) break;
      const size_t n = std::min(rawEnd_ - rawPos_, buf_.size() - end_);
      std::memcpy(buf_.data() + end_, raw_.data() + rawPos_, n);
      rawPos_ += n;
      end_ += n;
      continue;
    }
    // Called also with no input left: the decompressor may still hold output.
    ZSTD_inBuffer in{raw_.data(), rawEnd_, rawPos_};
    ZSTD_outBuffer out{buf_.data(), buf_.size(), end_};
    const size_t r = ZSTD_decompressStream(zstd_->ctx, &out, &in);
    if (ZSTD_isError(r)) Fail(std::string("cannot decompress it: ") + ZSTD_getErrorName(r));
    const bool moved = in.pos != rawPos_ || out.pos != end_;
    if (moved) zstd_->lastResult = r;
    rawPos_ = in.pos;
    end_ = out.pos;
    if (eof_ && !moved) {
      if (zstd_->lastResult != 0) Fail("the compressed stream is cut short");
      break;
    }
  }
  return end_ > before;
}

bool TraceReader::StartsWithText() {
  constexpr size_t kLooked = 4 * kOracleRecordSize;
  while (end_ - pos_ < kLooked && Fill()) {
  }
  if (end_ == pos_) return false;
  for (size_t i = pos_; i < std::min(end_, pos_ + kLooked); ++i) {
    const unsigned char c = buf_[i];
    if (!(c >= 0x20 && c < 0x7f) && c != '\n' && c != '\r' && c != '\t') return false;
  }
  return true;
}

bool TraceReader::Next(TraceRequest* out) {
  return format_ == TraceFormat::kCsv ? NextCsv(out) : NextOracle(out);
}

bool TraceReader::NextOracle(TraceRequest* out) {
  while (end_ - pos_ < kOracleRecordSize) {
    if (Fill()) continue;
    if (end_ == pos_) return false;
    Fail("truncated record at byte " + std::to_string(consumed_ + pos_) + " (" +
         std::to_string(end_ - pos_) + " of 24 bytes)");
  }
  const unsigned char* rec = buf_.data() + pos_;
  *out = {LoadLE(rec + 4, 8), static_cast<uint32_t>(LoadLE(rec + 12, 4))};
  pos_ += kOracleRecordSize;
  return true;
}

bool TraceReader::NextCsv(TraceRequest* out) {
  while (true) {
    const auto* nl =
        static_cast<const unsigned char*>(std::memchr(buf_.data() + pos_, '\n', end_ - pos_));
    if (!nl) {
      if (Fill()) continue;
      if (end_ == pos_) return false;
    }
    // The last line may lack its newline.
    const size_t length = nl ? static_cast<size_t>(nl - (buf_.data() + pos_)) : end_ - pos_;
    std::string_view text =
        Trim(std::string_view(reinterpret_cast<const char*>(buf_.data() + pos_), length));
    pos_ += nl ? length + 1 : length;
    // A file saved with a byte-order mark (as spreadsheets save csv) starts with one.
    if (++lineNo_ == 1 && text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
    if (text.empty()) continue;
    const size_t comma = text.find(',');
    TraceRequest req{};
    const bool ok = comma != std::string_view::npos &&
                    ParseNumber(text.substr(0, comma), &req.id) &&
                    ParseNumber(text.substr(comma + 1), &req.size);
    if (!ok) {
      // The first line may name the columns ("id,size", "# id,size", "\"id\",\"size\""). One that
      // starts as a number does ("-7,100") is a request gone wrong, and binary bytes are no
      // header: neither is skipped unseen.
      const unsigned char first = static_cast<unsigned char>(text.front());
      const bool named = first > 0x20 && first < 0x7f && !std::isdigit(first) && first != '-' &&
                         first != '+' && first != '.';
      if (!seenLine_ && lineNo_ == 1 && named) {
        seenLine_ = true;
        continue;
      }
      throw ToolError("trace '" + path_ + "', line " + std::to_string(lineNo_) +
                      ": expected 'id,size' with whole numbers, got '" + Excerpt(text) + "'");
    }
    seenLine_ = true;
    *out = req;
    return true;
  }
}

}  // namespace jx::tool
