#include "KQZipPacker.h"

#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

#include "KQZipError.h"

namespace {

using Entry = KQZipPackingEntry;

// A run is about this many bytes, so that the threads end together, and no more entries than this.
constexpr std::uint64_t bytesOfRun = 524288;
constexpr std::size_t mostEntriesOfRun = 128;

// What the average entry is taken for as long as nothing is known.
constexpr std::uint64_t lengthAtFirst = 8192;

constexpr std::uint64_t lengthOfPiece = 1048576;

// What stays in a processor's cache between the reading of the bytes, their CRC and their writing.
constexpr std::uint64_t lengthOfStep = 262144;

constexpr std::uint64_t sizeOfScratch = 1048576;

std::uint32_t crcOf(std::uint32_t crc, const std::uint8_t* bytes, std::uint64_t length) {
  return static_cast<std::uint32_t>(::crc32(crc, bytes, static_cast<uInt>(length)));
}

}  // namespace

/// The data of an entry from its first byte to its last, for the calling thread.
class KQZipPacker::InOrder {
 public:
  /// 0, or the number of an error.
  int open(const KQZipPackingEntries& list, const KQZipPackingEntry& entry, const std::string& path) {
    if (entry.isFile()) return file_.open(entry, path);
    const auto& more = *list.sources[entry.source].more;
    data_ = more.data.get();
    stream_ = more.rare ? more.rare->stream.get() : nullptr;
    if (stream_ != nullptr) start_ = stream_->NSStreamFileCurrentOffsetKey();
    return 0;
  }

  /// False when the file is not what it was.
  bool isStill(const KQZipPackingEntry& entry) {
    return !entry.isFile() || (file_.look() == 0 && file_.status().size == entry.length);
  }

  bool canGoBack() const { return stream_ == nullptr || start_.has_value(); }

  bool goBack() {
    offset_ = 0;
    return stream_ == nullptr || (start_ && stream_->setNSStreamFileCurrentOffsetKey(*start_));
  }

  /// The next bytes, at most `length`; `room` is where they are put that are not in memory. How many they
  /// are, 0 where the data ends early, or the negative of the number of an error.
  std::int64_t next(std::uint64_t length, std::uint8_t* room, const std::uint8_t** bytes) {
    *bytes = room;
    std::int64_t count = 0;
    if (data_ != nullptr) {
      *bytes = data_->bytes() + offset_;
      count = static_cast<std::int64_t>(length);
    } else if (stream_ != nullptr) {
      count = stream_->read(room, length);
      if (count < 0) count = -EIO;
    } else {
      count = file_.readAt(room, length, offset_);
    }
    if (count > 0) offset_ += static_cast<std::uint64_t>(count);
    return count;
  }

 private:
  KQZipSourceFile file_;
  const KQ::NSData* data_ = nullptr;
  KQ::NSInputStream* stream_ = nullptr;
  std::optional<std::uint64_t> start_;
  std::uint64_t offset_ = 0;
};

KQZipPacker::KQZipPacker(KQZipPackingJob& job, const KQZipPackingOptions& options, bool knowsLengths,
                         KQ::NSProgress& progress)
    : job_(job),
      entries_(job.list.entries),
      atOnce_(options.failingAtOnce),
      knowsLengths_(knowsLengths),
      progress_(progress),
      workers_(options.threads),
      averageLength_(lengthAtFirst),
      failed_(job.list.entries.size()) {
  for (std::size_t i = 0; i < workers_.slots(); ++i) slots_.push_back(std::make_unique<Slot>(job));
}

KQZipPacker::~KQZipPacker() = default;

bool KQZipPacker::pack(KQ::NSErrorSlot error) {
  position_ = job_.target.start();
  if (knowsLengths_) _setTotal();
  if (_packEntries() && _writeDirectory()) return true;
  if (!failure_) failure_ = KQZipMakeError(KQZipErrorCancelled, "Cancelled by user.");
  KQ::NSStoreError(error, failure_);
  return false;
}

