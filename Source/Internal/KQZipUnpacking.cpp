#include "KQZipUnpacking.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

#include "../Platform/NSProgress.h"
#include "../Platform/NSString.h"
#include "KQZipDestinationFolder.h"
#include "KQZipError.h"
#include "KQZipNewFile.h"
#include "KQZipReportState.h"
#include "KQZipUnpackJobs.h"
#include "KQZipUnpackPlan.h"
#include "KQZipWorkers.h"

namespace {

using Problems = std::vector<KQZipPlacedProblem>;

class Unpacking {
 public:
  Unpacking(const KQZipArchiveState& archive, const KQZipUnpackOptions& options)
      : archive_(archive),
        options_(options),
        destination_(options.takesNamesAsTheyStand),
        plan_(archive, options, destination_.table()) {}

  bool plan(KQZipReportState& report, KQ::NSErrorSlot error) {
    if (!plan_.make(error)) return false;
    const std::vector<std::string> unmatched = plan_.unmatched();
    for (const std::string& path : unmatched)
      report.problems.push_back({KQZipProblemKind::NotThere, path, "is not in the archive"});
    if (unmatched.empty()) {
      if (options_.onBegin) options_.onBegin(plan_.entries(), plan_.bytes());
      return true;
    }
    return KQZipFail(error, KQZipErrorNoSuchEntry,
                     KQ::stringWithFormat("%@ is not in the archive", {'"' + unmatched.front() + '"'}));
  }

  // What would be unpacked, in the order of the archive.
  void tellPlan() const {
    std::vector<KQZipUnpackItem> items;
    for (const auto* each : {&plan_.folders(), &plan_.files(), &plan_.filesAlone(), &plan_.links()})
      items.insert(items.end(), each->begin(), each->end());
    std::sort(items.begin(), items.end(),
              [](const auto& left, const auto& right) { return left.place < right.place; });
    for (const KQZipUnpackItem& item : items) tell(item);
  }

  // False when it was cancelled.
  bool carryOut(KQ::NSProgress& progress) {
    KQZipPlacing placing{destination_, options_.existing, identityOfArchive()};
    noteFolders();
    KQZipWorkers workers(archive_.source->isForAllThreads() ? options_.threads : 1);
    KQZipWorkers alone(1);
    KQZipUnpackJobs jobs(archive_, plan_, options_, placing, workers.slots(), progress);
    jobs.setFiles(plan_.files());
    bool isDone = workers.run(jobs);
    jobs.setFiles(plan_.filesAlone());
    isDone = isDone && alone.run(jobs) && jobs.makeLinks() && makeFolders(jobs);
    take(jobs.problems());
    settle();
    return isDone;
  }

  bool open(const std::string& folder, KQ::NSErrorSlot error) {
    return destination_.open(folder, true, error);
  }

  void fill(KQZipReportState& report) {
    take(plan_.problems());
    addWhatOpeningFound(report);
    std::stable_sort(problems_.begin(), problems_.end(),
                     [](const auto& left, const auto& right) { return left.place < right.place; });
    report.entries = plan_.entries();
    report.bytes = plan_.bytes();
    for (std::size_t i = 0; i < problems_.size();) {
      std::vector<KQZipProblem> ofEntry;
      const std::uint32_t place = problems_[i].place;
      for (; i < problems_.size() && problems_[i].place == place; ++i)
        ofEntry.push_back(std::move(problems_[i].problem));
      report.addEntry(std::move(ofEntry));
    }
  }

  std::uint64_t bytes() const { return plan_.bytes(); }

 private:
  // Entries of which only the name is known are found by opening alone.
  void addWhatOpeningFound(KQZipReportState& report) {
    for (const KQZipFinding& finding : archive_.findings) {
      if (finding.entry == KQZipFinding::noEntry)
        report.problems.push_back(KQZipProblemOf(finding, archive_.index));
      else if (!archive_.index.counts(finding.entry))
        problems_.push_back({archive_.index.placeOf(finding.entry), KQZipProblemOf(finding, archive_.index)});
    }
  }

