#include "tools/jxcache/trace_spool.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "tools/jxcache/tool_error.h"

namespace jx::tool {
namespace {

constexpr size_t kRecordBytes = 12;  // uint64 id, uint32 size, in this machine's byte order
constexpr uint64_t kChunkRequests = 1u << 16;

void Store(unsigned char* p, const TraceRequest& r) {
  std::memcpy(p, &r.id, 8);
  std::memcpy(p + 8, &r.size, 4);
}

TraceRequest Load(const unsigned char* p) {
  TraceRequest r;
  std::memcpy(&r.id, p, 8);
  std::memcpy(&r.size, p + 8, 4);
  return r;
}

// Requests read back from the spool, a chunk at a time.
class SpoolReader : public RequestSource {
 public:
  SpoolReader(const AnonymousFile& file, uint64_t requests)
      : file_(file), requests_(requests), chunk_(kChunkRequests * kRecordBytes) {}
  bool Next(TraceRequest* out) override {
    if (pos_ == end_) {
      if (end_ == requests_) return false;
      const uint64_t n = std::min(kChunkRequests, requests_ - end_);
      file_.ReadAt(end_ * kRecordBytes, chunk_.data(), n * kRecordBytes);
      pos_ = end_;
      end_ += n;
      begin_ = pos_;
    }
    *out = Load(chunk_.data() + (pos_++ - begin_) * kRecordBytes);
    return true;
  }

