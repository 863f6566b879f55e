#include "Verify.h"

#include <zlib.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "Advice.h"
#include "ArchiveScan.h"
#include "DirectoryComparison.h"
#include "EntryProgress.h"
#include "EntryReading.h"
#include "Interruption.h"
#include "Message.h"
#include "ProgressLine.h"
#include "VerifyReport.h"

namespace Tool {

namespace {

std::optional<Problem> problemOfHeader(const ArchiveEntry& entry) {
  if (entry.isEncrypted()) return Problem{entry.nameText(), "is encrypted", otherProgramNeeded};
  const std::uint64_t uncompressed = entry.uncompressedLength();
  if (uncompressed == entry.length()) return std::nullopt;
  return Problem{entry.nameText(), "has " + std::to_string(entry.length()) + " bytes, header says " +
                                       std::to_string(uncompressed)};
}

std::optional<Problem> problemOfData(const ArchiveScan& archive, const ArchiveEntry& entry,
                                     const KQ::NSProgress& work) {
  const auto progress = KQ::NSProgress::progressWithTotalUnitCount(static_cast<std::int64_t>(entry.length()));
  uLong crc = 0;
  const std::uint64_t length = readEntry(archive, entry, [&](std::string_view block) {
    requireNotInterrupted(work);
    crc = ::crc32(crc, reinterpret_cast<const Bytef*>(block.data()), static_cast<uInt>(block.size()));
    progress->setCompletedUnitCount(progress->completedUnitCount() + static_cast<std::int64_t>(block.size()));
  });
  if (length != entry.length()) {
    return Problem{entry.nameText(), "ends after " + std::to_string(length) + " of " +
                                         std::to_string(entry.length()) + " bytes"};
  }
  if (crc == entry.crc32()) return std::nullopt;
  return Problem{entry.nameText(), "CRC-32 is " + hexadecimal(static_cast<std::uint32_t>(crc)) +
                                       ", header says " + hexadecimal(entry.crc32())};
}

void verifyEntries(const ArchiveScan& archive, EntryProgress& progress, VerifyReport& report) {
  for (const ArchiveEntry& entry : archive.entries()) {
    requireNotInterrupted(progress.work());
    progress.begin(entry);
    std::optional<Problem> problem = problemOfHeader(entry);
    if (!problem) problem = problemOfData(archive, entry, progress.work());
    progress.end();
    if (problem) report.add(*problem);
  }
}

// A directory that was not read to its end is told of as the archive's problem, not entry by entry.
void verifyTail(const ArchiveScan& archive, VerifyReport& report) {
  if (archive.problem()) {
    report.add(*archive.problem());
    return;
  }
  for (const Problem& difference : differencesFromCentralDirectory(archive)) report.add(difference);
  if (archive.trailingBytes()) {
    report.add({std::nullopt, "unknown bytes behind the end of the archive, from offset " +
                                  std::to_string(*archive.trailingBytes())});
  }
}

std::string summary(const VerifyOptions& options, const ArchiveScan& archive) {
  const std::uint64_t bytes = archive.totalLength();
  return counted(archive.entries().size(), "entry", "entries") + ", " +
         (options.isHuman ? readableSize(bytes) : counted(bytes, "byte", "bytes"));
}

std::unique_ptr<VerifyReport> makeReport(const VerifyOptions& options, const ArchiveScan& archive,
                                         ProgressLine& line) {
  if (options.isJson) return std::make_unique<VerifyDocument>(line, archive);
  const bool isSummed = options.summary && !options.quiet;
  return std::make_unique<VerifyLines>(line, isSummed ? summary(options, archive) : "");
}

std::string nextStep(const VerifyOptions& options, const ArchiveScan& archive, const VerifyReport& report) {
  if (!options.summary) return "remove it and pack again";
  if (!report.advice().empty()) return report.advice();
  return archive.entries().empty() ? "no entry can be read back, get the archive again"
                                   : "kqzip extract gives back what can be read, unchecked";
}

}  // namespace

void verify(const VerifyOptions& options, const std::shared_ptr<KQ::NSProgress>& work) {
  if (options.isJson && options.isHuman) throw Failure("--json goes without --human-readable", WrongUsage);
  const ArchiveScan archive(options.archive, *work);
  EntryProgress progress(archive.entries().size(), archive.totalLength());
  ProgressLine line(!options.quiet, work, progress.measure());
  const std::unique_ptr<VerifyReport> report = makeReport(options, archive, line);
  try {
    verifyEntries(archive, progress, *report);
    verifyTail(archive, *report);
  } catch (const Failure& failure) {
    report->abandon(failure.what());
    throw;
  }
  report->end();
  if (report->problems() == 0) return;
  const std::string text =
      options.archive + ": " + counted(report->problems(), "problem", "problems") + " found";
  throw Failure(withRemarks(text, {nextStep(options, archive, *report)}));
}

}  // namespace Tool
