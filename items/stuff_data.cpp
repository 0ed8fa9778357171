#include "jxcache/items/stuff_data.h"

#include <map>
#include <mutex>
#include <string>
#include <string_view>

#include "jxcache/host/recursive_mutex.h"

namespace {

// Keyed by the match name's bytes, as file names carry it. Looked up by `find`, so that the
// names a folder scan meets and no class registered leave nothing behind.
using Registry = std::map<std::string, JX_StuffData::Factory, std::less<>>;

zelcore::threads::RecursiveMutex& RegistryMutex() {
  static zelcore::threads::RecursiveMutex m;
  return m;
}
// Created by the first registration, destroyed by Death.
std::unique_ptr<Registry>& RegistryPtr() {
  static std::unique_ptr<Registry> r;
  return r;
}

}  // namespace

bool JX_StuffData::IdenticalRequest(IntrusivePtr<JX_StuffData>) const { return true; }
bool JX_StuffData::CanSatisfyRequest(IntrusivePtr<JX_StuffData>) const { return true; }
bool JX_StuffData::ShouldAllowPurge() const { return true; }
bool JX_StuffData::CanDiskCache() const { return false; }
const char* JX_StuffData::GetSubclassMatchname() const { return nullptr; }
void JX_StuffData::GetHeader(Header&) const {}
double JX_StuffData::Write(zelcore::filesupport::OByteStream&) const { return 0.0; }
double JX_StuffData::Read(zelcore::filesupport::IByteStream&,
                          zelcore::threads::MultiTenantRecursiveMutex&) {
  return 0.0;
}
void JX_StuffData::SetCompressedAllowedOption(JX_CompressedAllowedOption) {}
JX_CompressedAllowedOption JX_StuffData::GetCompressedAllowedOption() const {
  return kJX_CompressionNotAllowed;
}
void JX_StuffData::SetIsCompressed(bool) {}
bool JX_StuffData::IsCompressed() const { return false; }
JX_StuffData::IntrusivePtr<JX_StuffData> JX_StuffData::CreateCloneForCompression() const {
  return {};
}

void JX_StuffData::RegisterFactory(const char* matchname, Factory& factory) {
  std::lock_guard<zelcore::threads::RecursiveMutex> lock(RegistryMutex());
  auto& registry = RegistryPtr();
  if (!registry) registry = std::make_unique<Registry>();
  (*registry)[matchname ? matchname : ""] = factory;
}

JX_StuffData::IntrusivePtr<JX_StuffData> JX_StuffData::CreateSubclass(const char* matchname,
                                                                      Header& header) {
  Factory factory;
  {
    std::lock_guard<zelcore::threads::RecursiveMutex> lock(RegistryMutex());
    auto& registry = RegistryPtr();
    if (registry && matchname) {
      const auto it = registry->find(std::string_view(matchname));
      if (it != registry->end()) factory = it->second;
    }
  }
  if (!factory) return {};
  return factory(header);
}

void JX_StuffData::Death() {
  std::lock_guard<zelcore::threads::RecursiveMutex> lock(RegistryMutex());
  RegistryPtr().reset();
}
