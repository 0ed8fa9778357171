// JX_ScanOneDiskCacheFile and JX_Bag::ScanOneDiskCacheFile: adopting one cache file.
#include "disk/scan_one_file.h"

#include <algorithm>
#include <cstdint>

#include "bag/miss_reasons.h"
#include "bag/sort_dir.h"
#include "common/failures.h"
#include "disk/cache_file_name.h"
#include "disk/claimed_file.h"
#include "disk/disk_counters.h"
#include "host/trace.h"
#include "host/y_api.h"
#include "jxcache/bag/bag.h"
#include "jxcache/bag/global_bag.h"
#include "jxcache/items/sc_checkout.h"

using zelcore::filesupport::File;
using zelcore::utility::IntrusivePtr;

namespace {

namespace cf = jx::checkout_flags;
// Finds a same-key item as it stands: never reads its payload back, never waits for it.
constexpr int kAdoptLookupFlags = cf::kReadOnly | cf::kNoDiskRead;

// An empty payload of the file's class, or throws (a version mismatch as its own code).
IntrusivePtr<JX_StuffData> PayloadForFile(const File& file, uint32_t runningVersion,
                                          zelcore::utility::Guid* guid,
                                          JX_StuffData::Header* headerOut) {
  jx::disk::CacheFileName name;
  const auto error = jx::disk::ParseCacheFileName(file.GetName(), &name);
  // An unreadable version cannot be ours either.
  if (error == jx::disk::CacheFileNameError::kNone && name.version != runningVersion) {
    // Its key is in the folder, but not for this version: a miss of it is not "never seen".
    jx::miss::NoteDeparture(JX_SortDir::HashGuid(name.guid), jx::miss::Reason::kOtherVersion);
    throw jx::kErrVersionMismatch;
  }
  if (error == jx::disk::CacheFileNameError::kBadVersion) throw jx::kErrVersionMismatch;
  if (error != jx::disk::CacheFileNameError::kNone) {
    ZC_TRACE(
        "JX", 5,
        "Not adopting " << file.GetName() << ": " << jx::disk::DescribeCacheFileNameError(error));
    return {};
  }
  JX_StuffData::Header header(name.header.begin(), name.header.end());
  auto payload = JX_StuffData::CreateSubclass(name.matchName.c_str(), header);
  if (!payload) jx::ThrowNullPtr("JX_StuffData");
  *guid = name.guid;
  *headerOut = std::move(header);
  return payload;
}

// Whether `item`'s payload is written under `header`.
bool HoldsHeader(const JX_Stuff& item, const JX_StuffData::Header& header) {
  const IntrusivePtr<JX_StuffData> data = item.GetDataPtr();
  if (!data) return false;
  JX_StuffData::Header own;
  data->GetHeader(own);
  return own == header;
}

// The item of `guid` in the form (compressed or not) given, if the directory has one.
JX_Bag::StuffPtr ItemOfForm(const JX_Bag& bag, const zelcore::utility::Guid& guid,
                            bool compressed) {
  JX_Bag::StuffPtr match;
  bag.GetSortDir()->ForEachWithGuid(guid, [&](const JX_Bag::StuffPtr& item) {
    if (item->IsCompressed() != compressed) return true;
    match = item;
    return false;
  });
  return match;
}

unsigned int AccountableSize(uint64_t size) {
  return static_cast<unsigned int>(std::min<uint64_t>(size, UINT32_MAX));
}

}  // namespace

void JX_ScanOneDiskCacheFile(const File& file) {
  if (auto bag = JX_GlobalBag()) bag->ScanOneDiskCacheFile(file);
}

void JX_Bag::ScanOneDiskCacheFile(const File& file) {
  {
    Y::ScQuietErrors quiet;
    // Only a regular file can be a cache file: reading a FIFO named like one would block. The
    // size is asked only of a file this call gets to adopt (a writer checks its target here
    // first, and the target is usually not there).
    if (!file.IsRegularFile()) return;
  }
  jx::disk::AdoptCacheFile(*this, file, std::nullopt);
}

