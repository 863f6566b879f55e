#include "KQZipUnpackJobs.h"

#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "../Archive/KQZipArchiveEntry.h"
#include "KQZipError.h"

using Outcome = KQZipNewFile::Outcome;

namespace {

// What is read in one piece: small enough to stay in a processor's cache between being read, checked and
// written.
constexpr std::uint64_t pieceLength = 524288;

// What nobody asks for is read too, if it is no more than this.
constexpr std::uint64_t longestGap = 32768;

// So many small files are as much work as a block.
constexpr std::size_t mostFilesInRun = 256;

// No system takes a longer target of a symbolic link.
constexpr std::uint64_t longestTarget = 4095;

std::uint32_t crcOf(KQZipBytes bytes) {
  return static_cast<std::uint32_t>(::crc32_z(0, bytes.data(), bytes.size()));
}

}  // namespace

KQZipUnpackJobs::LargeFile::~LargeFile() {
  file.abandon();
  if (folder >= 0) KQ::NSSystem::current().close(folder);
}

KQZipUnpackJobs::KQZipUnpackJobs(const KQZipArchiveState& archive, const KQZipUnpackPlan& plan,
                                 const KQZipUnpackOptions& options, KQZipPlacing& placing, std::size_t slots,
                                 KQ::NSProgress& progress)
    : archive_(archive), plan_(plan), options_(options), placing_(placing), progress_(progress) {
  for (std::size_t i = 0; i < slots; ++i) slots_.push_back(std::make_unique<Slot>(placing.destination));
}

KQZipUnpackJobs::~KQZipUnpackJobs() = default;

bool KQZipUnpackJobs::prepare(std::size_t number) {
  Slot& slot = *slots_[number];
  if (!slot.bytes) slot.bytes = std::make_unique_for_overwrite<std::uint8_t[]>(pieceLength);
  for (;;) {
    if (large_) {
      _prepareBlock(slot);
      break;
    }
    if (next_ == files_->size()) return false;
    if (_spanOf((*files_)[next_]) > pieceLength)
      _beginLarge((*files_)[next_++]);
    else if (_prepareRun(slot))
      break;
  }
  // A host's stream is read by the calling thread alone.
  if (!archive_.source->isForAllThreads()) _read(slot);
  return true;
}

void KQZipUnpackJobs::perform(std::size_t number) {
  Slot& slot = *slots_[number];
  if (slot.large)
    _performBlock(slot);
  else
    _performRun(slot);
}

bool KQZipUnpackJobs::finish(std::size_t number) {
  Slot& slot = *slots_[number];
  if (slot.large)
    _finishBlock(slot);
  else
    _finishRun(slot);
  return true;
}

bool KQZipUnpackJobs::goOn() {
  const std::uint64_t done = bytesDone_.load(std::memory_order_relaxed);
  if (done != bytesTold_) progress_.setCompletedUnitCount(KQ::NSUnitCount(done));
  bytesTold_ = done;
  return !progress_.isCancelled();
}

const KQZipIndexRecord& KQZipUnpackJobs::_recordOf(const KQZipUnpackItem& item) const {
  return archive_.index[_indexOf(item)];
}

// Bytes from the local header to whatever comes next. Without limit where that is not there to be read.
std::uint64_t KQZipUnpackJobs::_spanOf(const KQZipUnpackItem& item) const {
  const KQZipIndexRecord& record = _recordOf(item);
  const std::uint64_t next = archive_.index.nextAfter(item.place, archive_.entriesEnd);
  return record.isOutside != 0 || next <= record.localHeaderAt ? UINT64_MAX : next - record.localHeaderAt;
}

bool KQZipUnpackJobs::_makeFolderOf(const KQZipUnpackItem& item) {
  std::shared_ptr<const KQ::NSError> error;
  if (placing_.destination.make(item.folder, &error)) return true;
  _addProblem(problems_, item, error);
  bytesDone_ += _recordOf(item).length;
  return false;
}

