// The disk writer, reader and folder keeper are not built yet: no item gets a disk file, so
// nothing is written, read back or scanned, and the folder has no room to keep.
#include "bag/bag.h"
#include "disk/disk_counters.h"
#include "host/file_utils.h"
#include "items/stuff.h"
#include "lifecycle/failures.h"

uint32_t JX_GetQueuedDiskWriteCount() { return 0; }
void JX_RunIdleDiskTask() {}
void JX_DeprioritizeBackgroundWrites() {}

void JX_Stuff::MaybeWriteToDisk() {}
void JX_Stuff::ReconsiderWriteToDisk() {}
void JX_Stuff::OfferToDiskAtCheckin(int, bool, double) {}

// Uses the folder as given (no maker, product or machine sub-folders yet) and switches the disk
// cache on when the folder can be made.
void JX_Bag::SetDiskCacheInfo(const std::string& folder, long long maxDiskCacheSize) {
  bool ok = zelcore::utility::FileUtils::EnsureDirectoryExists(folder);
  {
    std::lock_guard<std::mutex> l(diskMutex_);
    diskCacheDir_ = zelcore::filesupport::Dir(folder);
    maxDiskCacheSize_ = maxDiskCacheSize;
  }
  EnableDiskCache(ok);
}
zelcore::filesupport::Dir JX_Bag::GetDiskCacheDirSpec() const {
  std::lock_guard<std::mutex> l(diskMutex_);
  return diskCacheDir_;
}
long long JX_Bag::GetCurFreeSpace() const {
  std::lock_guard<std::mutex> l(diskMutex_);
  return maxDiskCacheSize_ - GetCurrentDiskCacheSize();
}
long long JX_Bag::GetMaxDiskCacheSize() const {
  std::lock_guard<std::mutex> l(diskMutex_);
  return maxDiskCacheSize_;
}
bool JX_Bag::IsDiskCacheLimitedDueToDriveSpace() const { return false; }
bool JX_Bag::EnsureDiskSpace(long long bytesNeeded, unsigned long long) {
  return GetCurFreeSpace() >= bytesNeeded;
}
double JX_Bag::GetDiskWriteQueueSizePercentFull() const { return 0.0; }

void jx::disk::AddWriteSpeedSample(uint64_t, double) {}
void jx::disk::AddReadSpeedSample(uint64_t, double) {}