  void take(Problems& problems) {
    std::move(problems.begin(), problems.end(), std::back_inserter(problems_));
    problems.clear();
  }

  void tell(const KQZipUnpackItem& item) const {
    if (!options_.onEntry) return;
    KQZipTargetPath target;
    plan_.findTarget(item.place, &target);
    const KQZipArchiveEntry entry(archive_, archive_.index.inOrder(item.place));
    options_.onEntry({entry, std::string(target.path()), false});
  }

  std::optional<KQZipItemIdentity> identityOfArchive() const {
    if (archive_.source->file() == nullptr) return std::nullopt;
    KQ::NSItemStatus status;
    if (!archive_.source->file()->status(&status)) return std::nullopt;
    return KQZipItemIdentity{status.device, status.number};
  }

  void noteFolders() {
    for (const KQZipFolderTable::Folder folder : plan_.twins()) destination_.noteTwin(folder);
    for (const KQZipUnpackItem& item : plan_.folders()) {
      const KQZipArchiveEntry entry(archive_, archive_.index.inOrder(item.place));
      destination_.settleAs(item.folder, entry.permissions(), KQ::NSTimeOfDate(entry.modificationDate()));
    }
  }

  // Those that have an entry of their own; the others are made with their files.
  bool makeFolders(KQZipUnpackJobs& jobs) {
    for (const KQZipUnpackItem& item : plan_.folders()) {
      if (!jobs.goOn()) return false;
      std::shared_ptr<const KQ::NSError> error;
      if (destination_.make(item.folder, &error))
        tell(item);
      else
        addProblem(item.place, error);
    }
    return true;
  }

  void addProblem(std::uint32_t place, const std::shared_ptr<const KQ::NSError>& error) {
    problems_.push_back({place, KQZipProblemOfWriting(plan_.nameAt(place), error)});
  }

  void settle() {
    auto failures = destination_.settle();
    for (const KQZipUnpackItem& item : plan_.folders()) {
      const auto found = failures.find(item.folder);
      if (found == failures.end()) continue;
      addProblem(item.place, found->second);
      failures.erase(found);
    }
    // Folders without an entry come last.
    for (const auto& [folder, error] : failures)
      problems_.push_back(
          {UINT32_MAX, KQZipProblemOfWriting(destination_.table().pathOf(folder) + "/", error)});
  }

  const KQZipArchiveState& archive_;
  const KQZipUnpackOptions& options_;
  KQZipDestinationFolder destination_;
  KQZipUnpackPlan plan_;
  Problems problems_;
};

}  // namespace

bool KQZipUnpackArchive(const KQZipArchiveState& archive, const std::string& folder,
                        const KQZipUnpackOptions& options, KQZipReport& report, KQ::NSErrorSlot error) {
  KQZipReportState& found = KQZipReportState::begun(report);
  Unpacking unpacking(archive, options);
  if (!unpacking.plan(found, error)) return false;
  bool isDone = true;
  if (options.isDryRun) {
    unpacking.tellPlan();
  } else {
    if (!unpacking.open(folder, error)) return false;
    const auto progress = KQ::NSProgress::progressWithTotalUnitCount(KQ::NSUnitCount(unpacking.bytes()));
    progress->setKind(KQ::NSProgressKindFile);
    isDone = unpacking.carryOut(*progress);
    if (isDone) progress->setCompletedUnitCount(progress->totalUnitCount());
  }
  unpacking.fill(found);
  if (!isDone) return KQZipFail(error, KQZipErrorCancelled, "Cancelled by user.");
  if (found.problems.empty()) return true;
  return KQZipFail(error, KQZipErrorProblemsFound,
                   KQ::stringWithFormat("problems found: %llu, entries with problems: %llu",
                                        {KQ::NSFormatArgument::decimal(found.problems.size()),
                                         KQ::NSFormatArgument::decimal(found.entriesWithProblems)}));
}
