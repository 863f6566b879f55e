#include "Cat.h"

#include "ArchiveScan.h"
#include "EntryReading.h"
#include "Message.h"
#include "StandardOutput.h"

namespace Tool {

namespace {

const ArchiveEntry& entryNamed(const ArchiveScan& archive, const std::string& name) {
  for (const ArchiveEntry* entry : archive.currentEntries()) {
    if (entry->name == name) return *entry;
  }
  throw archive.missing(name);
}

}  // namespace

void cat(const CatOptions& options, const KQ::NSProgress& work) {
  const ArchiveScan archive(options.archive, work);
  const ArchiveEntry& entry = entryNamed(archive, options.path);
  if (entry.isEncrypted()) throw Failure(inQuotes(entry.name) + " is encrypted");
  StandardOutput output;
  const std::uint64_t count =
      readEntry(archive, entry, [&output](std::string_view block) { output.write(block); });
  output.flush();
  if (count != entry.length())
    throw Failure(inQuotes(entry.name) + " ends after " + std::to_string(count) + " of " +
                  std::to_string(entry.length()) + " bytes");
}

}  // namespace Tool
