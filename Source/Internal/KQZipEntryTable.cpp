#include "KQZipEntryTable.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <functional>

// Names are kept in blocks that grow with their number up to this size, so that few bytes are left over at
// the end. A name of any length fits into one.
static constexpr std::size_t smallestBlock = 512;
static constexpr std::size_t largestBlock = 65536;

void KQZipEntryTable::add(std::string_view name, KQZipTableEntry entry) {
  entry.nameBytes = _keep(name);
  entry.nameLength = static_cast<std::uint16_t>(name.size());
  entries_.push_back(entry);
}

void KQZipEntryTable::finish() {
  // At most three quarters of the slots are taken, so that a free one is never far.
  slots_.assign(std::bit_ceil(entries_.size() + entries_.size() / 3 + 1), nullptr);
  for (KQZipTableEntry& entry : entries_) {
    KQZipTableEntry*& slot = slots_[_slotOf(entry.name())];
    if (slot != nullptr) slot->isReplaced = true;
    slot = &entry;
  }
}

const KQZipTableEntry* KQZipEntryTable::find(std::string_view name) const {
  return slots_.empty() ? nullptr : slots_[_slotOf(name)];
}

// The slot that holds the name, or the free one where it belongs.
std::size_t KQZipEntryTable::_slotOf(std::string_view name) const {
  const std::size_t mask = slots_.size() - 1;
  std::size_t place = std::hash<std::string_view>()(name) & mask;
  while (slots_[place] != nullptr && slots_[place]->name() != name) place = (place + 1) & mask;
  return place;
}

const char* KQZipEntryTable::_keep(std::string_view name) {
  if (name.size() > roomLength_) {
    const std::size_t grown = smallestBlock << std::min<std::size_t>(names_.size(), 7);
    roomLength_ = std::max(std::min(grown, largestBlock), name.size());
    names_.emplace_back(new char[roomLength_]);
    room_ = names_.back().get();
  }
  char* const kept = room_;
  if (!name.empty()) std::memcpy(kept, name.data(), name.size());
  room_ += name.size();
  roomLength_ -= name.size();
  return kept;
}
