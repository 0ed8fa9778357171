#include "common/messages.h"

#include "host/y_api.h"

namespace jx {
namespace {

// Index = message number. Only 11, 12, 22 and 23 are raised by the library itself; the others
// belong to the same resource and are kept so that translations stay aligned.
constexpr const char* kMessageKeys[kMessageCount] = {
    "$$$/KQ/JX/LStr/0000=",
    "$$$/KQ/JX/LStr/0001=bag to store cached items",
    "$$$/KQ/JX/LStr/0002=internal structure damaged",
    "$$$/KQ/JX/LStr/0003= %s (bag)",
    "$$$/KQ/JX/LStr/0004= %s (cache sort directory)",
    "$$$/KQ/JX/LStr/0005= %s (global data)",
    "$$$/KQ/JX/LStr/0006=disposing non-empty cache",
    "$$$/KQ/JX/LStr/0007=cannot dispose the global cache",
    "$$$/KQ/JX/LStr/0008=cannot resize or move disk cache",
    "$$$/KQ/JX/LStr/0009=cache sort directory",
    "$$$/KQ/JX/LStr/0010=cannot dispose checked-out cached item",
    "$$$/KQ/JX/LStr/0011=cached item already checked-out read/write",
    "$$$/KQ/JX/LStr/0012=cannot check-out read/write already checked-out item",
    "$$$/KQ/JX/LStr/0013= %s (cache check-out receipt)",
    "$$$/KQ/JX/LStr/0014=cache check-out receipt",
    "$$$/KQ/JX/LStr/0015=unable to search importance sort directory",
    "$$$/KQ/JX/LStr/0016=unable to add cached item to disposed sort directory",
    "$$$/KQ/JX/LStr/0017=cache item not found",
    "$$$/KQ/JX/LStr/0018=unable to dispose importance sort directory",
    "$$$/KQ/JX/LStr/0019=cannot reference an ID which is not checked out",
    "$$$/KQ/JX/LStr/0020=stale stuff ID",
    "$$$/KQ/JX/LStr/0021=unsafe operation attempted",
    "$$$/KQ/JX/LStr/0022=can#{rsquo}t convert to writeable when not checked out",
    "$$$/KQ/JX/LStr/0023=This Computer",
    "$$$/KQ/JX/LStr/0024=Disk Cache folder doesn#{rsquo}t exist, so it will be reset to the "
    "system temporary directory. Please check your settings in Memory & Cache Preferences.",
    "$$$/KQ/JX/LStr/0025=Disk Cache folder isn#{rsquo}t a folder, so it will be reset to the "
    "system temporary directory. Please check your settings in Memory & Cache Preferences.",
    "$$$/KQ/JX/LStr/0026=Unable to write to Disk Cache folder, so disk caching will be "
    "disabled. Please check your settings in Memory & Cache Preferences.",
};

}  // namespace

const char* MessageKey(int number) {
  if (number < 0 || number >= kMessageCount) return nullptr;
  return kMessageKeys[number];
}

std::u16string LookupMessage(int number) {
  const char* key = MessageKey(number);
  return key ? Y_ZLookupLStrCache(key) : std::u16string();
}

}  // namespace jx
