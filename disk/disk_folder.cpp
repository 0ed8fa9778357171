// The disk cache folder: where it lies, whether it can be used, the room it may take, and the
// folder-wide scan and purge.
#include "disk/disk_folder.h"

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <ctime>
#include <map>
#include <mutex>
#include <new>
#include <set>
#include <utility>
#include <vector>

#include "bag/miss_reasons.h"
#include "common/messages.h"
#include "common/settings.h"
#include "disk/cache_file_name.h"
#include "disk/claimed_file.h"
#include "disk/disk_speed.h"
#include "disk/scan_one_file.h"
#include "host/feature.h"
#include "host/file_iterator.h"
#include "host/file_utils.h"
#include "host/safe_save.h"
#include "host/text_encoding.h"
#include "host/trace.h"
#include "host/y_api.h"
#include "jxcache/bag/bag.h"
#include "jxcache/disk/disk_executor.h"
#include "jxcache/host/guid.h"
#include "jxcache/host/host_services.h"
#include "jxcache/host/profiler.h"

using zelcore::filesupport::Dir;
using zelcore::filesupport::File;
using zelcore::utility::FileUtils;

namespace {

constexpr const char* kFolderNonexistent =
    "$$$/KQ/JX/DiskCacheFolderNonexistent=Disk Cache folder doesn't exist (or isn't a "
    "directory), so it will be reset to the system temporary directory. Please check your "
    "settings in Media and Disk Cache Preferences.";
constexpr const char* kFolderCantWrite =
    "$$$/KQ/JX/DiskCacheFolderCantWrite=Unable to write to Disk Cache folder, so disk caching "
    "will be disabled. Please check your settings in Media and Disk Cache Preferences.";
constexpr int kThisComputerMessage = 23;
// Host builds that are not betas carry the plain product name.
constexpr bool kBetaBuild = false;

std::atomic<int64_t> gMinVolumeFreeSpace{jx::disk::kDefaultMinVolumeFreeSpaceGB << 30};
// Process-wide like the bag it reports for: one global bag is all a process has.
std::atomic<bool> gOutOfSpace{false};
// Room held by writes under way (ScWriteRoom), and the mutex under which room is made.
std::atomic<int64_t> gRoomHeld{0};
std::mutex gRoomMutex;

// What making room tells the host (an item's lost copy, an item let go with its payload, the
// folder out of space), held while a write makes room under gRoomMutex and told once that is let
// go: a handler may wait for a thread of its own whose write needs room too.
struct RoomNews {
  // The items the room was made from, which the news below may be all that is left of.
  std::deque<zelcore::utility::IntrusivePtr<JX_Stuff>> items;
  std::vector<JX_Stuff::DiskCopyGone> gone;
  JX_Stuff::ReleaseQueue released;
  JX_Bag* outOfSpace = nullptr;
  // Told last thing, after the mutex (declared after this) is let go; the queue and the items
  // then go.
  ~RoomNews() {
    for (const JX_Stuff::DiskCopyGone& g : gone) {
      try {
        g.Tell();
      } catch (...) {
        // A handler's failure is the host's own; the room is made all the same.
      }
    }
    if (outOfSpace) jx::disk::NoteDiskOutOfSpace(*outOfSpace);
  }
};
thread_local RoomNews* tRoomNews = nullptr;

// Only a person at the main thread can act on a folder warning; elsewhere the state change
// happens silently.
void WarnOnMainThread(const char* lstrKey) {
  if (Y_IsOnMainThread()) Y_ReportError(0, 0, lstrKey);
}

void ReadAdditionalSettings() {
  namespace prefs = zelappsupport::preferences;
  using namespace jx::disk;
  int64_t gigabytes =
      prefs::GetInt64(kPreferencesGroup, kMinVolumeFreeSpaceName, kDefaultMinVolumeFreeSpaceGB);
  gigabytes = std::clamp<int64_t>(gigabytes, 0, INT64_MAX >> 30);
  gMinVolumeFreeSpace.exchange(gigabytes << 30);
  SetProclivityMultiplier(
      prefs::GetDouble(kPreferencesGroup, kProclivityName, kDefaultProclivityMultiplier));
  SetSpeedCap(prefs::GetDouble(kPreferencesGroup, kSpeedCapName, kDefaultSpeedCap));
}

// Creates the folder and proves that a file can be made in it: a folder that exists but
// refuses files is as useless as one that cannot be made.
bool MakeWritableFolder(const Dir& dir) {
  try {
    if (!FileUtils::EnsureDirectoryExists(dir.GetPath())) return false;
    // Named as a temporary file is (and deleted with it when uncommitted): a process killed in
    // between leaves a file that the clean-up of leftover temporaries takes away.
    zelcore::filesupport::SafeSave probe(dir.GetFile(".write-probe"));
    probe.GetTempFile().Create();
    return true;
  } catch (...) {
    Y_TranslateAndReportException();
    return false;
  }
}

}  // namespace

