#include "OpenArchive.h"

#include <cerrno>

#include "Advice.h"
#include "ArchivePath.h"
#include "Interruption.h"
#include "System.h"

namespace Tool {

namespace {

constexpr char standardInput[] = "-";

// The path by which standard input is opened again, from its start.
std::string pathOfStandardInput(const KQ::NSProgress& work) {
  std::string path;
  const int code = System::keepStandardInput(&path, [&work] { return !work.isCancelled(); });
  requireNotInterrupted(work);
  if (code != 0) failWithSystemError(code, "standard input");
  return path;
}

}  // namespace

std::shared_ptr<KQZipArchive> openArchive(const std::string& path, const KQ::NSProgress& work) {
  const bool isStandardInput = path == standardInput;
  if (!isStandardInput) requireArchiveFile(path);
  const std::string real = isStandardInput ? pathOfStandardInput(work) : path;
  std::shared_ptr<const KQ::NSError> error;
  auto archive = KQZipArchive::open(real, &error);
  if (isStandardInput) System::forgetStandardInput(real);
  if (archive) return archive;
  if (error && error->code() == KQZipErrorNoArchive)
    throw Failure(withRemarks(shownArchive(path) + " is no archive", {checkTheFile}));
  failWithError(error, shownArchive(path) + " cannot be read");
}

std::string shownArchive(const std::string& path) { return path == standardInput ? "standard input" : path; }

std::string sentenceOf(const KQZipProblem& problem) {
  return problem.entry ? inQuotes(*problem.entry) + " " + problem.text : problem.text;
}

std::string adviceFor(const KQZipProblem& problem) {
  switch (problem.kind) {
    case KQZipProblemKind::Compressed:
    case KQZipProblemKind::Encrypted:
    case KQZipProblemKind::Split:
      return otherProgramNeeded;
    case KQZipProblemKind::LeavesFolder:
      return "--unsafe-paths makes it";
    case KQZipProblemKind::NotWritten: {
      if (!problem.error) return "kqzip cat gives its data";
      const auto code = problem.error->code();
      const bool isInTheWay =
          code == KQZipErrorInTheWay || code == ENOTDIR || code == EISDIR || code == EEXIST;
      return isInTheWay ? inTheWay : adviceFor(problem.error);
    }
    default:
      return verifyTellsMore;
  }
}

Failure missingEntry(const std::string& path, const KQZipArchive& archive, const std::string& name) {
  const std::string text = shownArchive(path) + ": " + inQuotes(name) + " is not in the archive";
  const auto problems = archive.problems();
  if (problems.empty()) return Failure(withRemarks(text, {"kqzip list shows what is"}));
  return Failure(withRemarks(text + " as far as it can be read: " + sentenceOf(problems.front()),
                             {adviceFor(problems.front())}));
}

}  // namespace Tool
