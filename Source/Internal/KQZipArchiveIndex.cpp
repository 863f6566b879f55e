#include "KQZipArchiveIndex.h"

#include <algorithm>
#include <cstring>
#include <numeric>

#include "KQZipEntryNames.h"

// With its name and its place in the table an entry has to fit into 120 bytes.
static_assert(sizeof(KQZipIndexRecord) == 48);

bool KQZipArchiveIndex::add(const KQZipIndexEntry& entry) {
  if (size_ == none) return false;
  if (size_ % recordsInBlock == 0) blocks_.push_back(std::make_unique<KQZipIndexRecord[]>(recordsInBlock));
  KQZipIndexRecord& record = (*this)[size_++];
  record = entry.record;
  leftOut_ += record.isNoEntry;
  const bool hasUnicode = record.nameForm == KQZipIndexRecord::Unicode;
  const bool hasDate = record.dateForm == KQZipIndexRecord::Kept;
  std::uint64_t length = entry.storedName.size();
  if (hasUnicode) length += sizeof(std::uint16_t) + entry.unicodeName.size();
  if (hasDate) length += sizeof(entry.keptDate);

  std::uint64_t at = 0;
  char* next = _roomForName(length, &at);
  record.nameAt = at & ((std::uint64_t{1} << 48) - 1);
  record.nameLength = static_cast<std::uint16_t>(entry.storedName.size());
  next += entry.storedName.copy(next, entry.storedName.size());
  if (hasUnicode) {
    const auto size = static_cast<std::uint16_t>(entry.unicodeName.size());
    std::memcpy(next, &size, sizeof(size));
    next += sizeof(size);
    next += entry.unicodeName.copy(next, size);
  }
  if (hasDate) std::memcpy(next, &entry.keptDate, sizeof(entry.keptDate));
  return true;
}

std::string_view KQZipArchiveIndex::storedName(const KQZipIndexRecord& record) const {
  return {_nameAt(record.nameAt), record.nameLength};
}

std::string_view KQZipArchiveIndex::name(const KQZipIndexRecord& record, std::string& room) const {
  const std::string_view stored = storedName(record);
  if (record.nameForm == KQZipIndexRecord::UTF8) return stored;
  if (record.nameForm == KQZipIndexRecord::Unicode) {
    std::uint16_t size = 0;
    std::memcpy(&size, stored.data() + stored.size(), sizeof(size));
    return {stored.data() + stored.size() + sizeof(size), size};
  }
  room.clear();
  KQZipAppendFromCodePage437(stored, &room);
  return room;
}

std::int64_t KQZipArchiveIndex::keptDate(const KQZipIndexRecord& record) const {
  std::string room;
  const std::string_view stored = storedName(record);
  const std::string_view last = record.nameForm == KQZipIndexRecord::Unicode ? name(record, room) : stored;
  std::int64_t date = 0;
  std::memcpy(&date, last.data() + last.size(), sizeof(date));
  return date;
}

void KQZipArchiveIndex::settle(std::uint64_t end) {
  if (!_namesAscend()) std::call_once(tableMade_, [this] { _markShadowed(); });
  markOverlaps(end);
}

std::optional<std::uint32_t> KQZipArchiveIndex::find(std::string_view name) const {
  // Names that ascend are all different.
  std::call_once(tableMade_, [this] { _makeTable(nullptr); });
  if (table_.empty()) return std::nullopt;
  std::string room;
  const std::uint32_t found = *_slotOf(KQZipCanonicalName(name, room));
  return found == none ? std::nullopt : std::optional(found);
}

std::uint32_t KQZipArchiveIndex::lastWithNameOf(std::uint32_t index) const {
  const KQZipIndexRecord& record = (*this)[index];
  if (record.isShadowed == 0) return index;
  std::string room;
  return find(name(record, room)).value_or(index);
}

std::uint32_t KQZipArchiveIndex::placeOf(std::uint32_t index) const {
  if (order_.empty()) return index;
  const auto precedes = [this](std::uint32_t left, std::uint32_t right) {
    const std::uint64_t leftAt = (*this)[left].localHeaderAt;
    const std::uint64_t rightAt = (*this)[right].localHeaderAt;
    return leftAt != rightAt ? leftAt < rightAt : left < right;
  };
  return static_cast<std::uint32_t>(std::lower_bound(order_.begin(), order_.end(), index, precedes) -
                                    order_.begin());
}