namespace jx::disk {

std::string MachineFolderName(const std::string& computerName) {
  std::string name = computerName;
  if (name.empty()) name = zelcore::utility::UTF16ToUTF8(jx::LookupMessage(kThisComputerMessage));
  return "Disk Cache - " + FileUtils::ReplaceIllegalFileNameCharacters(name, '-') + ".noindex";
}

bool IsCacheFileName(const std::string& name) {
  const std::string_view ext(kCacheFileSuffix);
  return name.size() > ext.size() && std::string_view(name).substr(name.size() - ext.size()) == ext;
}

namespace {
// The time a file's age is counted to. The system clock itself, not time(): that reads a coarse
// clock, which can be a tick behind the time stamp a file just created was given, and a file
// would then be a second younger than new.
int64_t NowForFileAges() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}
}  // namespace

int DeleteLeftoverTempFiles(const Dir& dir, int64_t minAgeSeconds) {
  int deleted = 0;
  const int64_t now = NowForFileAges();
  std::vector<std::string> names;
  try {
    names = dir.ListNames();
  } catch (...) {
    return 0;
  }
  for (const std::string& name : names) {
    if (!zelcore::filesupport::SafeSave::IsTempFileName(name)) continue;
    File f = dir.GetFile(name);
    try {
      deleted += DeleteIfLeftover(f, f.GetCreationTime(), now, minAgeSeconds);
    } catch (...) {
      // Gone already: nothing to keep track of.
    }
  }
  return deleted;
}

bool DeleteIfLeftover(const File& temp, int64_t changed, int64_t now, int64_t minAgeSeconds) {
  if (now - changed < minAgeSeconds) return false;  // a live writer's
  try {
    temp.Delete();
    return true;
  } catch (...) {
    // Gone already, or not ours to delete: either way nothing to keep track of.
    return false;
  }
}

int64_t GetMinimumVolumeFreeSpace() { return gMinVolumeFreeSpace.load(std::memory_order_relaxed); }

bool VolumeKeepsMarginAfter(const JX_Bag& bag, int64_t bytes) {
  const Dir dir = bag.GetDiskCacheDirSpec();
  if (dir.IsEmpty()) return true;  // nothing will be written anyway
  const int64_t volumeFree = FileUtils::GetVolumeFreeSpace(dir.GetPath());
  if (volumeFree < 0) return true;
  return volumeFree - bytes >= GetMinimumVolumeFreeSpace();
}

void NoteDiskOutOfSpace(JX_Bag& bag) {
  if (tRoomNews) {
    tRoomNews->outOfSpace = &bag;  // told once the room's mutex is let go
    return;
  }
  if (gOutOfSpace.exchange(true, std::memory_order_acq_rel)) return;
  ZC_TRACE("JX", 3, "disk cache out of space");
  if (const auto& signal = bag.GetDiskOutOfSpaceSignal()) signal->Fire();
}

void NoteDiskWriteCommitted() {
  // A plain load first: the commit path runs for every write and rarely finds a shortage.
  if (gOutOfSpace.load(std::memory_order_relaxed)) gOutOfSpace.store(false);
}

bool IsOutOfSpaceErrno(int err) { return err == ENOSPC || err == EDQUOT; }

ScWriteRoom::ScWriteRoom(JX_Bag& bag, int64_t bytes, uint64_t lastUsedThreshold) : bytes_(bytes) {
  RoomNews news;  // told once the lock below is let go, however this ends
  std::lock_guard<std::mutex> lock(gRoomMutex);
  struct Collect {
    explicit Collect(RoomNews* news) { tRoomNews = news; }
    ~Collect() { tRoomNews = nullptr; }
  } collect(&news);
  // The room the other writes hold is not free for this one, though no file takes it yet.
  made_ = bag.EnsureDiskSpace(bytes + gRoomHeld.load(std::memory_order_acquire), lastUsedThreshold);
  if (made_) gRoomHeld.fetch_add(bytes, std::memory_order_acq_rel);
}

