#include "KQZipPackedCheck.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "../Platform/NSString.h"
#include "KQZipError.h"

namespace {

using Entry = KQZipPackingEntry;

constexpr std::size_t entriesOfJob = 1024;

// Headers that are no further apart are read together, with what is between them.
constexpr std::uint64_t smallGap = 4096;
constexpr std::uint64_t mostAtOnce = 262144;

bool isPacked(const Entry& entry) { return entry.state == Entry::State::Packed; }

}  // namespace

KQZipPackedCheck::KQZipPackedCheck(const KQZipPackingJob& job, const KQZipNewArchive& archive,
                                   const KQZipPacker& packer, unsigned threads,
                                   const KQ::NSProgress& progress)
    : job_(job),
      archive_(archive),
      packer_(packer),
      progress_(progress),
      workers_(threads),
      slots_(workers_.slots()) {}

KQZipPackedCheck::~KQZipPackedCheck() = default;

bool KQZipPackedCheck::run(KQ::NSErrorSlot error) {
  if (workers_.run(*this) && _compareDirectory()) return true;
  if (!failure_) failure_ = KQZipMakeError(KQZipErrorCancelled, "Cancelled by user.");
  KQ::NSStoreError(error, failure_);
  return false;
}

bool KQZipPackedCheck::prepare(std::size_t slot) {
  Slot& prepared = slots_[slot];
  prepared.first = next_;
  next_ = prepared.last = std::min(next_ + entriesOfJob, job_.list.entries.size());
  return prepared.first != prepared.last;
}

void KQZipPackedCheck::perform(std::size_t slot) {
  Slot& performed = slots_[slot];
  performed.code = 0;
  performed.differs = false;
  for (std::size_t next = performed.first; next < performed.last && !workers_.isEnding();) {
    _compareLocalHeaders(&performed, &next);
    if (performed.code != 0 || performed.differs) return;
  }
}

bool KQZipPackedCheck::finish(std::size_t slot) {
  const Slot& finished = slots_[slot];
  if (finished.differs) return _failDifferent();
  if (finished.code == 0) return true;
  failure_ = archive_.errorFor(finished.code);
  return false;
}

bool KQZipPackedCheck::goOn() { return !progress_.isCancelled(); }

// Compares the next header, and those that are close behind it.
void KQZipPackedCheck::_compareLocalHeaders(Slot* slot, std::size_t* next) const {
  const auto& entries = job_.list.entries;
  std::size_t end = *next;
  std::uint64_t start = 0;
  std::uint64_t stop = 0;
  for (; end < slot->last; ++end) {
    const Entry& entry = entries[end];
    if (!isPacked(entry)) continue;
    const std::uint64_t after = entry.offset + job_.form.sizeOfLocalHeader(entry);
    if (stop == 0) start = stop = entry.offset;
    if (stop != start && (entry.offset - stop > smallGap || after - start > mostAtOnce)) break;
    stop = after;
  }
  slot->bytes.resize(stop - start);
  slot->code = archive_.read(slot->bytes.data(), stop - start, start);
  for (; slot->code == 0 && *next < end; ++*next) {
    const Entry& entry = entries[*next];
    if (!isPacked(entry)) continue;
    slot->expected.resize(job_.form.sizeOfLocalHeader(entry));
    job_.form.encodeLocalHeader(entry, slot->expected.data());
    slot->differs = std::memcmp(slot->expected.data(), slot->bytes.data() + (entry.offset - start),
                                slot->expected.size()) != 0;
    if (slot->differs) return;
  }
}

bool KQZipPackedCheck::_compareDirectory() {
  std::uint64_t position = packer_.endRecords().startOfDirectory;
  std::vector<std::uint8_t> expected;
  for (const Entry& entry : job_.list.entries) {
    if (!isPacked(entry)) continue;
    const std::size_t used = expected.size();
    expected.resize(used + job_.form.sizeOfCentralHeader(entry));
    job_.form.encodeCentralHeader(entry, expected.data() + used);
    if (expected.size() < mostAtOnce) continue;
    if (!goOn() || !_compare(expected, position)) return false;
    position += expected.size();
    expected.clear();
  }
  const KQZipEndRecords::Bytes records = job_.form.encode(packer_.endRecords());
  expected.insert(expected.end(), records.begin(), records.end());
  return _compare(expected, position);
}

bool KQZipPackedCheck::_compare(const std::vector<std::uint8_t>& expected, std::uint64_t offset) {
  found_.resize(expected.size());
  const int code = archive_.read(found_.data(), found_.size(), offset);
  if (code != 0) {
    failure_ = archive_.errorFor(code);
    return false;
  }
  return found_ == expected || _failDifferent();
}

bool KQZipPackedCheck::_failDifferent() {
  return KQZipFail(&failure_, KQZipErrorWriting,
                   KQ::stringWithFormat("%@ does not hold what was written to it", {archive_.path()}));
}
