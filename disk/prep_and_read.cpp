// JX_Stuff::PrepAndRead: reading an item's payload back from its disk cache file.
//
// A file that cannot be read back, for whatever reason, is deleted at once, so it is never tried
// twice; the caller gets the error and treats the item like one that was never cached (it is
// recomputed). That includes a read that ran out of memory: a damaged file whose header claims
// a huge frame fails that way on every try, and a good file costs one render to replace.
#include <chrono>

#include "bag/miss_reasons.h"
#include "common/failures.h"
#include "common/settings.h"
#include "disk/cache_file_name.h"
#include "disk/claimed_file.h"
#include "disk/disk_counters.h"
#include "disk/disk_writer.h"
#include "host/trace.h"
#include "host/y_api.h"
#include "jxcache/bag/bag.h"
#include "jxcache/bag/library_lock.h"
#include "jxcache/host/byte_stream.h"
#include "jxcache/host/host_services.h"
#include "jxcache/host/profiler.h"
#include "jxcache/items/checksummed_stream.h"
#include "jxcache/items/stuff.h"

using zelcore::filesupport::BufferedIByteStream;
using zelcore::filesupport::File;
using zelcore::filesupport::IPlatformByteStream;
using zelcore::threads::ScopedReadLockWrapper;
using zelcore::threads::ScopedUpgradeLockWrapper;
using zelcore::utility::IntrusivePtr;

namespace {

// Serves the header and other small reads; a payload's large reads bypass it.
constexpr size_t kReadBufferSize = 64 * 1024;
constexpr size_t kReadBlockSize = 4096;

// The stream a payload reads its file through: it carries the seed of the name the file was
// found under, so a checksum written for another name (a file copied or renamed over this one)
// does not verify.
class CacheFileIStream : public BufferedIByteStream, public jx::ChecksumIdentity {
 public:
  CacheFileIStream(IPlatformByteStream& raw, const File& file)
      : BufferedIByteStream(raw, kReadBufferSize, kReadBlockSize),
        ChecksumIdentity(jx::disk::CacheFileChecksumSeed(file.GetName())) {}
};

// A slow disk, simulated: the delay counts as read time.
double SimulatedReadDelaySeconds() {
  const int32_t delayMs = jx::settings::ReadDiskDelayMs();
  if (delayMs <= 0) return 0.0;
  jx::host::GetClock().SleepFor(std::chrono::milliseconds(delayMs));
  return delayMs / 1000.0;
}

}  // namespace

void JX_Stuff::PrepAndRead(const ScopedUpgradeLockWrapper& lock, DiskCopyGone* gone) {
  ZC_PROFILE_SCOPE("KQ.JX_Stuff::PrepAndRead", 6);
  Y::ScQuietErrors quiet;
  auto& counters = jx::disk::GetCounters();
  int code = 0;
  try {
    const double delaySeconds = SimulatedReadDelaySeconds();
    IntrusivePtr<JX_StuffData> data;
    // Held for the read: the path stays claimed even if the item lets go of it meanwhile.
    std::shared_ptr<jx::disk::ClaimedFile> file;
    {
      ScopedReadLockWrapper r(mutex_);
      data = data_;
      file = diskFile_;
    }
    if (!data) jx::FailVerification("PrepAndRead() called on stuff with no data");
    JX_DeprioritizeBackgroundWrites();
    if (!file) return;

    IPlatformByteStream raw(file->File());
    const uint64_t fileSize = raw.Size();
    CacheFileIStream in(raw, file->File());
    double seconds = delaySeconds;
    {
      jx::ScPayloadCodeUnderItemLock payloadCode;
      seconds += data->Read(in, lock.mutex());
    }
    const unsigned int payloadSize = data->GetApproximateMemorySize();
    SyncMemorySizeWithBag(payloadSize);
    if (seconds > 0.0) jx::disk::AddReadSpeedSample(payloadSize, seconds);
    counters.bytesRead.fetch_add(fileSize, std::memory_order_relaxed);
    counters.filesRead.fetch_add(1, std::memory_order_relaxed);
    jx::miss::NoteReadDone();
    return;
  } catch (int c) {
    code = c;
  } catch (const std::exception& e) {
    code = Y_TranslateAndReportException();
    ZC_TRACE("JX", 3, "PrepAndRead: " << e.what());
  } catch (...) {
    // A payload's Read is its own code and may throw anything; the file fails all the same, and
    // the caller hears a code like for any other failed read.
    code = Y_TranslateAndReportException();
    ZC_TRACE("JX", 3, "PrepAndRead: unknown exception");
  }
  DeleteDiskCacheFile(gone);
  // Its payload out of memory and its file gone, the item may keep nothing: whoever checks it in
  // last takes it out of the bag (the caller holds this item's lock, which comes after the
  // library lock that takes).
  mayKeepNothing_.store(true, std::memory_order_release);
  // DeleteDiskCacheFile leaves the accounted size alone when it could not see the file's size
  // (an empty or vanished file); the item has no file now either way.
  SyncDiskSizeWithBag(0);
  counters.failedReads.fetch_add(1, std::memory_order_relaxed);
  jx::miss::NoteReadFailed();
  size_t hash;
  GetGuidAndHash(&hash);
  jx::miss::NoteDeparture(hash, jx::miss::Reason::kFailedRead);
  ZC_TRACE("JX", 3, "PrepAndRead failed with code " << code << "; disk cache file deleted");
  throw code;
}