namespace jx::disk {

void AdoptCacheFile(JX_Bag& bag, const File& file, std::optional<uint64_t> fileSize) {
  try {
    Y::ScQuietErrors quiet;
    zelcore::utility::Guid guid;
    JX_StuffData::Header header;
    auto payload = PayloadForFile(file, bag.GetAppVersion(), &guid, &header);
    if (!payload) return;
    // A file some item already links to is part of the cache: that item may be out of the
    // directory just now (checked out writeable, re-keyed), which the lookup below would take
    // for a file nobody has.
    std::shared_ptr<jx::disk::ClaimedFile> claim = jx::disk::ClaimedFile::TryClaim(file);
    if (!claim) return;
    const uint64_t bytes = fileSize ? *fileSize : file.Size();
    if (bytes > UINT32_MAX) {
      // An item's file is counted in 32 bits: one larger (damaged, or not ours) would be counted
      // short, and the folder would hold more than its limit with nothing to show for it. It goes,
      // under the claim, so that no other item takes it meanwhile.
      ZC_TRACE("JX", 5, "Not adopting " << file.GetName() << ": " << bytes << " bytes");
      try {
        file.Delete();
      } catch (...) {
      }
      return;
    }
    const unsigned int size = AccountableSize(bytes);

    auto candidate = JX_Stuff::CreateNew(payload, 0.0);
    candidate->SetGuid(guid);
    // Lookup and insertion under one hold of the library lock, so that two threads adopting
    // the same file cannot both add an item for it. Neither step waits.
    JXp_ScLock lock;
    JX_ScCheckout existing;
    {
      jx::miss::ScLookupMode adopting(jx::miss::kNotALookup);
      existing.FindAndCheckout(candidate, kAdoptLookupFlags);
    }
    // A compressed copy and its original are two items of one key, each with a file of its own,
    // as the writer makes them. The lookup answers with either form, and the other form's header
    // always differs: the file goes to the item of its own form, or becomes one.
    const bool compressed = payload->IsCompressed();
    if (auto other = existing.GetStuffPtr(); other && other->IsCompressed() != compressed) {
      existing.SetCheckinFlags(jx::checkin_flags::kKeepRecency);
      if (auto same = ItemOfForm(bag, guid, compressed)) {
        existing.Checkout(same, kAdoptLookupFlags);
      } else {
        existing.Checkin();
      }
    }
    if (auto found = existing.GetStuffPtr()) {
      existing.SetCheckinFlags(jx::checkin_flags::kKeepRecency);  // adopting is not a use
      // The file would be read back into the found item's own payload, so it must be a copy of
      // that payload. One of the key written under another header holds something else (the old
      // payload of a rewritten item whose deletion failed, another process's other render of the
      // key): read back, it would be served for what the item holds. No item can use it; it
      // goes, under the claim, rather than stay in the folder with nothing counting it.
      if (!HoldsHeader(*found, header)) {
        ZC_TRACE("JX", 5, "Not adopting " << file.GetName() << ": another payload of its key");
        try {
          file.Delete();
        } catch (...) {
        }
        return;
      }
      // A copy in the folder in use replaces a link into a folder the host has left: it is the
      // one the folder's limit and purge must see, and the file left behind stays with that
      // folder, for a return to it. (Between the look and the link nothing else can link the
      // item to a file of this name in the folder in use: this claim holds it.)
      const zelcore::filesupport::Dir current = bag.GetDiskCacheDirSpec();
      const bool moveHere =
          file.GetParent() == current && !(found->GetDiskCacheFile().GetParent() == current);
      // Counted with the link: a deletion of the item's file (a folder purge, which does not
      // wait for the library lock) may come right after it.
      if (found->TakeDiskCacheFile(claim, !moveHere, size)) {
        jx::disk::GetCounters().filesAdopted.fetch_add(1, std::memory_order_relaxed);
      }
    } else {
      candidate->TakeDiskCacheFile(claim, false);
      candidate->AddToBagAndSortDir(bag.shared_from_this());
      candidate->SyncDiskSizeWithBag(size);
      jx::disk::GetCounters().filesAdopted.fetch_add(1, std::memory_order_relaxed);
    }
  } catch (int code) {
    ZC_TRACE("JX", 5, "Not adopting " << file.GetName() << ": code " << code);
  } catch (const std::exception& e) {
    ZC_TRACE("JX", 5, "Not adopting " << file.GetName() << ": " << e.what());
  } catch (...) {
    // A payload factory may throw anything; the folder scan must go on with the next file.
    ZC_TRACE("JX", 5, "Not adopting " << file.GetName() << ": unknown exception");
  }
}

}  // namespace jx::disk
