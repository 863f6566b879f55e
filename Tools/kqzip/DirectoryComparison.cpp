#include "DirectoryComparison.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>

#include "Message.h"

namespace Tool {

namespace {

void compare(const ArchiveEntry& entry, const CentralRecord& record, std::vector<Problem>& problems) {
  if (record.name != entry.name)
    problems.push_back(
        {entry.nameText(), "has the name " + inQuotes(record.name) + " in the central directory"});
  if (record.crc32 != entry.crc32()) {
    problems.push_back({entry.nameText(), "CRC-32 is " + hexadecimal(record.crc32) +
                                              " in the central directory, header says " +
                                              hexadecimal(entry.crc32())});
  }
  if (record.size != entry.length()) {
    problems.push_back({entry.nameText(), "size is " + std::to_string(record.size) +
                                              " in the central directory, header says " +
                                              std::to_string(entry.length())});
  }
}

// The place of the entry that the record is about; the number of entries when there is none. They stand in
// the order of their offsets, and as a rule the records do too, so that the place behind the last one is
// looked at first.
std::size_t placeOf(const CentralRecord& record, const std::deque<ArchiveEntry>& entries,
                    std::size_t likely) {
  if (likely < entries.size() && entries[likely].localHeaderAt() == record.localHeaderAt) return likely;
  const auto place = std::lower_bound(
      entries.begin(), entries.end(), record.localHeaderAt,
      [](const ArchiveEntry& entry, std::uint64_t offset) { return entry.localHeaderAt() < offset; });
  const bool isThere = place != entries.end() && place->localHeaderAt() == record.localHeaderAt;
  return isThere ? static_cast<std::size_t>(place - entries.begin()) : entries.size();
}

}  // namespace

std::vector<Problem> differencesFromCentralDirectory(const ArchiveScan& archive) {
  std::vector<Problem> problems;
  const std::deque<ArchiveEntry>& entries = archive.entries();
  // An entry that was found counts no more, so that a second record for it finds none.
  std::vector<bool> found(entries.size());
  std::size_t likely = 0;
  for (const CentralRecord& record : archive.centralRecords()) {
    const std::size_t place = placeOf(record, entries, likely);
    likely = place + 1;
    if (place == entries.size() || found[place]) {
      problems.push_back({std::string(record.name), "is in the central directory with offset " +
                                                        std::to_string(record.localHeaderAt) +
                                                        ", where it has no entry"});
      continue;
    }
    compare(entries[place], record, problems);
    found[place] = true;
  }
  for (std::size_t place = 0; place < entries.size(); ++place) {
    if (!found[place]) problems.push_back({entries[place].nameText(), "is not in the central directory"});
  }
  return problems;
}

}  // namespace Tool