bool KQZipPacker::prepare(std::size_t slot) {
  Slot& prepared = *slots_[slot];
  prepared.task = Slot::Task::Nothing;
  if (_preparePiece(&prepared)) return true;
  if (failed_ == entries_.size() && next_ < entries_.size()) {
    _prepareRun(&prepared);
    return true;
  }
  // A run that is on its way may bring large entries.
  return runsOnTheirWay_ != 0;
}

void KQZipPacker::perform(std::size_t slot) {
  Slot& performed = *slots_[slot];
  if (performed.task == Slot::Task::Run) _performRun(&performed);
  if (performed.task == Slot::Task::Piece) _performPiece(&performed);
}

bool KQZipPacker::finish(std::size_t slot) {
  Slot& finished = *slots_[slot];
  if (finished.task == Slot::Task::Run) return _finishRun(&finished);
  return finished.task != Slot::Task::Piece || _finishPiece(&finished);
}

bool KQZipPacker::goOn() {
  _showProgress();
  return !failure_ && !_isCancelled();
}

bool KQZipPacker::_packEntries() {
  while (workers_.run(*this)) {
    if (failure_) return false;
    if (failed_ == entries_.size()) return true;
    _startAgain();
  }
  return false;
}

// Goes on after the large entry that failed, where its record would be.
void KQZipPacker::_startAgain() {
  position_ = entries_[failed_].offset;
  next_ = failed_ + 1;
  for (std::size_t i = next_; i < entries_.size(); ++i) {
    if (entries_[i].state != Entry::State::LeftOut) entries_[i].state = Entry::State::Waiting;
  }
  std::uint64_t done = 0;
  for (std::size_t i = 0; i < failed_; ++i) {
    if (entries_[i].state != Entry::State::LeftOut) done += entries_[i].length;
  }
  job_.done = done;
  large_.reset();
  failed_ = entries_.size();
}

void KQZipPacker::_prepareRun(Slot* slot) {
  slot->task = Slot::Task::Run;
  slot->first = next_;
  for (std::uint64_t bytes = 0; next_ < entries_.size() && next_ - slot->first < mostEntriesOfRun; ++next_) {
    const Entry& entry = entries_[next_];
    const bool isKnown = knowsLengths_ || !entry.isFile();
    bytes += job_.form.sizeOfLocalHeader(entry) + (isKnown ? entry.length : averageLength_);
    if (bytes > bytesOfRun && next_ != slot->first) break;
  }
  slot->last = next_;
  ++runsOnTheirWay_;
}

bool KQZipPacker::_preparePiece(Slot* slot) {
  while (!large_ || large_->given == entries_[large_->index].length) {
    if (waiting_.empty() || failure_) return false;
    if (!_startLarge()) large_.reset();
  }
  slot->task = Slot::Task::Piece;
  slot->large = large_;
  slot->offset = large_->given;
  slot->length = std::min(lengthOfPiece, entries_[large_->index].length - large_->given);
  large_->given += slot->length;
  return true;
}

void KQZipPacker::_performRun(Slot* slot) {
  slot->block.clear();
  for (slot->next = slot->first; slot->next < slot->last; ++slot->next) {
    Entry& entry = entries_[slot->next];
    if (workers_.isEnding()) return;
    if (entry.state != Entry::State::LeftOut && !slot->block.append(entry)) return;
  }
}

void KQZipPacker::_performPiece(Slot* slot) {
  const Large& large = *slot->large;
  const Entry& entry = entries_[large.index];
  const std::uint64_t data = entry.offset + job_.form.sizeOfLocalHeader(entry);
  slot->crc32 = 0;
  slot->readCode = slot->writeCode = 0;
  slot->isShort = false;
  for (std::uint64_t done = 0; done < slot->length && !workers_.isEnding();) {
    const std::uint64_t length = std::min(lengthOfStep, slot->length - done);
    const std::uint64_t offset = slot->offset + done;
    const std::uint8_t* const bytes = large.data != nullptr ? large.data + offset : slot->block.bytes();
    if (large.data == nullptr) {
      const std::int64_t count = large.file.readAt(slot->block.bytes(), length, offset);
      slot->readCode = count < 0 ? static_cast<int>(-count) : 0;
      slot->isShort = count >= 0 && static_cast<std::uint64_t>(count) < length;
      if (slot->readCode != 0 || slot->isShort) return;
    }
    slot->crc32 = crcOf(slot->crc32, bytes, length);
    slot->writeCode = job_.target.write(bytes, length, data + offset);
    if (slot->writeCode != 0) return;
    done += length;
    job_.done.fetch_add(length, std::memory_order_relaxed);
  }
}

