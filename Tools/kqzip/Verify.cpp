#include "Verify.h"

#include <zlib.h>

#include <cstdint>
#include <optional>
#include <vector>

#include "ArchiveScan.h"
#include "DirectoryComparison.h"
#include "EntryReading.h"
#include "Interruption.h"
#include "Message.h"
#include "ProgressLine.h"
#include "StandardOutput.h"

namespace Tool {

namespace {

// Prints what is found as it is found, with the progress line out of the way.
class Report {
 public:
  explicit Report(ProgressLine& line) : line_(line) {}

  void add(const Problem& problem) {
    ++problems_;
    print((problem.entry ? escapedName(*problem.entry) + ": " : "") + problem.text + "\n");
  }

  void print(const std::string& text) {
    line_.eraseWhile([this, &text] {
      try {
        output_.write(text);
        output_.flush();
      } catch (const OutputClosed&) {
        // The exit status still says whether the archive is right.
      }
    });
  }

  std::uint64_t problems() const { return problems_; }

 private:
  ProgressLine& line_;
  StandardOutput output_;
  std::uint64_t problems_ = 0;
};

std::uint64_t uncompressedLength(const KQZipFileLocalHeader& header) {
  const auto field = header.findZip64InfoField();
  return field ? field->uncompressedSize() : header.uncompressedSize();
}

std::optional<Problem> problemOfHeader(const ArchiveEntry& entry) {
  if (entry.isEncrypted()) return Problem{entry.name, "is encrypted"};
  const std::uint64_t uncompressed = uncompressedLength(*entry.header);
  if (uncompressed == entry.length()) return std::nullopt;
  return Problem{entry.name, "has " + std::to_string(entry.length()) + " bytes, header says " +
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
    return Problem{entry.name, "ends after " + std::to_string(length) + " of " +
                                   std::to_string(entry.length()) + " bytes"};
  }
  if (crc == entry.header->crc32()) return std::nullopt;
  return Problem{entry.name, "CRC-32 is " + hexadecimal(static_cast<std::uint32_t>(crc)) + ", header says " +
                                 hexadecimal(entry.header->crc32())};
}

void verifyEntries(const ArchiveScan& archive, KQ::NSProgress& entries, Report& report) {
  for (const ArchiveEntry& entry : archive.entries()) {
    requireNotInterrupted(entries);
    entries.becomeCurrentWithPendingUnitCount(1);
    std::optional<Problem> problem = problemOfHeader(entry);
    if (!problem) problem = problemOfData(archive, entry, entries);
    entries.resignCurrent();
    if (problem) report.add(*problem);
  }
}

// A directory that was not read to its end is told of as the archive's problem, not entry by entry.
void verifyTail(const ArchiveScan& archive, Report& report) {
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

std::string summary(const ArchiveScan& archive) {
  std::uint64_t bytes = 0;
  for (const ArchiveEntry& entry : archive.entries()) bytes += entry.length();
  return counted(archive.entries().size(), "entry", "entries") + ", " + counted(bytes, "byte", "bytes") +
         ": all right\n";
}

}  // namespace

void verify(const VerifyOptions& options, const std::shared_ptr<KQ::NSProgress>& work) {
  const ArchiveScan archive(options.archive, *work);
  const auto entries =
      KQ::NSProgress::progressWithTotalUnitCount(static_cast<std::int64_t>(archive.entries().size()));
  ProgressLine line(!options.quiet, work, entriesDone(entries));
  Report report(line);
  verifyEntries(archive, *entries, report);
  verifyTail(archive, report);
  if (report.problems() != 0)
    throw Failure(options.archive + ": " + counted(report.problems(), "problem", "problems") + " found");
  if (options.summary && !options.quiet) report.print(summary(archive));
}

}  // namespace Tool