ScWriteRoom::~ScWriteRoom() {
  // Once the file is counted (or there is none): from here on the bag's size holds it.
  if (made_) gRoomHeld.fetch_sub(bytes_, std::memory_order_acq_rel);
}

}  // namespace jx::disk

std::string JX_KQVersDir(const std::string& versionText) {
#if defined(_WIN32)
  return "\\" + versionText;
#else
  return "/" + versionText;
#endif
}

void JX_Bag::SetDiskCacheInfo(const std::string& folder, long long maxDiskCacheSize) {
  Dir chosen(folder);
  if (folder.empty() || !chosen.Exists()) {
    WarnOnMainThread(kFolderNonexistent);
    chosen = Dir::TempDirectory();
  }
  const std::string product = std::string(jx::disk::kProductFolder) + (kBetaBuild ? " (Beta)" : "");
  const Dir machine = chosen.Join(jx::disk::kMakerFolder)
                          .Join(product)
                          .Join(jx::disk::MachineFolderName(FileUtils::GetComputerName()));
  const bool usable = MakeWritableFolder(machine);
  if (!usable) WarnOnMainThread(kFolderCantWrite);
  ReadAdditionalSettings();
  {
    std::lock_guard<std::mutex> l(diskMutex_);
    diskCacheDir_ = usable ? machine : Dir();
    diskCacheDirText_ = zelcore::utility::UTF8ToUTF16(diskCacheDir_.GetPath());
    maxDiskCacheSize_ = maxDiskCacheSize;
  }
  // The folder may be on another volume now: a shortage there is news to the host.
  gOutOfSpace.store(false, std::memory_order_relaxed);
  // Switching disk caching on is the host's call (EnableDiskCache); a folder that cannot be
  // used switches it off, a usable one leaves the host's choice alone.
  if (!usable) EnableDiskCache(false);
  // The deferred task scans the folder at start-up when the host wants it.
  if (usable) jx::QueueIdleDiskTask();
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

bool JX_Bag::IsDiskCacheLimitedDueToDriveSpace() const {
  Dir dir;
  long long maxSize;
  {
    std::lock_guard<std::mutex> l(diskMutex_);
    dir = diskCacheDir_;
    maxSize = maxDiskCacheSize_;
  }
  const long long need =
      jx::disk::GetMinimumVolumeFreeSpace() - GetCurrentDiskCacheSize() + maxSize;
  if (need < 0 || dir.IsEmpty()) return false;
  const int64_t volumeFree = FileUtils::GetVolumeFreeSpace(dir.GetPath());
  return volumeFree >= 0 && volumeFree < need;
}

namespace {

// Whether `item`'s file is one that making room may delete now (MaybeDeleteDiskCacheFile decides
// again under the item's lock).
bool MayGoToMakeRoom(const JX_Stuff& item, unsigned long long lastUsedThreshold) {
  return item.GetCheckoutCount() == 0 && item.GetNumDiskCacheCheckouts() == 0 &&
         item.GetLastUsedTime() < lastUsedThreshold && item.HasDiskCacheFile();
}

// The bytes that deleting every file that may go would give back.
long long ReclaimableBytes(const std::deque<JX_Bag::StuffPtr>& items,
                           unsigned long long lastUsedThreshold) {
  long long bytes = 0;
  for (const JX_Bag::StuffPtr& item : items) {
    if (MayGoToMakeRoom(*item, lastUsedThreshold)) bytes += item->GetAccountedDiskSize();
  }
  return bytes;
}

}  // namespace

bool JX_Bag::EnsureDiskSpace(long long bytesNeeded, unsigned long long lastUsedThreshold) {
  ZC_PROFILE_SCOPE("KQ.JX_Bag::EnsureDiskSpace", 6);
  long long free = GetCurFreeSpace();
  const long long target = bytesNeeded;
  if (free >= target) return true;
  std::deque<StuffPtr> items;
  {
    ZC_PROFILE_SCOPE("KQ.JX_Bag::EnsureDiskSpace - bag copy", 6);
    items = CopyMruItems();  // oldest use first; the library lock is released on return
  }
  // A write that cannot fit even once every file it may take is gone (it is larger than the whole
  // limit, or the rest is pinned or used since) deletes nothing: those files would be lost and the
  // write skipped all the same.
  if (free + ReclaimableBytes(items, lastUsedThreshold) >= target) {
    for (const StuffPtr& item : items) {
      if (free >= target) break;
      if (!MayGoToMakeRoom(*item, lastUsedThreshold)) continue;
      bool skipped = false;
      if (RoomNews* news = tRoomNews) {
        JX_Stuff::DiskCopyGone gone;
        {
          zelcore::threads::ScopedWriteLockWrapper wl(item->mutex_);
          item->MaybeDeleteDiskCacheFileLocked(lastUsedThreshold, nullptr, &skipped, &gone);
        }
        if (gone.signal) {
          try {
            news->gone.push_back(gone);
          } catch (const std::bad_alloc&) {
            gone.Tell();  // no memory to put it off: now, under the room's mutex alone
          }
        }
      } else {
        item->MaybeDeleteDiskCacheFile(lastUsedThreshold, nullptr, &skipped);
      }
      if (skipped) continue;
      // Measured again also when the deletion reports nothing freed: a file found empty (or
      // already gone) still gives back the size the item had counted.
      free = GetCurFreeSpace();
      // An item whose file was the last of it (its payload had left memory) keeps nothing a
      // request could use: it leaves the bag, as it does when the folder is purged. Nothing else
      // would take it out, and after a restart every adopted file is such an item.
      item->LeaveIfKeepsNothing(tRoomNews ? &tRoomNews->released : nullptr);
    }
  }
  // The news keeps the items the room was made from until it has told them and the room's mutex
  // is let go: an item let go above may be held by this copy alone, and its handler and its
  // payload's destructor are the host's code. (A room is made once per ScWriteRoom; the swap
  // cannot fail.)
  if (RoomNews* news = tRoomNews) news->items.swap(items);
  const bool enough = free >= target;
  if (!enough) {
    ZC_TRACE("JX", 5, "EnsureDiskSpace: short of " << (target - free) << " bytes");
    jx::disk::NoteDiskOutOfSpace(*this);
  }
  return enough;
}

void JX_Bag::RequestDiskCacheScan() {
  diskScanRequested_.store(true, std::memory_order_release);
  jx::QueueIdleDiskTask();
}

int JX_Bag::ScanDiskCacheDir() {
  ZC_PROFILE_SCOPE("KQ.JX_SortDir::ScanDiskCacheDir", 6);
  if (!IsDiskCacheEnabled()) return 0;
  // The request is taken under the scan mutex: a caller that finds it taken by another thread
  // (the deferred disk task, say) returns only once that thread's scan has ended, so that
  // "request, then scan" always leaves the folder adopted when it returns.
  std::lock_guard<std::mutex> scanLock(diskScanMutex_);
  const bool requested = diskScanRequested_.exchange(false, std::memory_order_acq_rel);
  if (!requested && !jx::settings::MediaMapAllowed()) return 0;
  // The folder is copied out under the disk mutex and walked without it: adopting a file takes
  // the library lock, and the disk mutex is a leaf.
  Y::ScQuietErrors quiet;
  const Dir dir = GetDiskCacheDirSpec();
  if (dir.IsEmpty()) return 0;

  // Oldest file first, so that after a restart the recency order (and with it the order in
  // which the folder's room is reclaimed) follows the files' age.
  // One status call per file gives its age, its kind and its size: in a folder of 100,000 files
  // the calls, not the adoption, are most of the scan's time. They are asked a batch of names of
  // one folder at a time, which the file system can answer from one handle on the folder.
  struct Found {
    int64_t creationTime;
    uint64_t size;
    File file;
  };
  std::vector<Found> files;
  jx::host::FileSystem& fs = jx::host::GetFiles();
  const int64_t now = jx::disk::NowForFileAges();

  struct Listed {
    File file;
    bool temp;
  };
  constexpr size_t kBatch = 256;
  std::vector<Listed> batch;
  batch.reserve(kBatch);  // never moved: `names` points into its paths
  std::vector<const char*> names;
  names.reserve(kBatch);
  std::string batchFolder;
  std::vector<struct stat> stats;
  std::vector<int> errors;
  const auto statusOfBatch = [&] {
    if (batch.empty()) return;
    stats.clear();
    errors.clear();
    fs.StatusInFolder(batchFolder.c_str(), names, &stats, &errors);
    // A name the host's file system left unanswered counts as gone.
    const size_t answered = std::min({batch.size(), stats.size(), errors.size()});
    for (size_t i = 0; i < answered; ++i) {
      const struct stat& st = stats[i];
      // Gone since the listing (a purge, another process), or something we must not read (a
      // FIFO named like a cache file would block the read back).
      if (errors[i] != 0 || !S_ISREG(st.st_mode)) continue;
      if (batch[i].temp) {
        jx::disk::DeleteIfLeftover(batch[i].file, static_cast<int64_t>(st.st_ctime), now,
                                   jx::disk::kLeftoverTempAgeSeconds);
        continue;
      }
      files.push_back({static_cast<int64_t>(st.st_ctime), static_cast<uint64_t>(st.st_size),
                       std::move(batch[i].file)});
    }
    batch.clear();
    names.clear();
  };

  zelcore::filesupport::RecursiveFileIterator it(dir);
  zelcore::filesupport::RecursiveFileIterator::Place place;
  File f;
  while (it.Next(&f, &place)) {
    const std::string& name = *place.name;
    const bool cacheFile = jx::disk::IsCacheFileName(name);
    // The temporaries of writes that died are swept by this same walk, so that a big folder is
    // listed once. Only the folder's own: writes never go to a sub-folder.
    const bool temp =
        !cacheFile && zelcore::filesupport::SafeSave::IsTempFileName(name) && *place.folder == dir;
    if (!cacheFile && !temp) continue;
    // A batch holds names of one folder.
    if (!batch.empty() && (batch.size() == kBatch || place.folder->GetPath() != batchFolder)) {
      statusOfBatch();
    }
    if (batch.empty()) batchFolder = place.folder->GetPath();
    // The file's path ends in its name: File joins the folder and the name.
    const size_t nameAt = f.GetPath().size() - name.size();
    batch.push_back({std::move(f), temp});
    names.push_back(batch.back().file.GetPath().c_str() + nameAt);
  }
  statusOfBatch();
  std::stable_sort(files.begin(), files.end(),
                   [](const Found& a, const Found& b) { return a.creationTime < b.creationTime; });
  int handed = 0;
  for (const Found& entry : files) {
    // The host may move the cache elsewhere meanwhile. The folder left is no longer the cache's:
    // its files would count against the new folder's limit, and making room there would delete
    // them from the folder the host may come back to.
    // (Compared in place: a copy of the path for each of 100,000 files would cost the scan.)
    const bool moved = [&] {
      std::lock_guard<std::mutex> l(diskMutex_);
      return !(diskCacheDir_ == dir);
    }();
    if (moved) break;
    try {
      jx::disk::AdoptCacheFile(*this, entry.file, entry.size);
      ++handed;
    } catch (...) {
      // One bad file never stops the scan.
      ZC_TRACE("JX", 5, "ScanDiskCacheDir: skipped " << entry.file.GetName());
    }
  }
  return handed;
}

namespace {

// What a folder-wide purge has deleted, and the paths of the files it left.
struct PurgeTally {
  int deleted = 0;
  std::set<std::string> kept;
  // What the handlers of the items that lost their copy are to hear once the folder walk's mutex
  // is let go (each holds its item): a handler may have a thread of its own use the folder, and
  // wait for it.
  std::vector<JX_Stuff::DiskCopyGone> gone;
};

// Deletes `item`'s file through the item, so that the disk size stays exact. A file pinned by a
// reader is kept. An item that lived only on disk has nothing left: it is let go.
void DeleteThroughItem(const JX_Bag::StuffPtr& item, PurgeTally& tally) {
  const File file = item->GetDiskCacheFile();
  if (file.IsEmpty()) return;
  if (item->GetNumDiskCacheCheckouts() != 0) {
    tally.kept.insert(file.GetPath());
    return;
  }
  JX_Stuff::DiskCopyGone gone;
  item->DeleteDiskCacheFile(&gone);
  if (gone.signal) {
    try {
      tally.gone.push_back(gone);
    } catch (const std::bad_alloc&) {
      gone.Tell();  // no memory to put it off: now, under the folder walk's mutex
    }
  }
  if (file.Exists()) {
    tally.kept.insert(file.GetPath());
  } else {
    ++tally.deleted;
  }
  if (!item->IsInMemory() && !item->IsPendingRender()) {
    jx::miss::ScDepartureCause cause(jx::miss::Reason::kFolderLimit);
    item->FreeUpAsMuchAsPossible(true, nullptr);
  }
}

// The bag's items by the path of their file.
std::map<std::string, JX_Bag::StuffPtr> ItemsByFile(const JX_Bag& bag) {
  std::map<std::string, JX_Bag::StuffPtr> owners;
  for (const JX_Bag::StuffPtr& item : bag.CopyMruItems()) {
    const File file = item->GetDiskCacheFile();
    if (!file.IsEmpty()) owners.emplace(file.GetPath(), item);
  }
  return owners;
}

// One name of the folder, after the pass through the items: a cache file of the running version
// that an item owns now (a write committed meanwhile) goes through its item; any other cache file
// is deleted as it is, unless something of this process claims it.
void PurgeFolderEntry(const Dir& dir, const std::string& name, uint32_t appVersion,
                      const std::map<std::string, JX_Bag::StuffPtr>& owners, PurgeTally& tally) {
  if (!jx::disk::IsCacheFileName(name)) {
    ZC_TRACE("JX", 6, "PurgeAllDiskCaches: ignoring:" << name);
    return;
  }
  const File file = dir.GetFile(name);
  if (tally.kept.count(file.GetPath())) return;
  uint32_t version = 0;
  if (jx::disk::ParseCacheFileVersion(name, &version) && version == appVersion) {
    ZC_TRACE("JX", 6, "PurgeAllDiskCaches: found match curr" << name);
    auto owner = owners.find(file.GetPath());
    if (owner != owners.end()) {
      DeleteThroughItem(owner->second, tally);
      return;
    }
  }
  // Deleted under a claim of its own. A write renames its file into the folder before it links
  // it to its item, and the items were looked at before this name: a file deleted by name here
  // could be one linked (and counted) since. A refused claim means an item holds the file, or is
  // about to link it: it stays, counted by that item.
  const std::shared_ptr<jx::disk::ClaimedFile> claim = jx::disk::ClaimedFile::TryClaim(file);
  if (!claim) {
    tally.kept.insert(file.GetPath());
    return;
  }
  try {
    file.Delete();
    ++tally.deleted;
  } catch (...) {
    if (file.Exists()) tally.kept.insert(file.GetPath());
  }
}

}  // namespace

JX_Bag::DiskPurgeResult JX_Bag::PurgeAllDiskCaches() {
  DiskPurgeResult result;
  const Dir dir = GetDiskCacheDirSpec();
  if (dir.IsEmpty()) return result;
  ZC_TRACE("JX", 5, "PurgeAllDiskCaches: staged to clear:" << dir.GetPath());
  // Declared before the mutex: its news is told, and an item let go may go with these copies,
  // once the mutex is let go.
  PurgeTally tally;
  std::deque<StuffPtr> items;
  std::map<std::string, StuffPtr> owners;
  std::unique_lock<std::mutex> scanLock(diskScanMutex_);
  try {
    // The running version's files go through their items so that the disk size stays exact.
    items = CopyMruItems();
    for (const StuffPtr& item : items) DeleteThroughItem(item, tally);
    // What is left: other versions' files, this version's files no item owns (another
    // process's), and files a write committed meanwhile.
    const std::vector<std::string> names = dir.ListNames();
    owners = ItemsByFile(*this);
    for (const std::string& name : names) PurgeFolderEntry(dir, name, appVersion_, owners, tally);
    jx::disk::DeleteLeftoverTempFiles(dir, jx::disk::kLeftoverTempAgeSeconds);
    ZC_TRACE("JX", 5, "PurgeAllDiskCaches: Finished\n");
  } catch (...) {
    ZC_TRACE("JX", 1, "PurgeAllDiskCaches THREW");
  }
  scanLock.unlock();
  for (const JX_Stuff::DiskCopyGone& gone : tally.gone) {
    try {
      gone.Tell();
    } catch (...) {
      // A handler's failure is the host's own; the folder is emptied all the same.
    }
  }
  result.deleted = tally.deleted;
  result.kept = static_cast<int>(tally.kept.size());
  return result;
}