bool KQZipPacker::_finishRun(Slot* slot) {
  --runsOnTheirWay_;
  // A block that was full before the run's end is filled again, as its turn has come.
  for (std::size_t first = slot->first;;) {
    if (!_notePart(slot->block) || !_writeBlock(slot, first)) return false;
    if (slot->next == slot->last) return true;
    first = slot->first = slot->next;
    _performRun(slot);
    if (!goOn()) return false;
  }
}

bool KQZipPacker::_notePart(const KQZipPackingBlock& block) {
  for (const KQZipPackingBlock::Failure& failure : block.failures()) {
    job_.list.getPath(*failure.entry, &path_);
    if (failure.why == KQZipLeftOut::Why::Archive) {
      job_.list.leaveOut(path_, failure.why, "the archive");
    } else if (!job_.list.leaveOutFailed(path_, failure.code, atOnce_, &failure_)) {
      return false;
    }
  }
  return true;
}

// Gives the block's records their places, and large ones that belong between them.
bool KQZipPacker::_writeBlock(Slot* slot, std::size_t first) {
  std::uint64_t written = 0;
  std::uint64_t length = 0;
  for (std::size_t i = first; i < slot->next; ++i) {
    Entry& entry = entries_[i];
    if (entry.state == Entry::State::LeftOut) continue;
    const std::uint64_t inBlock = entry.offset;
    length += std::min(entry.length, KQZipPackingBlock::size);
    if (entry.state == Entry::State::Packed) {
      entry.offset = position_ + (inBlock - written);
      KQZipRecordForm::setOffset(entry, slot->block.bytes() + inBlock);
      continue;
    }
    if (!_writeRecords(slot, written, inBlock) || !_placeLarge(i)) return false;
    written = inBlock;
  }
  if (slot->next != first) averageLength_ = (averageLength_ + length / (slot->next - first)) / 2;
  return _writeRecords(slot, written, slot->block.used());
}

bool KQZipPacker::_writeRecords(Slot* slot, std::uint64_t from, std::uint64_t to) {
  if (from == to) return true;
  if (!_write(slot->block.bytes() + from, to - from, position_)) return false;
  position_ += to - from;
  return true;
}

bool KQZipPacker::_placeLarge(std::size_t index) {
  Entry& entry = entries_[index];
  entry.offset = position_;
  if (job_.target.isInOrder()) return _packInOrder(entry);
  if (entry.kind == Entry::Kind::Stream) return _packStream(entry);
  waiting_.push_back(index);
  position_ += job_.form.sizeOfLocalHeader(entry) + entry.length;
  return true;
}

// Makes the next large entry the one whose pieces are given out. False when it cannot be read any more.
bool KQZipPacker::_startLarge() {
  large_ = std::make_shared<Large>();
  large_->index = waiting_.front();
  waiting_.pop_front();
  const Entry& entry = entries_[large_->index];
  if (!entry.isFile()) {
    large_->data = job_.list.sources[entry.source].more->data->bytes();
    return true;
  }
  job_.list.getPath(entry, &path_);
  const int code = large_->file.open(entry, path_);
  const bool isStill = code == 0 && large_->file.status().type == KQ::NSItemType::File &&
                       large_->file.status().size == entry.length;
  if (!isStill) _failLarge(large_.get(), code);
  return isStill;
}

bool KQZipPacker::_finishPiece(Slot* slot) {
  const std::shared_ptr<Large> large = std::move(slot->large);
  if (large->hasFailed || large->index > failed_) return true;
  if (slot->writeCode != 0) {
    failure_ = job_.target.errorFor(slot->writeCode);
    return false;
  }
  if (slot->readCode != 0 || slot->isShort) return _failLarge(large.get(), slot->readCode);
  large->crc32 = static_cast<std::uint32_t>(
      ::crc32_combine(large->crc32, slot->crc32, static_cast<z_off_t>(slot->length)));
  large->done += slot->length;
  return large->done != entries_[large->index].length || _completeLarge(large.get());
}

