// SoleItemTable: probing, resizing, and removal by backward shift.
#include "bag/sole_item_table.h"

#include <utility>

namespace jx {

SoleItemTable::SoleItemTable() : SoleItemTable(kInitialCapacity) {}

SoleItemTable::SoleItemTable(size_t capacity)
    : slots_(new Slot[capacity]()),
      mask_(capacity - 1),
      shift_(64 - static_cast<unsigned>(__builtin_ctzll(capacity))) {}

std::unique_ptr<SoleItemTable> SoleItemTable::GrownForOneMore() const {
  if ((used_ + 1) * 4 <= (mask_ + 1) * 3) return nullptr;
  return std::unique_ptr<SoleItemTable>(new SoleItemTable((mask_ + 1) * 2));
}

std::unique_ptr<SoleItemTable> SoleItemTable::ShrunkIfSparse() const {
  const size_t capacity = mask_ + 1;
  if (capacity <= kInitialCapacity || used_ * 8 >= capacity) return nullptr;
  // Half full at most afterwards: a few more adds do not grow it straight back.
  size_t smaller = kInitialCapacity;
  while (smaller < used_ * 2) smaller *= 2;
  return std::unique_ptr<SoleItemTable>(new SoleItemTable(smaller));
}

void SoleItemTable::Adopt(SoleItemTable& resized) {
  for (size_t i = 0; i <= mask_; ++i) {
    const Slot& slot = slots_[i];
    // Hashes are unique in a table: the slot found is the first free one of the probe run.
    if (slot.item != kNone) resized.slots_[resized.SlotOf(slot.hash)] = slot;
  }
  resized.used_ = used_;
  std::swap(*this, resized);
}

size_t SoleItemTable::SlotOf(size_t hash) const {
  size_t i = Home(hash);
  while (slots_[i].item != kNone && slots_[i].hash != hash) i = (i + 1) & mask_;
  return i;
}

void SoleItemTable::Add(size_t hash, const void* item) {
  Slot& slot = slots_[SlotOf(hash)];
  if (slot.item != kNone) {
    slot.item = kSeveral;
    return;
  }
  slot = Slot{hash, reinterpret_cast<uintptr_t>(item)};
  ++used_;
}

void SoleItemTable::Remove(size_t hash, size_t left, const void* item) {
  size_t i = SlotOf(hash);
  if (slots_[i].item == kNone) return;
  if (left != 0) {
    slots_[i].item = left == 1 ? reinterpret_cast<uintptr_t>(item) : kSeveral;
    return;
  }
  // Backward shift: every later slot of the probe run that may move into the hole does, so
  // that a search never stops early at an empty slot and no tombstones pile up.
  for (size_t j = i;;) {
    j = (j + 1) & mask_;
    if (slots_[j].item == kNone) break;
    const size_t home = Home(slots_[j].hash);
    // The entry at j may fill the hole at i when its home is not cyclically within (i, j].
    const bool stays = i <= j ? (i < home && home <= j) : (i < home || home <= j);
    if (stays) continue;
    slots_[i] = slots_[j];
    i = j;
  }
  slots_[i] = Slot{0, kNone};
  --used_;
}

}  // namespace jx
