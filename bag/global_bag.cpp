#include "jxcache/bag/global_bag.h"

#include "jxcache/bag/bag.h"

namespace {

// At process exit the pointer is emptied before the bag is destroyed, so that items dying with
// the bag never find (and re-enter) a bag in the middle of its destruction.
struct GlobalBagHolder {
  std::shared_ptr<JX_Bag> bag;
  ~GlobalBagHolder() { std::shared_ptr<JX_Bag>().swap(bag); }
} gGlobal;

}  // namespace

std::shared_ptr<JX_Bag> JX_GlobalBag() { return gGlobal.bag; }

namespace jx {
JX_Bag* GlobalBagUnretained() { return gGlobal.bag.get(); }
void SwapGlobalBag(std::shared_ptr<JX_Bag>& bag) { gGlobal.bag.swap(bag); }
}  // namespace jx