 private:
  const AnonymousFile& file_;
  uint64_t requests_;
  std::vector<unsigned char> chunk_;
  uint64_t begin_ = 0, pos_ = 0, end_ = 0;
};

uint64_t Mix(uint64_t x) {  // splitmix64's finaliser: ids are often small and consecutive
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

}  // namespace

AnonymousFile::AnonymousFile(const std::string& what) : what_(what) {
  std::error_code ec;
  std::filesystem::path dir = std::filesystem::temp_directory_path(ec);
  if (ec) dir = "/tmp";
  std::string name = (dir / "jxcache-replay-XXXXXX").string();
  fd_ = ::mkstemp(name.data());
  if (fd_ < 0) {
    throw ToolError("cannot make a temporary file in '" + dir.string() + "' for the " + what_ +
                    ": " + std::strerror(errno));
  }
  ::unlink(name.c_str());
}

AnonymousFile::~AnonymousFile() {
  if (fd_ >= 0) ::close(fd_);
}

void AnonymousFile::Append(const void* data, size_t bytes) {
  const auto* p = static_cast<const char*>(data);
  while (bytes > 0) {
    const ssize_t n = ::pwrite(fd_, p, bytes, static_cast<off_t>(size_));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      throw ToolError("cannot write the temporary file of the " + what_ + ": " +
                      std::strerror(n < 0 ? errno : ENOSPC));
    }
    p += n;
    bytes -= static_cast<size_t>(n);
    size_ += static_cast<uint64_t>(n);
  }
}

void AnonymousFile::ReadAt(uint64_t offset, void* data, size_t bytes) const {
  auto* p = static_cast<char*>(data);
  while (bytes > 0) {
    const ssize_t n = ::pread(fd_, p, bytes, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      throw ToolError("cannot read the temporary file of the " + what_ + ": " +
                      (n < 0 ? std::strerror(errno) : "it is shorter than written"));
    }
    p += n;
    bytes -= static_cast<size_t>(n);
    offset += static_cast<uint64_t>(n);
  }
}

std::unique_ptr<TraceSpool> TraceSpool::Make(TraceReader& source, const SpoolProgress& progress) {
  std::unique_ptr<TraceSpool> spool(new TraceSpool);
  spool->records_ = std::make_unique<AnonymousFile>("trace's copy");
  std::vector<unsigned char> chunk(kChunkRequests * kRecordBytes);
  size_t filled = 0;
  TraceRequest r;
  while (source.Next(&r)) {
    Store(chunk.data() + filled, r);
    filled += kRecordBytes;
    ++spool->requests_;
    if (filled == chunk.size()) {
      spool->records_->Append(chunk.data(), filled);
      filled = 0;
      if (progress) progress(source.fileBytesRead());
    }
  }
  spool->records_->Append(chunk.data(), filled);
  if (progress) progress(source.fileBytesRead());
  return spool;
}

std::unique_ptr<RequestSource> TraceSpool::Forward() const {
  return std::make_unique<SpoolReader>(*records_, requests_);
}

void TraceSpool::FindNextUses(const SpoolProgress& progress) {
  nextUses_ = std::make_unique<AnonymousFile>("next uses");
  ObjectTable latest;  // object -> its earliest request among those seen, i.e. the next use
  std::vector<unsigned char> chunk(kChunkRequests * kRecordBytes);
  std::vector<uint64_t> next;
  next.reserve(kChunkRequests);
  uint64_t end = requests_;
  while (end > 0) {
    const uint64_t begin = end > kChunkRequests ? end - kChunkRequests : 0;
    records_->ReadAt(begin * kRecordBytes, chunk.data(), (end - begin) * kRecordBytes);
    for (uint64_t i = end; i-- > begin;) {
      bool inserted = false;
      uint64_t& slot = latest.FindOrInsert(Load(chunk.data() + (i - begin) * kRecordBytes).id,
                                           kNever, &inserted);
      next.push_back(slot);
      slot = i;
    }
    nextUses_->Append(next.data(), next.size() * sizeof(uint64_t));
    next.clear();
    end = begin;
    if (progress) progress(requests_ - end);
  }
  distinct_ = latest.size();
}

void TraceSpool::Future(const std::function<void(const FutureRequest&)>& visit) const {
  std::vector<unsigned char> chunk(kChunkRequests * kRecordBytes);
  std::vector<uint64_t> next(kChunkRequests);
  for (uint64_t begin = 0; begin < requests_; begin += kChunkRequests) {
    const uint64_t end = std::min(requests_, begin + kChunkRequests);
    records_->ReadAt(begin * kRecordBytes, chunk.data(), (end - begin) * kRecordBytes);
    // The next-use file runs from the last request to the first: entry k is request n-1-k.
    nextUses_->ReadAt((requests_ - end) * sizeof(uint64_t), next.data(),
                      (end - begin) * sizeof(uint64_t));
    for (uint64_t i = begin; i < end; ++i) {
      const TraceRequest r = Load(chunk.data() + (i - begin) * kRecordBytes);
      visit({r.id, r.size, next[end - 1 - i]});
    }
  }
}

ObjectTable::ObjectTable() : slots_(1024), used_(1024, false) {}

uint64_t& ObjectTable::FindOrInsert(uint64_t id, uint64_t absent, bool* inserted) {
  if ((count_ + 1) * 10 > slots_.size() * 7) Grow();
  const size_t mask = slots_.size() - 1;
  size_t i = Mix(id) & mask;
  while (used_[i]) {
    if (slots_[i].id == id) {
      *inserted = false;
      return slots_[i].value;
    }
    i = (i + 1) & mask;
  }
  used_[i] = true;
  slots_[i] = {id, absent};
  ++count_;
  *inserted = true;
  return slots_[i].value;
}

void ObjectTable::Grow() {
  std::vector<Slot> old;
  std::vector<bool> oldUsed;
  old.swap(slots_);
  oldUsed.swap(used_);
  slots_.assign(old.size() * 2, Slot{});
  used_.assign(old.size() * 2, false);
  const size_t mask = slots_.size() - 1;
  for (size_t j = 0; j < old.size(); ++j) {
    if (!oldUsed[j]) continue;
    size_t i = Mix(old[j].id) & mask;
    while (used_[i]) i = (i + 1) & mask;
    used_[i] = true;
    slots_[i] = old[j];
  }
}

}  // namespace jx::tool
