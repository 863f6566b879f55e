#include "ArchiveCheck.h"

#include <optional>
#include <vector>

#include "Advice.h"
#include "ArchiveScan.h"
#include "DirectoryComparison.h"
#include "Message.h"

namespace Tool {

namespace {

std::optional<Problem> firstProblem(const ArchiveScan& archive) {
  if (archive.problem()) return archive.problem();
  const std::vector<Problem> differences = differencesFromCentralDirectory(archive);
  if (differences.empty()) return std::nullopt;
  return differences.front();
}

// Behind an entry whose length is not true the scan loses its way, so the last entry that it found is the
// one.
std::string culprit(const ArchiveScan& archive, const Problem& problem) {
  if (problem.entry) return inQuotes(*problem.entry);
  return archive.entries().empty() ? "a file" : inQuotes(archive.entries().back().name);
}

}  // namespace

void requireReadableArchive(const std::string& archive, const KQ::NSProgress& work) {
  const ArchiveScan scan(archive, work);
  const std::optional<Problem> problem = firstProblem(scan);
  if (!problem) return;
  const std::string text =
      culprit(scan, *problem) + " changed while it was packed, so the archive cannot be read back";
  throw Failure(withRemarks(text, {"left at " + archive, "remove it and pack again"}));
}

}  // namespace Tool
