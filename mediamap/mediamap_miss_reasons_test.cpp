// A frame the host's media manager takes back misses as "media manager", not as a memory purge.
#include <gtest/gtest.h>

#include "jxcache/items/sc_checkout.h"
#include "jxcache/lifecycle/miss_reasons.h"
#include "jxcache/lifecycle/statistics.h"
#include "mediamap/mediamap_test_support.h"
#include "standalone/standalone_host.h"

namespace cf = jx::checkout_flags;
using jx::testing::MakeItem;
using jx::testing::MakeRequest;

namespace {

class MediaMapMissTest : public jx::testing::MediaMapTest {};

TEST_F(MediaMapMissTest, AnItemTheMediaManagerTookBackMissesForThatReason) {
  JX_ResetStatistics();
  auto manager = jx::standalone::MediaManagerPool();
  auto item = MakeItem(100);
  bag_->AddToBagAndSortDir(item);
  manager->SetBudget(0);
  ASSERT_FALSE(item->IsInMemory());
  JX_ScCheckout handle;
  EXPECT_EQ(handle.FindAndCheckout(MakeRequest(item->GetGuid()), cf::kReadOnly),
            kJX_CheckoutRefused);
  const JX_MissReasons all = JX_GetMissReasonsTotal();
  EXPECT_EQ(all.byReason[kJX_MissMediaManager], 1);
  EXPECT_EQ(all.total, 1);
}

}  // namespace
