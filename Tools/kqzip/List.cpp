#include "List.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "ArchiveScan.h"
#include "Message.h"
#include "StandardOutput.h"

namespace Tool {

namespace {

std::vector<const ArchiveEntry*> sortedEntries(const ArchiveScan& archive) {
  std::vector<const ArchiveEntry*> entries = archive.currentEntries();
  std::sort(entries.begin(), entries.end(), [](const ArchiveEntry* left, const ArchiveEntry* right) {
    return KQ::NSStringLess()(left->name, right->name);
  });
  return entries;
}

std::size_t widthOfSizes(const std::vector<const ArchiveEntry*>& entries) {
  std::uint64_t largest = 0;
  for (const ArchiveEntry* entry : entries) largest = std::max(largest, entry->length());
  return std::to_string(largest).size();
}

std::string dateText(KQ::NSDate date) {
  const auto fields = KQ::NSCalendar::componentsFromDate(date);
  const auto two = [](int number) { return padded(static_cast<std::uint64_t>(number), 2, '0'); };
  return std::to_string(fields.year) + "-" + two(fields.month) + "-" + two(fields.day) + " " +
         two(fields.hour) + ":" + two(fields.minute) + ":" + two(fields.second);
}

// Type, size and date, with a blank behind each.
std::string details(const ArchiveEntry& entry, std::size_t sizeWidth) {
  const std::string type = entry.isFolder() ? "d " : "- ";
  return type + padded(entry.length(), sizeWidth, ' ') + " " + dateText(entry.header->modificationDate()) +
         " ";
}

}  // namespace

void list(const ListOptions& options, const KQ::NSProgress& work) {
  const ArchiveScan archive(options.archive, work);
  const std::vector<const ArchiveEntry*> entries = sortedEntries(archive);
  const std::size_t sizeWidth = options.isLong ? widthOfSizes(entries) : 0;
  StandardOutput output;
  for (const ArchiveEntry* entry : entries) {
    if (options.isLong) output.write(details(*entry, sizeWidth));
    output.write(options.endsNull ? entry->name : escapedName(entry->name));
    output.write(options.endsNull ? std::string(1, '\0') : "\n");
  }
  output.flush();
  archive.requireNoProblem();
}

}  // namespace Tool
