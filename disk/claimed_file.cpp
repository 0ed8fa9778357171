#include "disk/claimed_file.h"

#include <mutex>
#include <string>
#include <unordered_set>

namespace jx::disk {
namespace {

struct Registry {
  std::mutex mutex;
  std::unordered_set<std::string> paths;
};

Registry& Claims() {
  // Never destroyed: items released by static destructors at exit still drop their claims.
  static auto* registry = new Registry();
  return *registry;
}

}  // namespace

std::shared_ptr<ClaimedFile> ClaimedFile::TryClaim(const zelcore::filesupport::File& file) {
  // Allocated before the path is registered, so that a refused allocation leaves no claim.
  std::shared_ptr<ClaimedFile> claim(new ClaimedFile(file));
  Registry& r = Claims();
  std::lock_guard<std::mutex> lock(r.mutex);
  if (!r.paths.insert(file.GetPath()).second) return nullptr;
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