bool KQZipPacker::_completeLarge(Large* large) {
  Entry& entry = entries_[large->index];
  if (entry.isFile()) {
    const int code = large->file.look();
    if (code != 0 || large->file.status().size != entry.length) return _failLarge(large, code);
  }
  entry.crc32 = large->crc32;
  entry.state = Entry::State::Packed;
  return _writeHeader(entry);
}

bool KQZipPacker::_failLarge(Large* large, int code) {
  // The large entry may be gone with the last pointer to it, below.
  const std::size_t index = large->index;
  large->hasFailed = true;
  hasGap_ = true;
  failed_ = std::min(failed_, index);
  // What comes after it is packed again.
  if (large_ && large_->index >= failed_) large_.reset();
  std::erase_if(waiting_, [this](std::size_t waiting) { return waiting > failed_; });
  return _leaveOut(entries_[index], code);
}

bool KQZipPacker::_leaveOut(KQZipPackingEntry& entry, int code) {
  entry.state = Entry::State::LeftOut;
  job_.list.getPath(entry, &path_);
  return job_.list.leaveOutFailed(path_, code, atOnce_, &failure_);
}

bool KQZipPacker::_writeHeader(KQZipPackingEntry& entry) {
  header_.resize(job_.form.sizeOfLocalHeader(entry));
  job_.form.encodeLocalHeader(entry, header_.data());
  return _write(header_.data(), header_.size(), entry.offset);
}

bool KQZipPacker::_write(const std::uint8_t* bytes, std::uint64_t length, std::uint64_t offset) {
  const int code = job_.target.write(bytes, length, offset);
  if (code != 0) failure_ = job_.target.errorFor(code);
  return code == 0;
}

// A large entry, or a stream, for a target that takes bytes in order only: the header, with the CRC of all
// the data, comes first.
bool KQZipPacker::_packInOrder(KQZipPackingEntry& entry) {
  InOrder source;
  job_.list.getPath(entry, &path_);
  const std::string path = path_;
  const int code = source.open(job_.list, entry, path);
  if (code != 0) return _leaveOut(entry, code);
  const bool fits = entry.length <= sizeOfScratch;
  if (!fits && !source.canGoBack()) return _leaveOut(entry, ESPIPE);

  const std::uint8_t* bytes = nullptr;
  std::uint32_t crc = 0;
  for (std::uint64_t done = 0; done < entry.length;) {
    const std::uint64_t left = entry.length - done;
    std::uint8_t* const room = _scratch() + (fits ? done : 0);
    const std::int64_t count = source.next(std::min(left, fits ? left : lengthOfStep), room, &bytes);
    if (count <= 0) return _leaveOut(entry, static_cast<int>(-count));
    crc = crcOf(crc, bytes, static_cast<std::uint64_t>(count));
    done += static_cast<std::uint64_t>(count);
    job_.done.fetch_add(static_cast<std::uint64_t>(count), std::memory_order_relaxed);
    if (!goOn()) return false;
  }
  if (!source.isStill(entry)) return _leaveOut(entry, 0);
  entry.crc32 = crc;
  entry.state = Entry::State::Packed;
  if (!_writeHeader(entry)) return false;
  position_ += header_.size();
  if (!fits) return _copyInOrder(entry, source);
  job_.done.fetch_add(entry.length, std::memory_order_relaxed);
  position_ += entry.length;
  return _write(entry.kind == Entry::Kind::Data ? bytes : _scratch(), entry.length, position_ - entry.length);
}

