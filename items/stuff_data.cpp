#include "jxcache/items/stuff_data.h"

#include <map>
#include <mutex>
#include <string>

#include "host/y_api.h"
#include "jxcache/host/recursive_mutex.h"

namespace {

using Registry = std::map<std::u16string, JX_StuffData::Factory>;

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
  (*registry)[Y_AsciiToUTF16String(matchname)] = factory;
}

JX_StuffData::IntrusivePtr<JX_StuffData> JX_StuffData::CreateSubclass(const char* matchname,
                                                                      Header& header) {
  Factory factory;
  {
    std::lock_guard<zelcore::threads::RecursiveMutex> lock(RegistryMutex());
    auto& registry = RegistryPtr();
    // operator[] leaves an empty entry for a name never registered; a later registration fills
    // it, so nothing is lost by keeping it.
    if (registry && matchname) factory = (*registry)[Y_AsciiToUTF16String(matchname)];
  }
  if (!factory) return {};
  return factory(header);
}

void JX_StuffData::Death() {
  std::lock_guard<zelcore::threads::RecursiveMutex> lock(RegistryMutex());
  RegistryPtr().reset();
}
