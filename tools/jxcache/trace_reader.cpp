#include "tools/jxcache/trace_reader.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "tools/jxcache/tool_error.h"

namespace jx::tool {
namespace {

constexpr size_t kOracleRecordSize = 24;

uint64_t LoadLE(const unsigned char* p, int bytes) {
  uint64_t v = 0;
  for (int i = bytes - 1; i >= 0; --i) v = (v << 8) | p[i];
  return v;
}

std::ifstream Open(const std::string& path) {
  std::error_code ec;
  if (std::filesystem::is_directory(path, ec)) {
    throw ToolError("cannot read trace '" + path + "': it is a folder");
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) throw ToolError("cannot open trace '" + path + "': " + std::strerror(errno));
  return in;
}

std::vector<TraceRequest> ReadOracleGeneral(const std::string& path) {
  std::ifstream in = Open(path);
  std::vector<TraceRequest> out;
  std::vector<unsigned char> buf(kOracleRecordSize * 4096);
  uint64_t offset = 0;
  while (in) {
    in.read(reinterpret_cast<char*>(buf.data()), static_cast<std::streamsize>(buf.size()));
    const size_t got = static_cast<size_t>(in.gcount());
    if (in.bad()) throw ToolError("cannot read trace '" + path + "'");
    const size_t whole = got / kOracleRecordSize;
    for (size_t r = 0; r < whole; ++r) {
      const unsigned char* rec = buf.data() + r * kOracleRecordSize;
      out.push_back({LoadLE(rec + 4, 8), static_cast<uint32_t>(LoadLE(rec + 12, 4))});
    }
    if (got % kOracleRecordSize != 0) {
      throw ToolError("trace '" + path + "': truncated record at byte " +
                      std::to_string(offset + whole * kOracleRecordSize) + " (" +
                      std::to_string(got % kOracleRecordSize) + " of 24 bytes)");
    }
    offset += got;
  }
  return out;
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

std::vector<TraceRequest> ReadCsv(const std::string& path) {
  std::ifstream in = Open(path);
  std::vector<TraceRequest> out;
  std::string line;
  uint64_t lineNo = 0;
  bool seenData = false;
  while (std::getline(in, line)) {
    ++lineNo;
    const std::string_view text = Trim(line);
    if (text.empty()) continue;
    const size_t comma = text.find(',');
    TraceRequest req{};
    const bool ok = comma != std::string_view::npos &&
                    ParseNumber(text.substr(0, comma), &req.id) &&
                    ParseNumber(text.substr(comma + 1), &req.size);
    if (!ok) {
      // The first non-empty line may name the columns.
      if (!seenData && lineNo == 1 && text.find_first_of("0123456789") != 0) {
        seenData = true;
        continue;
      }
      throw ToolError("trace '" + path + "', line " + std::to_string(lineNo) +
                      ": expected 'id,size' with whole numbers, got '" + std::string(text) + "'");
    }
    seenData = true;
    out.push_back(req);
  }
  if (in.bad()) throw ToolError("cannot read trace '" + path + "'");
  return out;
}

}  // namespace

TraceFormat ParseTraceFormat(const std::string& name) {
  if (name == "oracle-general") return TraceFormat::kOracleGeneral;
  if (name == "csv") return TraceFormat::kCsv;
  throw UsageError("--format: '" + name + "' is not a trace format (use oracle-general or csv)");
}

std::vector<TraceRequest> ReadTrace(const std::string& path, TraceFormat format) {
  std::vector<TraceRequest> requests =
      format == TraceFormat::kCsv ? ReadCsv(path) : ReadOracleGeneral(path);
  if (requests.empty()) throw ToolError("trace '" + path + "' holds no requests");
  return requests;
}

}  // namespace jx::tool
