#include "Cat.h"

#include <algorithm>

#include "Advice.h"
#include "ArchiveScan.h"
#include "EntryReading.h"
#include "Message.h"
#include "StandardOutput.h"

namespace Tool {

namespace {

bool hasFolder(const ArchiveScan& archive, const std::string& name) {
  const std::string start = !name.empty() && name.back() == '/' ? name : name + "/";
  const auto& entries = archive.entries();
  return std::any_of(entries.begin(), entries.end(), [&start](const ArchiveEntry& entry) {
    return entry.name.substr(0, start.size()) == start;
  });
}

const ArchiveEntry& entryNamed(const ArchiveScan& archive, const std::string& name) {
  for (const ArchiveEntry* entry : archive.currentEntries()) {
    if (entry->name == name) return *entry;
  }
  if (!hasFolder(archive, name)) throw archive.missing(name);
  throw Failure(withRemarks(archive.path() + ": " + inQuotes(name) + " is a folder",
                            {"kqzip extract gives it with all below it"}));
}

}  // namespace

void cat(const CatOptions& options, const KQ::NSProgress& work) {
  const ArchiveScan archive(options.archive, work, ArchiveScan::DirectorySkipped);
  const ArchiveEntry& entry = entryNamed(archive, options.path);
  if (entry.isEncrypted())
    throw Failure(withRemarks(inQuotes(entry.name) + " is encrypted", {otherProgramNeeded}));
  StandardOutput output;
  const std::uint64_t count =
      readEntry(archive, entry, [&output](std::string_view block) { output.write(block); });
  output.flush();
  if (count == entry.length()) return;
  const std::string text = inQuotes(entry.name) + " ends after " + std::to_string(count) + " of " +
                           std::to_string(entry.length()) + " bytes";
  throw Failure(withRemarks(text, {"the archive was cut meanwhile, see if it is being changed"}));
}

}  // namespace Tool
