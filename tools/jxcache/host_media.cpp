#include "tools/jxcache/host_media.h"

#include "common/settings.h"
#include "jxcache/lifecycle/lifecycle.h"

namespace jx::tool {
namespace {
constexpr int kPieces = 4;
}  // namespace

HostMedia::HostMedia(uint64_t budget, SessionResult* result)
    : manager_(jx::standalone::MediaManagerPool()) {
  result->mediaMap = jx::settings::UseMediaMap()
                         ? Availability{true, ""}
                         : Availability{false, "the library did not turn the media map on"};
  manager_->SetBudget(budget);
  purgesBefore_ = manager_->GetPurgeCallCount();
  const uint64_t piece = budget / 8 / kPieces;
  for (int i = 0; i < kPieces && piece > 0; ++i) handles_.push_back(manager_->AddHostMedia(piece));
  result->hostMediaBytes = manager_->GetHostMediaBytes();
}

HostMedia::~HostMedia() {
  for (uint64_t h : handles_) manager_->RemoveHostMedia(h);
  manager_->SetBudget(RV::MediaManager::kUnlimited);
}

void HostMedia::Finish(SessionResult* result) const {
  result->hostMediaLeft = manager_->GetHostMediaBytes();
  result->mediaMapBytes = JX_GetMediaMapSize();
  result->mediaManagerPurges = manager_->GetPurgeCallCount() - purgesBefore_;
}

}  // namespace jx::tool
