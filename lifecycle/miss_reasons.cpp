#include "jxcache/lifecycle/miss_reasons.h"

#include "bag/miss_reasons.h"

static_assert(kJX_MissReasonCount == jx::miss::kReasonCount);
static_assert(kJX_MissPendingDeadline == static_cast<int>(jx::miss::Reason::kPendingDeadline));
static_assert(kJX_MissNotWorthWriting == static_cast<int>(jx::miss::Reason::kNotWorthWriting));

const char* JX_MissReasonName(int reason) {
  return jx::miss::ReasonName(static_cast<jx::miss::Reason>(reason));
}

std::vector<JX_MissReasons> JX_GetMissReasons() {
  std::vector<JX_MissReasons> out;
  for (const jx::miss::ClassRow& row : jx::miss::Snapshot()) {
    JX_MissReasons r;
    r.payloadClass = row.payloadClass;
    for (int i = 0; i < kJX_MissReasonCount; ++i) {
      r.byReason[i] = static_cast<int64_t>(row.byReason[i]);
      r.total += r.byReason[i];
    }
    out.push_back(std::move(r));
  }
  return out;
}

JX_MissReasons JX_GetMissReasonsTotal() {
  JX_MissReasons all;
  all.payloadClass = "all";
  for (const JX_MissReasons& row : JX_GetMissReasons()) {
    for (int i = 0; i < kJX_MissReasonCount; ++i) all.byReason[i] += row.byReason[i];
    all.total += row.total;
  }
  return all;
}
