#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "../Platform/KQExport.h"
#include "../Platform/NSError.h"

/// What kind of thing is wrong. More kinds may be added.
enum class KQZipProblemKind : std::uint8_t {
  Unreadable,    ///< The system or the stream refused to read.
  EndsEarly,     ///< The archive ends before something that it should hold.
  EndRecords,    ///< The records at the archive's end contradict each other, or what stands in front of them.
  Directory,     ///< A central header cannot be used, or says what nothing bears out.
  Header,        ///< A local header is missing, damaged, or not what the directory says of the entry.
  Data,          ///< An entry's data do not have its CRC-32 or its length.
  Compressed,    ///< An entry is compressed, and only stored ones can be given back.
  Encrypted,     ///< An entry is encrypted.
  Split,         ///< The archive is one part of several.
  Overlap,       ///< Bytes belong to two entries, or to an entry and the directory.
  SameName,      ///< Another entry has the same name, and counts.
  UnknownBytes,  ///< Bytes of the archive belong to nothing.
  NotWritten,    ///< An entry has no place where it is unpacked to: the system refused it, or something is
                 ///< there.
  NotThere,      ///< A path that was asked for matches no entry. It stands in the entry's place.
  LeavesFolder   ///< A symbolic link would lead out of the folder that is unpacked into.
};

/// Something that is wrong with an archive, or with one entry of it.
struct KQZipProblem {
  KQZipProblemKind kind;             ///< What kind of problem.
  std::optional<std::string> entry;  ///< The name of the entry that is concerned; nothing for the archive.
  std::string text;                  ///< For a person. It goes on from the entry's name where there is one.
  std::shared_ptr<const KQ::NSError>
      error{};  ///< Of an entry that cannot be written: the reason, if there is one.
};

struct KQZipReportState;

/// What a job on an archive found, entry by entry. A job empties the report that it is given and fills it;
/// after a job that failed or was cancelled it holds what was found until then. It may be read when the job
/// has returned, by any number of threads.
class KQZIP_EXPORT KQZipReport {
 public:
  KQZipReport();
  ~KQZipReport();
  KQZipReport(KQZipReport&& other) noexcept;             ///< Leaves `other` fit for another job alone.
  KQZipReport& operator=(KQZipReport&& other) noexcept;  ///< The same.

  /// Everything that is wrong: of the archive first, then of the entries in the order of the archive.
  const std::vector<KQZipProblem>& problems() const;

  /// What is worth knowing and no problem: bytes in front of the first record, for instance.
  const std::vector<KQZipProblem>& remarks() const;

  /// How many entries the job was about.
  std::uint64_t entries() const;

  /// How many entries have a problem, however many each has.
  std::uint64_t entriesWithProblems() const;

  /// Bytes of data that all these entries say they have.
  std::uint64_t bytes() const;

 private:
  friend struct KQZipReportState;

  std::unique_ptr<KQZipReportState> state_;
};