char* KQZipArchiveIndex::_roomForName(std::uint64_t length, std::uint64_t* at) {
  // An empty name has a place in a block, too.
  if (length >= roomEnd_ - namesEnd_) {
    namesEnd_ = nameBlocks_.size() * nameBytesInBlock;
    roomEnd_ = namesEnd_ + nameBytesInBlock;
    nameBlocks_.push_back(std::make_unique_for_overwrite<char[]>(nameBytesInBlock));
  }
  *at = namesEnd_;
  namesEnd_ += length;
  return nameBlocks_.back().get() + *at % nameBytesInBlock;
}

const char* KQZipArchiveIndex::_nameAt(std::uint64_t at) const {
  return nameBlocks_[at / nameBytesInBlock].get() + at % nameBytesInBlock;
}

// As the library and many others write them. Then no two are equal, unless parts are left out.
bool KQZipArchiveIndex::_namesAscend() const {
  std::string_view last;
  std::string room;
  for (std::uint32_t index = 0; index < size_; ++index) {
    const KQZipIndexRecord& record = (*this)[index];
    if (record.nameForm != KQZipIndexRecord::UTF8) return false;
    const std::string_view name = storedName(record);
    if ((index != 0 && name <= last) || KQZipCanonicalName(name, room).data() != name.data()) return false;
    last = name;
  }
  return true;
}

void KQZipArchiveIndex::_markShadowed() {
  std::vector<std::uint32_t> shadowed;
  _makeTable(&shadowed);
  for (const std::uint32_t index : shadowed) (*this)[index].isShadowed = 1;
  leftOut_ += static_cast<std::uint32_t>(shadowed.size());
}

// Makes the table, and a list of the entries to whose names others come later.
void KQZipArchiveIndex::_makeTable(std::vector<std::uint32_t>* shadowed) const {
  if (size_ == 0) return;
  table_.assign(std::size_t{size_} * 2, none);
  std::string room;
  std::string canonicalRoom;
  for (std::uint32_t index = 0; index < size_; ++index) {
    if ((*this)[index].isNoEntry != 0) continue;
    std::uint32_t* const slot = _slotOf(KQZipCanonicalName(name((*this)[index], room), canonicalRoom));
    if (shadowed != nullptr && *slot != none) shadowed->push_back(*slot);
    *slot = index;
  }
}

// Where the name stands in the table, or would.
std::uint32_t* KQZipArchiveIndex::_slotOf(std::string_view canonicalName) const {
  std::string room;
  std::string canonicalRoom;
  std::size_t slot = std::size_t{KQZipHashOfName(canonicalName)} * table_.size() >> 32;
  for (;;) {
    const std::uint32_t index = table_[slot];
    if (index == none || KQZipCanonicalName(name((*this)[index], room), canonicalRoom) == canonicalName)
      return &table_[slot];
    if (++slot == table_.size()) slot = 0;
  }
}

// Makes a list of the order unless it is that of the entries themselves.
void KQZipArchiveIndex::_putInOrder() {
  order_.clear();
  bool ascend = true;
  for (std::uint32_t index = 1; index < size_ && ascend; ++index)
    ascend = (*this)[index - 1].localHeaderAt <= (*this)[index].localHeaderAt;
  if (ascend) return;
  order_.resize(size_);
  std::iota(order_.begin(), order_.end(), 0U);
  std::stable_sort(order_.begin(), order_.end(), [this](std::uint32_t left, std::uint32_t right) {
    return (*this)[left].localHeaderAt < (*this)[right].localHeaderAt;
  });
}

void KQZipArchiveIndex::markOverlaps(std::uint64_t end) {
  _putInOrder();
  // The one of those before whose data reach furthest.
  std::uint32_t furthest = none;
  std::uint64_t furthestEnd = 0;
  for (std::uint32_t place = 0; place < size_; ++place) {
    const std::uint32_t index = inOrder(place);
    KQZipIndexRecord& record = (*this)[index];
    record.isOverlapping = 0;
    if (record.isOnOtherPart != 0 || record.isNoEntry != 0) continue;
    const std::uint64_t header = KQZipLocalHeaderFields::size + std::uint64_t{record.nameLength};
    if (record.localHeaderAt > end || header > end - record.localHeaderAt ||
        record.length > end - record.localHeaderAt - header) {
      record.isOutside = 1;
      continue;
    }
    if (record.localHeaderAt < furthestEnd) record.isOverlapping = (*this)[furthest].isOverlapping = 1;
    const std::uint64_t recordEnd = record.localHeaderAt + header + record.length;
    if (recordEnd > furthestEnd) {
      furthest = index;
      furthestEnd = recordEnd;
    }
  }
}
