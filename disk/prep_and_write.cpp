// JX_Stuff::PrepAndWrite: writing one item's disk cache file.
//
// The file is written beside its final name through SafeSave and renamed into place only when
// complete, so the folder never shows a partial cache file, whatever fails and whenever the
// process dies. Any failure leaves the item without a file and counts a failed write; it never
// reaches the caller (the disk thread) and never touches the item's memory.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>

#include "common/failures.h"
#include "common/settings.h"
#include "disk/cache_file_name.h"
#include "disk/claimed_file.h"
#include "disk/disk_counters.h"
#include "disk/disk_folder.h"
#include "disk/fast_write_stream.h"
#include "disk/scan_one_file.h"
#include "host/safe_save.h"
#include "host/trace.h"
#include "host/y_api.h"
#include "jxcache/bag/bag.h"
#include "jxcache/bag/global_bag.h"
#include "jxcache/host/high_precision_time.h"
#include "jxcache/host/host_services.h"
#include "jxcache/host/profiler.h"
#include "jxcache/items/checksummed_stream.h"
#include "jxcache/items/stuff.h"

using zelcore::filesupport::File;
using zelcore::filesupport::SafeSave;
using zelcore::threads::ScopedWriteLockWrapper;
using zelcore::utility::IntrusivePtr;

namespace {

void VerifyWriteable(const IntrusivePtr<JX_StuffData>& data, const std::shared_ptr<JX_Bag>& bag,
                     const zelcore::utility::Guid& guid) {
  if (!data) jx::FailVerification("PrepAndWrite() called on stuff with no data");
  if (!data->CanDiskCache())
    jx::FailVerification("PrepAndWrite() called on non-diskcacheable stuff");
  if (!bag) jx::FailVerification("PrepAndWrite() called with NULL bag");
  if (guid.IsEmpty()) jx::FailVerification("Passed invalid GUID");
}

// The file the item's payload belongs in; empty when the bag has no folder (disk caching is
// off). Files carry the running (global) bag's version: that is the version a later scan
// compares with.
File TargetFile(const JX_StuffData& data, const zelcore::utility::Guid& guid, const JX_Bag& bag) {
  const zelcore::filesupport::Dir folder = bag.GetDiskCacheDirSpec();
  // An empty folder would make the name a path relative to the working directory.
  if (folder.IsEmpty()) return File();
  const auto global = JX_GlobalBag();
  const uint32_t version = global ? global->GetAppVersion() : bag.GetAppVersion();
  JX_StuffData::Header header;
  data.GetHeader(header);
  const char* matchName = data.GetSubclassMatchname();
  return File(folder, jx::disk::MakeCacheFileName(guid, matchName ? matchName : "", version,
                                                  header.data(), header.size()));
}

// A slow disk, simulated: the delay counts as write time.
double SimulatedWriteDelaySeconds() {
  const int32_t delayMs = jx::settings::WriteDiskDelayMs();
  if (delayMs <= 0) return 0.0;
  jx::host::GetClock().SleepFor(std::chrono::milliseconds(delayMs));
  return delayMs / 1000.0;
}

// The stream a payload writes its file through: it carries the final name's checksum seed, so
// the bytes written into the temporary verify only under the name they are renamed to.
class CacheFileOStream : public jx::disk::FastWriteOnlyStream, public jx::ChecksumIdentity {
 public:
  CacheFileOStream(const File& temp, const File& target)
      : FastWriteOnlyStream(temp),
        ChecksumIdentity(jx::disk::CacheFileChecksumSeed(target.GetName())) {}
};

// Creates `temp` and writes the payload into it, completely. Returns the seconds it took.
double WriteBody(const JX_StuffData& data, const File& temp, const File& target) {
  temp.Create();
  temp.SetNotContentIndexed();
  double seconds = SimulatedWriteDelaySeconds();
  CacheFileOStream stream(temp, target);
  seconds += data.Write(stream);
  zelcore::utility::Timer flushTimer;
  stream.Flush();
  stream.WriteFinalBlock();
  stream.Close();
  return seconds + flushTimer.GetElapsedSeconds();
}

// The size of a committed file. One the item cannot count (its size unreadable, or more than the
// 32 bits an item's file is counted in, which would count it short and let the folder pass its
// limit unseen) is deleted, and the write fails.
uint64_t SizeOrDelete(const File& file) {
  try {
    const uint64_t size = file.Size();
    if (size > UINT32_MAX) {
      throw zelcore::filesupport::FileError(EFBIG, file.GetPath() + ": too large to count");
    }
    return size;
  } catch (...) {
    // A committed file the item cannot account for must not stay behind uncounted.
    try {
      file.Delete();
    } catch (...) {
    }
    throw;
  }
}

}  // namespace

