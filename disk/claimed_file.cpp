#include "disk/claimed_file.h"

#include <mutex>
#include <string_view>
#include <unordered_set>

namespace jx::disk {
namespace {

// The paths of the registered claims, as views of each claim's own copy: a claim takes its
// view out in its destructor, before the copy goes. A folder scan claims every file it adopts,
// and a copy of each path here would be two more allocations a file.
struct Registry {
  std::mutex mutex;
  std::unordered_set<std::string_view> paths;
};

Registry& Claims() {
  // Never destroyed: items released by static destructors at exit still drop their claims.
  static auto* registry = new Registry();
  return *registry;
}

}  // namespace

std::shared_ptr<ClaimedFile> ClaimedFile::TryClaim(const zelcore::filesupport::File& file) {
  // Allocated before the path is registered, so that a refused allocation leaves no claim.
  auto claim = std::make_shared<ClaimedFile>(Key{}, file);
  Registry& r = Claims();
  std::lock_guard<std::mutex> lock(r.mutex);
  if (!r.paths.insert(claim->file_.GetPath()).second) return nullptr;
  claim->registered_ = true;
  return claim;
}

bool ClaimedFile::IsClaimed(const zelcore::filesupport::File& file) {
  Registry& r = Claims();
  std::lock_guard<std::mutex> lock(r.mutex);
  return r.paths.count(file.GetPath()) != 0;
}

ClaimedFile::~ClaimedFile() {
  // A refused claim must not release the path of the claim that holds it.
  if (!registered_) return;
  Registry& r = Claims();
  std::lock_guard<std::mutex> lock(r.mutex);
  r.paths.erase(file_.GetPath());
}

}  // namespace jx::disk
