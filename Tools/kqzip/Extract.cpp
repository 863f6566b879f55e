#include "Extract.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <system_error>
#include <utility>

#include "Advice.h"
#include "ArchiveScan.h"
#include "Destination.h"
#include "EntryProgress.h"
#include "ExtractionPlan.h"
#include "Interruption.h"
#include "Message.h"
#include "Permissions.h"
#include "ProgressLine.h"

namespace fs = std::filesystem;

namespace Tool {

namespace {

std::string partialFile(const std::string& path) {
  std::error_code ignored;
  return fs::exists(path, ignored) ? "partial file left at " + path : "";
}

// An archive that ends early yields a short file, which the export counts as a success; this one had all of
// its bytes when it was scanned.
void requireWholeCopy(const ArchiveEntry& entry, const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) failWithSystemError(errno, path);
  const auto size = static_cast<std::uint64_t>(status.st_size);
  if (size != entry.length()) {
    const std::string text = inQuotes(entry.name) + " was copied short, " + std::to_string(size) + " of " +
                             std::to_string(entry.length()) + " bytes";
    throw Failure(
        withRemarks(text, {partialFile(path), "the archive was cut meanwhile, see if it is being changed"}));
  }
}

void extractFile(const ArchiveScan& archive, const ArchiveEntry& entry, const std::string& path,
                 const KQ::NSProgress& work) {
  std::shared_ptr<const KQ::NSError> error;
  if (!archive.headerOf(entry)->exportFileToPath(path, archive.stream(), &error)) {
    if (work.isCancelled()) throw Failure(withRemarks("interrupted", {partialFile(path)}), Interrupted);
    failWithError(error, inQuotes(entry.name) + " cannot be read", {partialFile(path)});
  }
  requireWholeCopy(entry, path);
}

void setDate(const ArchiveEntry& entry, const std::string& path) {
  KQ::NSFileAttributes attributes;
  attributes.NSFileModificationDate = entry.modificationDate();
  std::shared_ptr<const KQ::NSError> error;
  if (!KQ::NSFileManager::setAttributes(attributes, path, &error))
    failWithError(error, inQuotes(path) + " cannot be given its date");
}

std::uint64_t lengthOf(const ExtractionPlan& plan) {
  std::uint64_t bytes = 0;
  for (const ExtractionItem& item : plan.items) bytes += item.entry->length();
  return bytes;
}

void extractItems(const ArchiveScan& archive, const ExtractionPlan& plan, const Destination& destination,
                  EntryProgress& progress) {
  Permissions permissions(archive);
  std::vector<std::pair<const ArchiveEntry*, std::string>> folders;
  for (const ExtractionItem& item : plan.items) {
    requireNotInterrupted(progress.work());
    progress.begin(*item.entry);
    if (item.entry->isFolder()) {
      folders.emplace_back(item.entry, destination.folder(item.target));
    } else {
      const std::string path = destination.placeForFile(item.target);
      extractFile(archive, *item.entry, path, progress.work());
      permissions.apply(*item.entry, path);
    }
    progress.end();
  }
  // Last, because a folder's date changes with its contents, and its permissions may forbid any change.
  for (const auto& [entry, path] : folders) setDate(*entry, path);
  // The longer path first: what is inside a folder is not reached behind one that may not be entered.
  std::sort(folders.begin(), folders.end(),
            [](const auto& left, const auto& right) { return left.second.size() > right.second.size(); });
  for (const auto& [entry, path] : folders) permissions.apply(*entry, path);
}

// One line for all that was left out: the first, and how many more there are.
void requireNothingLeftOut(const ArchiveScan& archive, const ExtractionPlan& plan) {
  std::vector<Problem> problems = plan.leftOut;
  if (archive.problem()) problems.push_back(*archive.problem());
  if (problems.empty()) return;
  const std::string more =
      problems.size() == 1 ? "" : "and " + std::to_string(problems.size() - 1) + " more left out";
  throw Failure(
      withRemarks(archive.path() + ": " + problems.front().sentence(), {more, problems.front().nextStep()}));
}

}  // namespace

void extract(const ExtractOptions& options, const std::shared_ptr<KQ::NSProgress>& work) {
  const ArchiveScan archive(options.archive, *work);
  refuseUnsafeNames(archive, options.unsafePaths);
  const ExtractionPlan plan = planExtraction(archive, options.paths);
  const Destination destination(options.directory, options.unsafePaths);
  {
    EntryProgress progress(plan.items.size(), lengthOf(plan));
    const ProgressLine line(!options.quiet, work, progress.measure());
    extractItems(archive, plan, destination, progress);
  }
  requireNothingLeftOut(archive, plan);
}

}  // namespace Tool
