#include "DirectoryComparison.h"

#include <cstdint>
#include <unordered_map>

#include "Message.h"

namespace Tool {

namespace {

void compare(const ArchiveEntry& entry, const CentralRecord& record, std::vector<Problem>& problems) {
  if (record.name != entry.name)
    problems.push_back({entry.name, "has the name " + inQuotes(record.name) + " in the central directory"});
  if (record.crc32 != entry.header->crc32()) {
    problems.push_back({entry.name, "CRC-32 is " + hexadecimal(record.crc32) +
                                        " in the central directory, header says " +
                                        hexadecimal(entry.header->crc32())});
  }
  if (record.size != entry.length()) {
    problems.push_back({entry.name, "size is " + std::to_string(record.size) +
                                        " in the central directory, header says " +
                                        std::to_string(entry.length())});
  }
}

}  // namespace

std::vector<Problem> differencesFromCentralDirectory(const ArchiveScan& archive) {
  std::vector<Problem> problems;
  std::unordered_map<std::uint64_t, const ArchiveEntry*> entryAt;
  for (const ArchiveEntry& entry : archive.entries()) entryAt.emplace(entry.localHeaderAt(), &entry);
  // An entry that was found is taken out, so that a second record for it finds none.
  for (const CentralRecord& record : archive.centralRecords()) {
    const auto found = entryAt.find(record.localHeaderAt);
    if (found == entryAt.end()) {
      problems.push_back({record.name, "is in the central directory with offset " +
                                           std::to_string(record.localHeaderAt) + ", where it has no entry"});
      continue;
    }
    compare(*found->second, record, problems);
    entryAt.erase(found);
  }
  for (const ArchiveEntry& entry : archive.entries()) {
    if (entryAt.count(entry.localHeaderAt()) != 0)
      problems.push_back({entry.name, "is not in the central directory"});
  }
  return problems;
}

}  // namespace Tool
