// The disk file layer is not built yet: no item gets a disk file, so nothing is written, read
// back or adopted from the folder.
#include "bag/bag.h"
#include "items/stuff.h"
#include "lifecycle/failures.h"

void JX_Stuff::PrepAndWrite(const std::shared_ptr<JX_Bag>&) {}
void JX_Stuff::PrepAndRead(const zelcore::threads::ScopedUpgradeLockWrapper&) {
  jx::FailVerification("PrepAndRead() called on stuff with no data");
}
void JX_Bag::ScanOneDiskCacheFile(const zelcore::filesupport::File&) {}
