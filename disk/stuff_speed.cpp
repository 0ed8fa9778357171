// JX_Stuff's names for the disk speed statistics and the adjusted read speed.
#include "disk/disk_speed.h"
#include "disk/write_policy.h"
#include "jxcache/items/stuff.h"

double JX_Stuff::GetAverageDiskReadSpeed() { return jx::disk::GetAverageDiskReadSpeed(); }
double JX_Stuff::GetAverageDiskWriteSpeed() { return jx::disk::GetAverageDiskWriteSpeed(); }
double JX_Stuff::GetMaxDiskReadSpeed() { return jx::disk::GetMaxDiskReadSpeed(); }
double JX_Stuff::GetMaxDiskWriteSpeed() { return jx::disk::GetMaxDiskWriteSpeed(); }

void JX_Stuff::GetAdjustedAverageReadSpeed(double* average, double* adjusted, bool lowPriority) {
  const jx::disk::ReadSpeedEstimate e = jx::disk::GetAdjustedAverageReadSpeed(lowPriority);
  if (average) *average = e.average;
  if (adjusted) *adjusted = e.adjusted;
}

double JX_Stuff::GetAdjustedAverageReadSpeed(bool lowPriority, bool adjustForQueue) {
  return jx::disk::GetAdjustedAverageReadSpeed(lowPriority, adjustForQueue);
}