void JX_Stuff::PrepAndWrite(const std::shared_ptr<JX_Bag>& bag) {
  ZC_PROFILE_SCOPE("KQ.JX_Stuff::PrepAndWrite", 6);
  Y::ScQuietErrors quiet;
  auto& counters = jx::disk::GetCounters();
  bool claimed = false;
  try {
    WriteDiskCacheFile(bag, &claimed);
  } catch (int code) {
    counters.failedWrites.fetch_add(1, std::memory_order_relaxed);
    ZC_TRACE("JX", 3, "PrepAndWrite failed with code " << code);
  } catch (const std::exception& e) {
    const int32_t code = Y_TranslateAndReportException();
    counters.failedWrites.fetch_add(1, std::memory_order_relaxed);
    ZC_TRACE("JX", 3, "PrepAndWrite failed with code " << code << ": " << e.what());
    // A full volume is news for the host, not just a failed write: it may free space or
    // point the cache elsewhere.
    const auto* fileError = dynamic_cast<const zelcore::filesupport::FileError*>(&e);
    if (bag && fileError && jx::disk::IsOutOfSpaceErrno(fileError->Errno())) {
      jx::disk::NoteDiskOutOfSpace(*bag);
    }
  } catch (...) {
    // A payload's Write is its own code and may throw anything. Let through, it would also skip
    // the release below and leave the item claimed by a write that is over: never written again.
    const int32_t code = Y_TranslateAndReportException();
    counters.failedWrites.fetch_add(1, std::memory_order_relaxed);
    ZC_TRACE("JX", 3, "PrepAndWrite failed with code " << code << ": unknown exception");
  }
  // Paired with the acquire of the exchange that claimed it: the next write of this item starts
  // after everything this one did.
  if (claimed) writeInProgress_.store(0, std::memory_order_release);
}

void JX_Stuff::WriteDiskCacheFile(const std::shared_ptr<JX_Bag>& bag, bool* claimed) {
  auto& counters = jx::disk::GetCounters();
  const IntrusivePtr<JX_StuffData> data = GetDataPtr();
  const zelcore::utility::Guid guid = GetGuid();
  // A compressed copy is written before it joins the bag; an item that was in one and is not by
  // the end of the write has been removed meanwhile.
  const bool wasInBag = GetBag() != nullptr;
  VerifyWriteable(data, bag, guid);
  const File target = TargetFile(*data, guid, *bag);
  if (target.IsEmpty()) {
    // Disk caching went off (the folder became unusable) after this write was decided on.
    counters.writesSkipped.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  SafeSave save(target);
  const File& temp = save.GetTempFile();
  // A file of this name was written earlier (by us or by another process of this version):
  // the item adopts it and there is nothing left to write.
  JX_ScanOneDiskCacheFile(target);
  std::shared_ptr<jx::disk::ClaimedFile> claim = ClaimWrite(target, temp, claimed);
  if (!claim) {
    counters.writesSkipped.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  const double seconds = WriteBody(*data, temp, target);
  if (seconds > 0.0) jx::disk::AddWriteSpeedSample(data->GetApproximateMemorySize(), seconds);
  save.Commit(SafeSave::Sync::kAlreadySynced);  // the stream's Close synced the data
  LinkWrittenFile(target, guid, wasInBag, std::move(claim));
}

std::shared_ptr<jx::disk::ClaimedFile> JX_Stuff::ClaimWrite(const File& target, const File& temp,
                                                            bool* claimed) {
  uint32_t idle = 0;
  *claimed = writeInProgress_.compare_exchange_strong(idle, 1, std::memory_order_acq_rel);
  // The target's path is claimed before the file exists: a scan cannot adopt it between its
  // rename into place and this item linking to it.
  if (!*claimed || HasDiskCacheFile() || temp.Exists() || target.Exists()) return nullptr;
  return jx::disk::ClaimedFile::TryClaim(target);
}

void JX_Stuff::LinkWrittenFile(const File& target, const zelcore::utility::Guid& guid,
                               bool wasInBag, std::shared_ptr<jx::disk::ClaimedFile> claim) {
  uint64_t size = 0;
  MemDiskChangedSignal* changed = nullptr;
  bool unwanted;
  {
    ScopedWriteLockWrapper wl(mutex_);
    // The body took a while, and neither re-keying nor removal waits for a write. A file named
    // after a key the item no longer answers would be adopted under that key by a later process;
    // one linked to an item nobody can find stays in the folder, uncounted, once the item goes.
    // (Re-keying discards the link again after it stores the new key, for a write that gets
    // here just before.) Nor does a scan wait: it may have given the item a file of its key under
    // another name meanwhile (another process's, written with another header). That file is
    // linked and counted; replacing the link would leave it in the folder with nothing counting
    // it, so the item keeps it, as it would had the scan come before the write.
    unwanted = GetGuid() != guid || (wasInBag && !LiveBagLocked()) || diskFile_ != nullptr;
    if (!unwanted) {
      size = SizeOrDelete(target);
      diskFile_ = std::move(claim);
      // Counted in the same hold as the link: a deletion (a folder purge, a re-key) that comes
      // in between would otherwise zero the count first and leave this size counted for no file.
      SyncDiskSizeWithBag(static_cast<unsigned int>(size));
      changed = MemDiskChangedLocked();
    }
  }
  auto& counters = jx::disk::GetCounters();
  if (unwanted) {
    try {
      target.Delete();
    } catch (...) {
    }
    claim.reset();  // only once the file is gone: no scan adopts it in between
    counters.writesSkipped.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  counters.bytesWritten.fetch_add(size, std::memory_order_relaxed);
  counters.filesWritten.fetch_add(1, std::memory_order_relaxed);
  if (changed) TellMemDiskState(*changed);
  jx::disk::NoteDiskWriteCommitted();
}
