#include "Extract.h"

#include <atomic>
#include <cerrno>
#include <cstdint>

#include "Advice.h"
#include "Interruption.h"
#include "Message.h"
#include "OpenArchive.h"
#include "ProgressLine.h"
#include "StandardOutput.h"

namespace Tool {

namespace {

KQZipExisting existingFor(const ExtractOptions& options) {
  if (options.existing == "fail") return KQZipExisting::Fail;
  if (options.existing == "newer") return KQZipExisting::KeepNewer;
  if (options.existing == "keep" || options.keepsExisting) return KQZipExisting::Keep;
  return KQZipExisting::Replace;
}

// What could not be planned, or where nothing could be written.
[[noreturn]] void failBeforeWriting(const ExtractOptions& options, const KQZipArchive& archive,
                                    const KQZipReport& report,
                                    const std::shared_ptr<const KQ::NSError>& error) {
  if (error->code() == KQZipErrorNoSuchEntry)
    throw missingEntry(options.archive, archive, report.problems().front().entry.value_or(""));
  const std::string& text = error->localizedDescription();
  if (error->code() == KQZipErrorUnsafeName) {
    const bool canBeTaken = !options.unpacking.takesNamesAsTheyStand && text.find("NUL") == std::string::npos;
    throw Failure(withRemarks(text, {canBeTaken ? "--unsafe-paths takes names as they stand"
                                                : "kqzip cat gives the other entries"}));
  }
  const bool isNoFolder = error->domain() == KQ::NSPOSIXErrorDomain && error->code() == ENOTDIR;
  throw Failure(withRemarks(text, {isNoFolder ? "choose another folder with -C" : adviceFor(error)}));
}

// One line for all that was left out: the first, and how many other entries there are.
[[noreturn]] void failForProblems(const ExtractOptions& options, const KQZipReport& report) {
  const KQZipProblem& first = report.problems().front();
  const std::uint64_t others = report.entriesWithProblems() - (first.entry ? 1 : 0);
  const std::string more = others == 0 ? "" : "and " + std::to_string(others) + " more left out";
  throw Failure(
      withRemarks(shownArchive(options.archive) + ": " + sentenceOf(first), {more, adviceFor(first)}));
}

/// How many entries are done, of how many.
class EntryCount {
 public:
  explicit EntryCount(const KQ::NSProgress& work) : work_(work) {}

  void begin(std::uint64_t entries, std::uint64_t bytes) {
    all_ = entries;
    bytes_ = bytes;
  }
  void count() { ++done_; }

  ProgressLine::Amount amount() const {
    const double bytes = work_.fractionCompleted() * static_cast<double>(bytes_);
    return {std::to_string(done_) + "/" + std::to_string(all_) + " entries",
            static_cast<std::uint64_t>(bytes)};
  }

 private:
  const KQ::NSProgress& work_;
  std::atomic<std::uint64_t> all_{0};
  std::atomic<std::uint64_t> bytes_{0};
  std::atomic<std::uint64_t> done_{0};
};

}  // namespace

void extract(const ExtractOptions& options, const std::shared_ptr<KQ::NSProgress>& work) {
  const auto archive = openArchive(options.archive, *work);
  StandardOutput output;
  EntryCount count(*work);
  KQZipUnpackOptions unpacking = options.unpacking;
  unpacking.existing = existingFor(options);
  unpacking.onBegin = [&](std::uint64_t entries, std::uint64_t bytes) { count.begin(entries, bytes); };
  const bool printsNames = options.isVerbose || unpacking.isDryRun;
  unpacking.onEntry = [&](const KQZipUnpackedEntry& each) {
    count.count();
    if (!printsNames) return;
    output.write(escapedName(each.path));
    output.write(each.isKept ? " (kept)\n" : each.entry.isFolder() ? "/\n" : "\n");
  };
  KQZipReport report;
  std::shared_ptr<const KQ::NSError> error;
  bool isDone = false;
  {
    const ProgressLine line(!options.quiet && !printsNames, work, [&] { return count.amount(); });
    isDone = archive->unpack(options.directory, unpacking, report, &error);
  }
  output.flush();
  requireNotInterrupted(*work);
  if (isDone) return;
  if (error->code() == KQZipErrorProblemsFound) failForProblems(options, report);
  failBeforeWriting(options, *archive, report, error);
}

}  // namespace Tool
