#include "KQZipArchiveVerifier.h"

#include <zlib.h>

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

#include "../Platform/NSProgress.h"
#include "../Platform/NSString.h"
#include "KQZipError.h"
#include "KQZipHeaderCheck.h"
#include "KQZipReportState.h"
#include "KQZipWorkers.h"

namespace {

using Code = KQZipFindingCode;

// What is read in one piece: few enough bytes to stay in the processor's cache until they are checked.
constexpr std::uint64_t pieceSize = 262144;

// An entry of which more has to be read is checked in parts of so many bytes.
constexpr std::uint64_t partSize = 1048576;

bool isReadable(const KQZipIndexRecord& record) { return record.method == 0 && (record.flags & 1U) == 0; }

// Whether the entry's own bytes can be told.
bool hasOwnBytes(const KQZipIndexRecord& record) {
  return record.isOverlapping == 0 && record.isOutside == 0 && record.isOnOtherPart == 0;
}

// The entries in the order of their local headers: many small ones in one piece, a large one in parts.
class EntryJobs final : public KQZipJobs {
 public:
  EntryJobs(const KQZipArchiveState& archive, const KQZipDirectoryCheck& directory, std::size_t slots,
            KQZipReportState& report, KQ::NSProgress& progress)
      : archive_(archive),
        directory_(directory),
        check_(archive, directory),
        report_(report),
        progress_(progress),
        jobs_(slots) {}

  // Why the work could not go on; empty when it was cancelled.
  const std::shared_ptr<const KQ::NSError>& error() const { return error_; }

  bool goOn() override { return !progress_.isCancelled() && !error_; }

  bool prepare(std::size_t slot) override {
    Job& job = jobs_[slot];
    job.found.clear();
    job.error.reset();
    job.dataBytes = 0;
    if (!large_ && !takeEntries(job)) return false;
    if (large_) takePart(job);
    if (!archive_.source->isForAllThreads()) work(job);
    return true;
  }

  void perform(std::size_t slot) override {
    if (archive_.source->isForAllThreads()) work(jobs_[slot]);
  }

  bool finish(std::size_t slot) override {
    Job& job = jobs_[slot];
    if (!job.error && job.large) finishPart(job);
    if (job.error) return error_ = job.error, false;
    for (auto& [index, findings] : job.found) tell(index, findings);
    progress_.setCompletedUnitCount(progress_.completedUnitCount() + KQ::NSUnitCount(job.dataBytes));
    return true;
  }

 private:
  // An entry that is checked in parts.
  struct Large {
    std::uint32_t index;
    std::uint64_t dataAt;
    std::uint64_t end;  // Of the bytes up to the next record.
    KQZipFindings findings;
    std::uint64_t taken = 0;
    std::uint32_t crc = 0;
  };

  struct Job {
    // Bytes to read: whole entries from one place to another, or a part of a large one.
    std::uint64_t at = 0;
    std::uint64_t length = 0;
    std::uint32_t firstPlace = 0;
    std::uint32_t endPlace = 0;
    std::shared_ptr<Large> large;
    std::vector<std::uint8_t> bytes;
    // What came of it.
    std::uint32_t crc = 0;
    std::uint64_t dataBytes = 0;
    std::vector<std::pair<std::uint32_t, KQZipFindings>> found;
    std::shared_ptr<const KQ::NSError> error;
  };

  std::uint64_t endOf(std::uint32_t place) const {
    return archive_.index.nextAfter(place, archive_.entriesEnd);
  }

  // Whether the entry is read in one piece, with others or alone.
  bool fitsPiece(std::uint32_t place, std::uint64_t start) const {
    const KQZipIndexRecord& record = archive_.index[archive_.index.inOrder(place)];
    return record.isNoEntry == 0 && hasOwnBytes(record) && endOf(place) - start <= pieceSize;
  }

  // Takes the next entries. False when there is none left.
  bool takeEntries(Job& job) {
    const KQZipArchiveIndex& index = archive_.index;
    while (place_ < index.size() && index[index.inOrder(place_)].isNoEntry != 0) ++place_;
    if (place_ == index.size()) return false;
    job.large.reset();
    job.length = 0;
    job.firstPlace = place_;
    const std::uint32_t entry = index.inOrder(place_);
    job.at = index[entry].localHeaderAt;
    while (place_ < index.size() && fitsPiece(place_, job.at)) job.length = endOf(place_++) - job.at;
    job.endPlace = place_;
    if (job.endPlace != job.firstPlace) return true;
    ++place_;
    if (hasOwnBytes(index[entry])) return beginLarge(job, entry);
    KQZipFindings findings = directory_.findingsOf(entry);
    if (index[entry].isUnclaimed != 0)
      findings.push_back({Code::NoHeaderOfItsOwn, entry});
    else if (index[entry].isOutside != 0)
      findings.push_back({Code::OutOfArchive, entry, archive_.entriesEnd});
    job.found.emplace_back(entry, std::move(findings));
    return true;
  }