// The second reading, which must give what the first did: the header is out.
bool KQZipPacker::_copyInOrder(const KQZipPackingEntry& entry, InOrder& source) {
  const auto changed = [&] {
    job_.list.getPath(entry, &path_);
    return job_.list.leaveOutFailed(path_, 0, true, &failure_);
  };
  if (!source.goBack()) return changed();
  std::uint32_t crc = 0;
  for (std::uint64_t left = entry.length; left != 0;) {
    const std::uint8_t* bytes = nullptr;
    const std::int64_t count = source.next(std::min(left, lengthOfStep), _scratch(), &bytes);
    if (count <= 0) return changed();
    const auto length = static_cast<std::uint64_t>(count);
    crc = crcOf(crc, bytes, length);
    if (!_write(bytes, length, position_)) return false;
    position_ += length;
    left -= length;
    job_.done.fetch_add(length, std::memory_order_relaxed);
    if (!goOn()) return false;
  }
  return crc == entry.crc32 || changed();
}

// A stream is read once, and its header written after its data.
bool KQZipPacker::_packStream(KQZipPackingEntry& entry) {
  InOrder source;
  source.open(job_.list, entry, {});
  const std::uint64_t header = job_.form.sizeOfLocalHeader(entry);
  entry.crc32 = 0;
  for (std::uint64_t done = 0; done < entry.length;) {
    const std::uint8_t* bytes = nullptr;
    const std::int64_t count = source.next(std::min(entry.length - done, lengthOfStep), _scratch(), &bytes);
    if (count <= 0) {
      hasGap_ = true;
      return _leaveOut(entry, static_cast<int>(-count));
    }
    const auto length = static_cast<std::uint64_t>(count);
    entry.crc32 = crcOf(entry.crc32, bytes, length);
    if (!_write(bytes, length, position_ + header + done)) return false;
    done += length;
    job_.done.fetch_add(length, std::memory_order_relaxed);
    if (!goOn()) return false;
  }
  entry.state = Entry::State::Packed;
  position_ += header + entry.length;
  return _writeHeader(entry);
}

std::uint8_t* KQZipPacker::_scratch() {
  if (!scratch_) scratch_ = std::make_unique_for_overwrite<std::uint8_t[]>(sizeOfScratch);
  return scratch_.get();
}

bool KQZipPacker::_writeDirectory() {
  endRecords_ = {0, position_, 0};
  std::uint64_t used = 0;
  std::uint8_t* const block = _scratch();
  for (const Entry& entry : entries_) {
    if (entry.state == Entry::State::LeftOut) continue;
    if (sizeOfScratch - used < KQZipRecordForm::largestHeader) {
      if (!goOn() || !_write(block, used, position_)) return false;
      position_ += std::exchange(used, 0);
    }
    job_.form.encodeCentralHeader(entry, block + used);
    used += job_.form.sizeOfCentralHeader(entry);
    ++endRecords_.entries;
  }
  endRecords_.sizeOfHeaders = position_ + used - endRecords_.startOfDirectory;
  const KQZipEndRecords::Bytes records = job_.form.encode(endRecords_);
  if (!goOn() || !_write(block, used, position_)) return false;
  position_ += used;
  if (!_write(records.data(), records.size(), position_)) return false;
  position_ += records.size();
  return true;
}

bool KQZipPacker::_isCancelled() const { return progress_.isCancelled(); }

void KQZipPacker::finishProgress() {
  const std::int64_t done = std::max<std::int64_t>(1, KQ::NSUnitCount(job_.done));
  progress_.setTotalUnitCount(done);
  progress_.setCompletedUnitCount(done);
}

// A large file is read twice where bytes are taken in order only.
void KQZipPacker::_setTotal() {
  std::uint64_t total = 0;
  for (const Entry& entry : entries_) {
    const bool isLarge = entry.length >= KQZipPackingBlock::size - job_.form.sizeOfLocalHeader(entry);
    total += job_.target.isInOrder() && (isLarge || entry.kind == Entry::Kind::Stream) ? 2 * entry.length
                                                                                       : entry.length;
  }
  // One more, for the records at the end.
  progress_.setTotalUnitCount(KQ::NSUnitCount(total) + 1);
}

void KQZipPacker::_showProgress() {
  std::int64_t done = KQ::NSUnitCount(job_.done);
  // A file that has grown must not finish the progress.
  if (knowsLengths_) done = std::min(done, progress_.totalUnitCount() - 1);
  progress_.setCompletedUnitCount(done);
}