bool KQZipUnpackJobs::_prepareRun(Slot& slot) {
  slot.large.reset();
  slot.run.clear();
  slot.length = 0;
  for (; next_ < files_->size() && slot.run.size() < mostFilesInRun; ++next_) {
    const KQZipUnpackItem& item = (*files_)[next_];
    const std::uint64_t span = _spanOf(item);
    const std::uint64_t start = _recordOf(item).localHeaderAt;
    if (slot.run.empty()) slot.start = start;
    const std::uint64_t before = start - slot.start;
    if (span > pieceLength || before > slot.length + longestGap || before > pieceLength - span) break;
    if (!_makeFolderOf(item)) continue;
    slot.length = before + span;
    slot.run.push_back(&item);
  }
  return !slot.run.empty();
}

void KQZipUnpackJobs::_beginLarge(const KQZipUnpackItem& item) {
  const std::size_t problemsBefore = problems_.size();
  auto large = std::make_shared<LargeFile>(placing_, item);
  KQZipLocated located;
  std::shared_ptr<const KQ::NSError> error;
  Outcome outcome = Outcome::Refused;
  if (!KQZipLocate(archive_, _indexOf(item), &located, &error)) {
    _addProblem(problems_, item, error);
  } else if (!located.findings.empty()) {
    for (const KQZipFinding& finding : located.findings) _addFinding(problems_, item, finding);
  } else if (!_makeFolderOf(item)) {
    return;
  } else {
    large->dataAt = located.dataAt;
    outcome = _openLarge(*large, &error);
    if (outcome == Outcome::Refused) _addProblem(problems_, item, error);
  }
  if (outcome == Outcome::Made)
    large_ = std::move(large);
  else
    bytesDone_ += _recordOf(item).length;
  if (outcome == Outcome::Kept && problems_.size() == problemsBefore) _tell(item, true);
}

Outcome KQZipUnpackJobs::_openLarge(LargeFile& large, KQ::NSErrorSlot error) {
  // Held for as long as the file is: those of the slots come and go.
  large.folder = placing_.destination.openFolder(large.item.folder);
  if (large.folder < 0) {
    KQ::NSStoreError(error, placing_.destination.errorFor(large.folder, large.item.folder));
    return Outcome::Refused;
  }
  KQZipTargetPath target;
  plan_.findTarget(large.item.place, &target);
  if (large.item.isAlone) large.file.setOthers(&others_);
  const Outcome outcome = large.file.open(large.folder, large.item.folder, target.name(),
                                          _permissionsOf(large.item), _timeOf(large.item), error);
  if (outcome == Outcome::Made && large.item.isAlone)
    if (const auto identity = large.file.identity()) others_.insert(*identity);
  return outcome;
}

void KQZipUnpackJobs::_prepareBlock(Slot& slot) {
  const std::uint64_t whole = _recordOf(large_->item).length;
  slot.large = large_;
  slot.offset = large_->prepared;
  slot.start = large_->dataAt + slot.offset;
  slot.length = std::min(pieceLength, whole - slot.offset);
  large_->prepared += slot.length;
  if (large_->prepared == whole) large_.reset();
}

void KQZipUnpackJobs::_read(Slot& slot) const {
  slot.error.reset();
  slot.count = archive_.source->readAt(slot.bytes.get(), slot.length, slot.start, &slot.error);
}

void KQZipUnpackJobs::_performRun(Slot& slot) {
  const bool readsItself = archive_.source->isForAllThreads();
  if (readsItself) _read(slot);
  const bool isRead = slot.count >= 0;
  for (const KQZipUnpackItem* item : slot.run) {
    const std::uint64_t length = _recordOf(*item).length;
    // What cannot be read may be one file's alone.
    if (!isRead && readsItself) {
      slot.start = _recordOf(*item).localHeaderAt;
      slot.length = _spanOf(*item);
      _read(slot);
    }
    if (slot.count < 0) {
      _addProblem(slot.problems, *item, slot.error);
    } else {
      const KQZipBytes bytes(slot.bytes.get(), static_cast<std::size_t>(slot.count));
      const std::uint64_t at =
          std::min<std::uint64_t>(_recordOf(*item).localHeaderAt - slot.start, bytes.size());
      _giveBack(slot, *item, bytes.subspan(static_cast<std::size_t>(at)));
    }
    bytesDone_ += length;
  }
}

