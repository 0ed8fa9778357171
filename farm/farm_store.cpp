#include "farm/farm_store.h"

#include <algorithm>
#include <atomic>
#include <stdexcept>

#include "disk/cache_file_name.h"
#include "farm/farm_counters.h"
#include "farm/farm_value.h"
#include "host/trace.h"
#include "jxcache/host/high_precision_time.h"

using zelcore::utility::HighPrecisionTime;
using zelcore::utility::Timer;

namespace jx::farm {
namespace {

constexpr std::string_view kKeyPrefix = "jxfarm:";
constexpr std::string_view kLeasePrefix = "lease:";

// Both scripts act only for the token that holds the lease: a node whose lease lapsed and was
// taken over must not cut short, or extend, the new holder's.
constexpr std::string_view kReleaseScript =
    "if redis.call('get', KEYS[1]) == ARGV[1] then return redis.call('del', KEYS[1]) end "
    "return 0";
// Deletes a value only while it still starts with the bytes a reader found broken.
constexpr std::string_view kDeleteIfScript =
    "if redis.call('getrange', KEYS[1], 0, string.len(ARGV[1]) - 1) == ARGV[1] then "
    "return redis.call('del', KEYS[1]) end return 0";
// As much of an undecodable value as tells it apart from whatever replaces it.
constexpr size_t kSeenBytes = 1024;
// What a reader that found an empty string, or no string at all, deletes: the key only while it
// holds the same, never a value written there in between.
constexpr std::string_view kDeleteIfEmptyScript =
    "if redis.call('type', KEYS[1]).ok == 'string' and redis.call('strlen', KEYS[1]) == 0 then "
    "return redis.call('del', KEYS[1]) end return 0";
constexpr std::string_view kDeleteIfNotStringScript =
    "if redis.call('type', KEYS[1]).ok ~= 'string' then return redis.call('del', KEYS[1]) end "
    "return 0";
constexpr std::string_view kRenewScript =
    "if redis.call('get', KEYS[1]) == ARGV[1] then "
    "return redis.call('pexpire', KEYS[1], ARGV[2]) end return 0";

void CountFault(Fault fault) {
  Counters& c = GetCounters();
  c.errors.fetch_add(1, std::memory_order_relaxed);
  switch (fault) {
    case Fault::kTimeout:
      c.timeouts.fetch_add(1, std::memory_order_relaxed);
      break;
    case Fault::kConnection:
    case Fault::kBackOff:
      c.connectionErrors.fetch_add(1, std::memory_order_relaxed);
      break;
    case Fault::kRefused:
      c.refusedCommands.fetch_add(1, std::memory_order_relaxed);
      break;
    case Fault::kNone:
      break;
  }
}

bool IsOk(const Reply& r) { return r.kind == Reply::Kind::kStatus && r.text == "OK"; }

// Compares what a value says it is with what was asked for.
bool SameIdentity(const ValueHeader& h, const Identity& id, const std::string& key) {
  return h.guid == id.guid && h.matchName == id.matchName && h.key == key;
}

}  // namespace

std::string KeyOf(const Identity& id) {
  return std::string(kKeyPrefix) + jx::disk::MakeCacheFileName(id.guid, id.matchName, id.version,
                                                               id.header.data(), id.header.size());
}

std::string LeaseKeyOf(const std::string& key) { return std::string(kLeasePrefix) + key; }

std::string PartKeyOf(const std::string& key, const std::string& tag, uint32_t index) {
  return key + ":part:" + tag + ":" + std::to_string(index);
}

std::string NewLeaseToken(const std::string& node) {
  static const std::string process = zelcore::utility::Guid::CreateUnique().AsString();
  static std::atomic<uint64_t> serial{0};
  return node + "/" + process + "/" + std::to_string(serial.fetch_add(1) + 1);
}

FarmStore::FarmStore(RedisPool& pool, std::string node, Limits limits)
    : pool_(pool), node_(std::move(node)), limits_(limits) {}

Reply FarmStore::Run(const std::vector<std::string_view>& args) {
  Reply r = pool_.Command(args);
  if (!r.Ok()) CountFault(r.fault);
  return r;
}

std::string FarmStore::TtlArg() const { return std::to_string(limits_.ttl.count()); }

void FarmStore::DeleteValue(const std::string& key, const ValueHeader* header,
                            std::string_view seen) {
  // Parts first: a manifest left without parts is a miss anyway; parts left without their
  // manifest are dead weight until their TTL.
  if (header && header->manifest) {
    for (uint32_t i = 0; i < header->parts; ++i) {
      const std::string part = PartKeyOf(key, header->partTag, i);
      if (!Run({"DEL", part}).Ok()) break;
    }
  }
  // An empty prefix would match whatever the key holds by then.
  Run({"EVAL", seen.empty() ? kDeleteIfEmptyScript : kDeleteIfScript, "1", key, seen});
}

FarmStore::Fetched FarmStore::Get(const Identity& identity) {
  const std::string key = KeyOf(identity);
  Timer timer;
  Reply r = pool_.Command({"GET", key});
  Fetched out;
  if (r.fault == Fault::kRefused && r.text.rfind("WRONGTYPE", 0) == 0) {
    // Another program's list or hash under the key: no fault of the server's, and it would
    // keep every value of ours out (writes are SET NX) for as long as it stays.
    ZC_TRACE("JX_Farm", 2, "corrupt value " << key << ": not a string");
    GetCounters().corrupt.fetch_add(1, std::memory_order_relaxed);
    Run({"EVAL", kDeleteIfNotStringScript, "1", key});
    out.status = GetStatus::kCorrupt;
    return out;
  }
  if (!r.Ok()) {
    CountFault(r.fault);
    out.status = GetStatus::kFault;
    return out;
  }
  if (r.kind != Reply::Kind::kString) {
    AddLatencySample(timer.GetElapsedSeconds());
    out.status = GetStatus::kMiss;
    return out;
  }
  ValueHeader header;
  size_t headerSize = 0;
  const DecodeError error = DecodeHeader(r.bytes, &header, &headerSize);
  if (error != DecodeError::kNone || !SameIdentity(header, identity, key)) {
    ZC_TRACE("JX_Farm", 2,
             "corrupt value " << key << ": "
                              << (error != DecodeError::kNone ? DescribeDecodeError(error)
                                                              : "another item's identity"));
    GetCounters().corrupt.fetch_add(1, std::memory_order_relaxed);
    // The header cannot be trusted to name its parts: only the key goes.
    DeleteValue(key, nullptr,
                r.bytes.substr(0, error == DecodeError::kNone ? headerSize : kSeenBytes));
    out.status = GetStatus::kCorrupt;
    return out;
  }
  std::string headerBytes(r.bytes.substr(0, headerSize));
  if (header.manifest) {
    out = ReadParts(key, header, headerBytes);
    if (out.status != GetStatus::kHit) return out;
  } else {
    out.payload = r.bytes.substr(headerSize);
    out.holder = std::move(r.owner);
  }
  if (HashPayload(out.payload.data(), out.payload.size()) != header.hash) {
    ZC_TRACE("JX_Farm", 2, "corrupt value " << key << ": checksum mismatch");
    GetCounters().corrupt.fetch_add(1, std::memory_order_relaxed);
    DeleteValue(key, &header, headerBytes);
    out = Fetched{};
    out.status = GetStatus::kCorrupt;
    return out;
  }
  const double seconds = timer.GetElapsedSeconds();
  ReadSpeed().AddSample(out.payload.size(), seconds, HighPrecisionTime::GetCurrentTimeStamp(),
                        jx::disk::GetSpeedCap());
  GetCounters().bytesRead.fetch_add(out.payload.size(), std::memory_order_relaxed);
  out.status = GetStatus::kHit;
  out.computeSeconds = header.computeSeconds;
  out.writerNode = header.writerNode;
  out.header = std::move(header);
  out.headerBytes = std::move(headerBytes);
  return out;
}

void FarmStore::Discard(const Identity& identity, const Fetched& fetched) {
  const std::string key = KeyOf(identity);
  ZC_TRACE("JX_Farm", 2, "corrupt value " << key << ": its payload class refused it");
  GetCounters().corrupt.fetch_add(1, std::memory_order_relaxed);
  DeleteValue(key, &fetched.header, fetched.headerBytes);
}

FarmStore::Fetched FarmStore::ReadParts(const std::string& key, const ValueHeader& header,
                                        const std::string& headerBytes) {
  Fetched out;
  auto whole = std::make_shared<std::string>();
  // The manifest's length and part size both come from the server, so nothing is reserved
  // before a part has really arrived: then room for two of them (the whole of a value of two
  // parts), and only further parts that arrive (each of exactly its size) make it grow.
  for (uint32_t i = 0; i < header.parts; ++i) {
    Reply part = Run({"GET", PartKeyOf(key, header.partTag, i)});
    if (!part.Ok()) {
      out.status = GetStatus::kFault;
      return out;
    }
    const uint64_t expected = i + 1 < header.parts
                                  ? header.partBytes
                                  : header.payloadLength - uint64_t{header.partBytes} * i;
    if (part.kind != Reply::Kind::kString || part.bytes.size() != expected) {
      const bool missing = part.kind != Reply::Kind::kString;
      ZC_TRACE("JX_Farm", 2,
               "value " << key << ": part " << i << (missing ? " missing" : " of the wrong size"));
      Counters& c = GetCounters();
      (missing ? c.missingParts : c.corrupt).fetch_add(1, std::memory_order_relaxed);
      DeleteValue(key, &header, headerBytes);
      out.status = missing ? GetStatus::kMissingPart : GetStatus::kCorrupt;
      return out;
    }
    if (i == 0) whole->reserve(std::min<uint64_t>(header.payloadLength, 2 * part.bytes.size()));
    *whole += part.bytes;
  }
  out.payload = *whole;
  out.holder = std::move(whole);
  out.status = GetStatus::kHit;
  return out;
}

FarmStore::PutStatus FarmStore::Put(const Identity& identity, std::string_view payload,
                                    double computeSeconds) {
  const std::string key = KeyOf(identity);
  ValueHeader h;
  h.payloadLength = payload.size();
  h.hash = HashPayload(payload.data(), payload.size());
  h.computeSeconds = computeSeconds;
  h.guid = identity.guid;
  h.matchName = identity.matchName;
  h.writerNode = node_;
  h.key = key;
  Timer timer;
  PutStatus status;
  if (payload.size() <= limits_.partBytes) {
    std::string value = EncodeHeader(h);
    value.append(payload);
    const std::string ttl = TtlArg();
    Reply r = limits_.ttl.count() > 0 ? Run({"SET", key, value, "NX", "PX", ttl})
                                      : Run({"SET", key, value, "NX"});
    status = !r.Ok() ? PutStatus::kFault : IsOk(r) ? PutStatus::kWritten : PutStatus::kDuplicate;
  } else {
    h.manifest = true;
    h.partBytes = limits_.partBytes;
    h.parts = static_cast<uint32_t>((payload.size() + h.partBytes - 1) / h.partBytes);
    h.partTag = NewLeaseToken(node_);
    status = PutParts(key, payload, EncodeHeader(h), h.partTag, h.parts);
  }
  Counters& c = GetCounters();
  if (status == PutStatus::kWritten) {
    c.writes.fetch_add(1, std::memory_order_relaxed);
    c.bytesWritten.fetch_add(payload.size(), std::memory_order_relaxed);
    WriteSpeed().AddSample(payload.size(), timer.GetElapsedSeconds(),
                           HighPrecisionTime::GetCurrentTimeStamp(), jx::disk::GetSpeedCap());
  } else if (status == PutStatus::kDuplicate) {
    c.duplicateWrites.fetch_add(1, std::memory_order_relaxed);
    ZC_TRACE("JX_Farm", 5, "value " << key << " was there already");
  }
  return status;
}

FarmStore::PutStatus FarmStore::PutParts(const std::string& key, std::string_view payload,
                                         std::string manifest, const std::string& tag,
                                         uint32_t parts) {
  const std::string ttl = TtlArg();
  const bool expires = limits_.ttl.count() > 0;
  for (uint32_t i = 0; i < parts; ++i) {
    const std::string partKey = PartKeyOf(key, tag, i);
    const std::string_view chunk =
        payload.substr(uint64_t{i} * limits_.partBytes, limits_.partBytes);
    Reply r = expires ? Run({"SET", partKey, chunk, "PX", ttl}) : Run({"SET", partKey, chunk});
    if (!r.Ok()) {
      for (uint32_t j = 0; j < i; ++j) Run({"DEL", PartKeyOf(key, tag, j)});
      return PutStatus::kFault;
    }
  }
  Reply r =
      expires ? Run({"SET", key, manifest, "NX", "PX", ttl}) : Run({"SET", key, manifest, "NX"});
  if (r.Ok() && IsOk(r)) return PutStatus::kWritten;
  if (!r.Ok()) {
    // The commit may have reached the server with only its reply lost (a reset or a failover on
    // the way back): then the parts are a committed value's, and deleting them would break it
    // for every reader. Our manifest names our parts by their tag, so the key tells.
    const Reply check = Run({"GET", key});
    if (!check.Ok()) return PutStatus::kFault;  // unknown: the parts stay (until their TTL)
    if (check.kind == Reply::Kind::kString && check.bytes == manifest) return PutStatus::kWritten;
  }
  // Another node committed first, or the commit did not happen: our parts are nobody's.
  for (uint32_t j = 0; j < parts; ++j) Run({"DEL", PartKeyOf(key, tag, j)});
  return r.Ok() ? PutStatus::kDuplicate : PutStatus::kFault;
}

FarmStore::LeaseStatus FarmStore::TakeLease(const std::string& key, const std::string& token,
                                            std::chrono::milliseconds duration) {
  Timer timer;
  const std::string ms = std::to_string(duration.count());
  Reply r = Run({"SET", LeaseKeyOf(key), token, "NX", "PX", ms});
  if (!r.Ok()) return LeaseStatus::kFault;
  AddLatencySample(timer.GetElapsedSeconds());
  return IsOk(r) ? LeaseStatus::kTaken : LeaseStatus::kHeldByOther;
}

FarmStore::RenewStatus FarmStore::RenewLease(const std::string& key, const std::string& token,
                                             std::chrono::milliseconds duration) {
  const std::string ms = std::to_string(duration.count());
  Reply r = Run({"EVAL", kRenewScript, "1", LeaseKeyOf(key), token, ms});
  if (!r.Ok()) return RenewStatus::kFault;
  return r.kind == Reply::Kind::kInteger && r.integer == 1 ? RenewStatus::kRenewed
                                                           : RenewStatus::kLost;
}

void FarmStore::ReleaseLease(const std::string& key, const std::string& token) {
  Run({"EVAL", kReleaseScript, "1", LeaseKeyOf(key), token});
}

}  // namespace jx::farm