  // Reads the header of an entry that is too large for a piece. Its parts follow if it can be checked.
  bool beginLarge(Job& job, std::uint32_t entry) {
    constexpr std::uint64_t largestHeader = KQZipLocalHeaderFields::size + 2 * std::uint64_t{0xFFFF};
    const KQZipIndexRecord& record = archive_.index[entry];
    const std::uint64_t end = endOf(job.firstPlace);
    if (!read(job, record.localHeaderAt, std::min(largestHeader, end - record.localHeaderAt))) return true;
    KQZipFindings findings = directory_.findingsOf(entry);
    const KQZipLocated located = check_.check(entry, job.bytes);
    findings.insert(findings.end(), located.findings.begin(), located.findings.end());
    const bool fits = located.dataAt != 0 && located.dataAt <= end && record.length <= end - located.dataAt;
    if (fits && isReadable(record))
      large_ = std::make_shared<Large>(Large{entry, located.dataAt, end, std::move(findings)});
    else
      job.found.emplace_back(entry, std::move(findings));
    return true;
  }

  void takePart(Job& job) {
    job.large = large_;
    job.at = large_->dataAt + large_->taken;
    job.length = std::min(partSize, archive_.index[large_->index].length - large_->taken);
    large_->taken += job.length;
    if (large_->taken == archive_.index[large_->index].length) large_.reset();
  }

  void work(Job& job) const {
    if (job.error) return;
    if (job.large)
      checkPart(job);
    else if (job.length != 0 && read(job, job.at, job.length))
      checkPiece(job);
  }

  bool read(Job& job, std::uint64_t at, std::uint64_t length) const {
    job.bytes.resize(static_cast<std::size_t>(length));
    const std::int64_t count = archive_.source->readAt(job.bytes.data(), length, at, &job.error);
    job.bytes.resize(static_cast<std::size_t>(std::max<std::int64_t>(count, 0)));
    return count >= 0;
  }

  void checkPart(Job& job) const {
    job.crc = 0;
    for (std::uint64_t done = 0; done < job.length; done += job.bytes.size()) {
      if (!read(job, job.at + done, std::min(pieceSize, job.length - done))) return;
      if (job.bytes.empty()) break;
      job.crc = static_cast<std::uint32_t>(::crc32_z(job.crc, job.bytes.data(), job.bytes.size()));
      job.dataBytes += job.bytes.size();
    }
  }

  void checkPiece(Job& job) const {
    for (std::uint32_t place = job.firstPlace; place < job.endPlace; ++place) {
      const std::uint32_t entry = archive_.index.inOrder(place);
      KQZipFindings findings = directory_.findingsOf(entry);
      checkEntry(job, entry, endOf(place), &findings);
      job.dataBytes += archive_.index[entry].length;
      if (!findings.empty()) job.found.emplace_back(entry, std::move(findings));
    }
  }

  // Checks an entry all of whose bytes are there.
  void checkEntry(const Job& job, std::uint32_t entry, std::uint64_t end, KQZipFindings* findings) const {
    const KQZipIndexRecord& record = archive_.index[entry];
    const KQZipBytes bytes = part(job, record.localHeaderAt, end);
    const KQZipLocated located = check_.check(entry, bytes);
    findings->insert(findings->end(), located.findings.begin(), located.findings.end());
    if (located.dataAt == 0 || located.dataAt > end || record.length > end - located.dataAt) return;
    const std::uint64_t dataEnd = located.dataAt + record.length;
    const KQZipBytes data = part(job, located.dataAt, dataEnd);
    checkData(entry, static_cast<std::uint32_t>(::crc32_z(0, data.data(), data.size())), data.size(),
              findings);
    check_.checkRest(entry, dataEnd, end, part(job, dataEnd, end), findings);
  }

  void checkData(std::uint32_t entry, std::uint32_t crc, std::uint64_t length,
                 KQZipFindings* findings) const {
    const KQZipIndexRecord& record = archive_.index[entry];
    if (length != record.length)
      findings->push_back({Code::EndsInsideData, entry, length, record.length});
    else if (isReadable(record) && crc != record.crc32)
      findings->push_back({Code::DataDoNotMatch, entry, crc, record.crc32});
  }