// `bytes` are what stands from the local header on.
void KQZipUnpackJobs::_giveBack(Slot& slot, const KQZipUnpackItem& item, KQZipBytes bytes) {
  const KQZipIndexRecord& record = _recordOf(item);
  const KQZipLocated located = KQZipCompareLocalHeader(archive_, _indexOf(item), bytes);
  for (const KQZipFinding& finding : located.findings) _addFinding(slot.problems, item, finding);
  if (!located.findings.empty()) return;
  const std::uint64_t before = located.dataAt - record.localHeaderAt;
  const std::uint64_t there = bytes.size() - std::min<std::uint64_t>(before, bytes.size());
  if (there < record.length)
    _addFinding(slot.problems, item,
                {KQZipFindingCode::EndsInsideData, _indexOf(item), there, record.length});
  if (there < record.length && !options_.keepsDamaged) return;
  _write(slot, item, bytes.last(static_cast<std::size_t>(there)).first(std::min(there, record.length)));
}

void KQZipUnpackJobs::_write(Slot& slot, const KQZipUnpackItem& item, KQZipBytes data) {
  std::shared_ptr<const KQ::NSError> error;
  const KQ::NSHandle folder = slot.handles.open(item.folder);
  if (folder < 0) return _addProblem(slot.problems, item, placing_.destination.errorFor(folder, item.folder));
  plan_.findTarget(item.place, &slot.target);
  KQZipNewFile file(placing_);
  if (item.isAlone) file.setOthers(&others_);
  const Outcome outcome =
      file.open(folder, item.folder, slot.target.name(), _permissionsOf(item), _timeOf(item), &error);
  if (outcome == Outcome::Refused) return _addProblem(slot.problems, item, error);
  if (outcome == Outcome::Kept) return slot.kept.push_back(&item);
  if (item.isAlone)
    if (const auto identity = file.identity()) others_.insert(*identity);
  const KQZipIndexRecord& record = _recordOf(item);
  const std::uint32_t crc = crcOf(data);
  const bool isWhole = data.size() == record.length && crc == record.crc32;
  if (data.size() == record.length && !isWhole)
    _addFinding(slot.problems, item, {KQZipFindingCode::DataDoNotMatch, _indexOf(item), crc, record.crc32});
  if (!isWhole && !options_.keepsDamaged) return;
  if (!file.write(data.data(), data.size(), &error) || !file.finish(&error))
    return _addProblem(slot.problems, item, error);
  if (isWhole) slot.given.push_back(&item);
}

void KQZipUnpackJobs::_performBlock(Slot& slot) const {
  LargeFile& large = *slot.large;
  if (large.isOver) return;
  if (archive_.source->isForAllThreads()) _read(slot);
  const auto count = static_cast<std::uint64_t>(std::max<std::int64_t>(slot.count, 0));
  std::shared_ptr<const KQ::NSError> error;
  if (slot.count < 0) {
    _addProblem(slot.problems, large.item, slot.error);
  } else if (count < slot.length) {
    _addFinding(slot.problems, large.item,
                {KQZipFindingCode::EndsInsideData, _indexOf(large.item), slot.offset + count,
                 _recordOf(large.item).length});
  }
  bool goesOn = slot.problems.empty() || (slot.count >= 0 && options_.keepsDamaged);
  slot.crc = crcOf({slot.bytes.get(), static_cast<std::size_t>(count)});
  if (goesOn && !large.file.writeAt(slot.bytes.get(), count, slot.offset, &error)) {
    _addProblem(slot.problems, large.item, error);
    goesOn = false;
  }
  if (!goesOn) large.isOver = true;
}