  // The bytes of the job between two offsets, as far as they are there.
  static KQZipBytes part(const Job& job, std::uint64_t from, std::uint64_t to) {
    const KQZipBytes all(job.bytes);
    const auto start = static_cast<std::size_t>(std::min<std::uint64_t>(from - job.at, all.size()));
    const auto end = static_cast<std::size_t>(std::min<std::uint64_t>(to - job.at, all.size()));
    return all.subspan(start, end - start);
  }

  // The parts of an entry come in order.
  void finishPart(Job& job) {
    Large& large = *job.large;
    const std::uint64_t length = archive_.index[large.index].length;
    const std::uint64_t dataEnd = large.dataAt + length;
    large.crc =
        static_cast<std::uint32_t>(::crc32_combine(large.crc, job.crc, static_cast<z_off_t>(job.dataBytes)));
    if (job.dataBytes == job.length && job.at + job.length != dataEnd) return;
    checkData(large.index, large.crc, job.at + job.dataBytes - large.dataAt, &large.findings);
    if (!read(job, dataEnd, std::min(KQZipLargestDescriptor, large.end - dataEnd))) return;
    check_.checkRest(large.index, dataEnd, large.end, job.bytes, &large.findings);
    if (!large.findings.empty()) job.found.emplace_back(large.index, std::move(large.findings));
  }

  // Bytes between entries are the archive's problem.
  void tell(std::uint32_t index, const KQZipFindings& findings) {
    std::vector<KQZipProblem> problems;
    for (const KQZipFinding& finding : findings) {
      KQZipProblem problem = KQZipProblemOf(finding, archive_.index);
      (finding.entry == index ? problems : report_.problems).push_back(std::move(problem));
    }
    report_.addEntry(std::move(problems));
  }

  const KQZipArchiveState& archive_;
  const KQZipDirectoryCheck& directory_;
  KQZipLocalCheck check_;
  KQZipReportState& report_;
  KQ::NSProgress& progress_;
  std::vector<Job> jobs_;
  std::shared_ptr<const KQ::NSError> error_;

  // What comes next: the entry at this place, or the rest of a large one.
  std::uint32_t place_ = 0;
  std::shared_ptr<Large> large_;
};

// Counts what the job is about, and tells what is known without reading on.
void begin(const KQZipArchiveState& archive, KQZipReportState& report) {
  report.entries = archive.index.sizeOfCounting();
  for (std::uint32_t index = 0; index < archive.index.size(); ++index)
    if (archive.index.counts(index)) report.bytes += archive.index[index].length;
  const auto remark = [&](Code code, std::uint64_t count) {
    report.remarks.push_back(KQZipProblemOf({code, KQZipFinding::noEntry, count}, archive.index));
  };
  if (archive.prefix != 0) remark(Code::Prefix, archive.prefix);
  if (archive.tail.isPadded) remark(Code::Padding, archive.source->length() - archive.tail.end);
  for (const KQZipFinding& finding : archive.findings) {
    if (finding.entry != KQZipFinding::noEntry) ++report.entriesWithProblems;
    report.problems.push_back(KQZipProblemOf(finding, archive.index));
  }
  for (const KQZipFinding& finding : KQZipFindingsOfTail(archive))
    report.problems.push_back(KQZipProblemOf(finding, archive.index));
}

}  // namespace

bool KQZipVerifyArchive(const KQZipArchiveState& archive, const KQZipVerifyOptions& options,
                        KQZipReport& report, KQ::NSErrorSlot error) {
  KQZipReportState& state = KQZipReportState::begun(report);
  begin(archive, state);
  const auto progress = KQ::NSProgress::progressWithTotalUnitCount(KQ::NSUnitCount(state.bytes));
  KQZipDirectoryCheck directory(archive);
  if (!directory.run(error)) return false;
  KQZipWorkers workers(archive.source->isForAllThreads() ? options.threads : 1);
  EntryJobs jobs(archive, directory, workers.slots(), state, *progress);
  if (!workers.run(jobs)) {
    if (!jobs.error()) return KQZipFail(error, KQZipErrorCancelled, "Operation was cancelled.");
    KQ::NSStoreError(error, jobs.error());
    return false;
  }
  if (state.problems.empty()) return true;
  return KQZipFail(error, KQZipErrorProblemsFound,
                   KQ::stringWithFormat("problems found: %llu, entries with problems: %llu",
                                        {KQ::NSFormatArgument::decimal(state.problems.size()),
                                         KQ::NSFormatArgument::decimal(state.entriesWithProblems)}));
}