void KQZipUnpackJobs::_finishRun(Slot& slot) {
  std::move(slot.problems.begin(), slot.problems.end(), std::back_inserter(problems_));
  slot.problems.clear();
  if (options_.onEntry) {
    // Both are in the order of the archive.
    std::vector<std::pair<const KQZipUnpackItem*, bool>> done;
    for (const KQZipUnpackItem* item : slot.given) done.emplace_back(item, false);
    for (const KQZipUnpackItem* item : slot.kept) done.emplace_back(item, true);
    std::sort(done.begin(), done.end(),
              [](const auto& left, const auto& right) { return left.first->place < right.first->place; });
    for (const auto& [item, isKept] : done) _tell(*item, isKept);
  }
  slot.given.clear();
  slot.kept.clear();
}

void KQZipUnpackJobs::_finishBlock(Slot& slot) {
  const std::shared_ptr<LargeFile> large = std::move(slot.large);
  large->finished += slot.length;
  bytesDone_ += slot.length;
  large->crc =
      static_cast<std::uint32_t>(::crc32_combine(large->crc, slot.crc, static_cast<z_off_t>(slot.length)));
  // Of a file one problem is enough, the first.
  if (!slot.problems.empty() && !std::exchange(large->hasProblem, true))
    problems_.push_back(std::move(slot.problems.front()));
  slot.problems.clear();
  if (large->finished == _recordOf(large->item).length) _settleLarge(*large);
}

void KQZipUnpackJobs::_settleLarge(LargeFile& large) {
  if (large.isOver) return large.file.abandon();
  const KQZipIndexRecord& record = _recordOf(large.item);
  if (!large.hasProblem && large.crc != record.crc32) {
    large.hasProblem = true;
    _addFinding(problems_, large.item,
                {KQZipFindingCode::DataDoNotMatch, _indexOf(large.item), large.crc, record.crc32});
  }
  if (large.hasProblem && !options_.keepsDamaged) return large.file.abandon();
  std::shared_ptr<const KQ::NSError> error;
  if (!large.file.finish(&error))
    _addProblem(problems_, large.item, error);
  else if (!large.hasProblem)
    _tell(large.item, false);
}

bool KQZipUnpackJobs::makeLinks() {
  for (const KQZipUnpackItem& item : plan_.links()) {
    if (!goOn()) return false;
    std::string target;
    std::shared_ptr<const KQ::NSError> error;
    if (_readLink(item, &target) && _isLinkInside(item, target) && _makeFolderOf(item)) {
      const Outcome outcome = _makeLink(item, target, &error);
      if (outcome == Outcome::Refused)
        _addProblem(problems_, item, error);
      else
        _tell(item, outcome == Outcome::Kept);
    }
    bytesDone_ += _recordOf(item).length;
  }
  return true;
}

bool KQZipUnpackJobs::_readLink(const KQZipUnpackItem& item, std::string* target) {
  const KQZipIndexRecord& record = _recordOf(item);
  const std::size_t problemsBefore = problems_.size();
  KQZipLocated located;
  std::shared_ptr<const KQ::NSError> error;
  if (!KQZipLocate(archive_, _indexOf(item), &located, &error)) {
    _addProblem(problems_, item, error);
    return false;
  }
  for (const KQZipFinding& finding : located.findings) _addFinding(problems_, item, finding);
  if (located.findings.empty() && record.length > longestTarget)
    _addText(item, KQZipProblemKind::NotWritten, "is a symbolic link with a target that is too long");
  if (problems_.size() != problemsBefore) return false;
  target->resize(static_cast<std::size_t>(record.length));
  const std::int64_t count = archive_.source->readAt(target->data(), record.length, located.dataAt, &error);
  const auto there = static_cast<std::uint64_t>(std::max<std::int64_t>(count, 0));
  const std::uint32_t crc =
      crcOf({reinterpret_cast<const std::uint8_t*>(target->data()), static_cast<std::size_t>(there)});
  if (count < 0)
    _addProblem(problems_, item, error);
  else if (there < record.length)
    _addFinding(problems_, item, {KQZipFindingCode::EndsInsideData, _indexOf(item), there, record.length});
  else if (crc != record.crc32)
    _addFinding(problems_, item, {KQZipFindingCode::DataDoNotMatch, _indexOf(item), crc, record.crc32});
  else if (target->find('\0') != std::string::npos)
    _addText(item, KQZipProblemKind::NotWritten, "is a symbolic link with a NUL in its target");
  return problems_.size() == problemsBefore;
}

bool KQZipUnpackJobs::_isLinkInside(const KQZipUnpackItem& item, const std::string& target) {
  if (options_.takesNamesAsTheyStand) return true;
  std::vector<std::string> climbsAfter;
  std::string reason = plan_.whyLinkLeavesFolder(item.folder, target, &climbsAfter);
  const KQ::NSHandle root = placing_.destination.handles().open(KQZipFolderTable::root);
  for (const std::string& path : climbsAfter) {
    KQ::NSItemStatus status;
    if (!reason.empty() || KQ::NSSystem::current().statusAt(root, path.c_str(), false, &status) < 0) continue;
    if (status.type == KQ::NSItemType::Link)
      reason = "is a symbolic link whose target goes through another one and up again";
  }
  if (reason.empty()) return true;
  _addText(item, KQZipProblemKind::LeavesFolder, reason);
  return false;
}

Outcome KQZipUnpackJobs::_makeLink(const KQZipUnpackItem& item, const std::string& target,
                                   KQ::NSErrorSlot error) {
  const KQ::NSHandle folder = placing_.destination.handles().open(item.folder);
  if (folder < 0) {
    KQ::NSStoreError(error, placing_.destination.errorFor(folder, item.folder));
    return Outcome::Refused;
  }
  KQZipTargetPath path;
  plan_.findTarget(item.place, &path);
  KQZipNewFile file(placing_);
  file.setOthers(&others_);
  return file.link(target, folder, item.folder, path.name(), _timeOf(item), error);
}

void KQZipUnpackJobs::_tell(const KQZipUnpackItem& item, bool isKept) {
  if (!options_.onEntry) return;
  KQZipTargetPath target;
  plan_.findTarget(item.place, &target);
  options_.onEntry({KQZipArchiveEntry(archive_, _indexOf(item)), std::string(target.path()), isKept});
}

void KQZipUnpackJobs::_addText(const KQZipUnpackItem& item, KQZipProblemKind kind, const std::string& text) {
  problems_.push_back({item.place, {kind, plan_.nameAt(item.place), text}});
}

void KQZipUnpackJobs::_addProblem(std::vector<KQZipPlacedProblem>& problems, const KQZipUnpackItem& item,
                                  const std::shared_ptr<const KQ::NSError>& error) const {
  problems.push_back({item.place, KQZipProblemOfWriting(plan_.nameAt(item.place), error)});
}

void KQZipUnpackJobs::_addFinding(std::vector<KQZipPlacedProblem>& problems, const KQZipUnpackItem& item,
                                  const KQZipFinding& finding) const {
  problems.push_back({item.place, KQZipProblemOf(finding, archive_.index)});
}

KQ::NSItemTime KQZipUnpackJobs::_timeOf(const KQZipUnpackItem& item) const {
  return KQ::NSTimeOfDate(KQZipArchiveEntry(archive_, _indexOf(item)).modificationDate());
}

std::optional<std::uint16_t> KQZipUnpackJobs::_permissionsOf(const KQZipUnpackItem& item) const {
  return KQZipArchiveEntry(archive_, _indexOf(item)).permissions();
}
