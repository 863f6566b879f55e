#include "Cat.h"

#include <algorithm>
#include <vector>

#include "Advice.h"
#include "Message.h"
#include "OpenArchive.h"
#include "StandardOutput.h"

namespace Tool {

namespace {

constexpr std::size_t blockSize = 1048576;

bool hasFolder(const KQZipArchive& archive, const std::string& name) {
  const std::string start = !name.empty() && name.back() == '/' ? name : name + "/";
  const auto entries = archive.entries();
  return std::any_of(entries.begin(), entries.end(),
                     [&start](const KQZipArchiveEntry& entry) { return KQ::hasPrefix(entry.name(), start); });
}

KQZipArchiveEntry entryNamed(const std::string& path, const KQZipArchive& archive, const std::string& name) {
  if (const auto entry = archive.find(name)) return *entry;
  // A name that is no UTF-8 is shown as another one. As it is stored it is found, too.
  for (const KQZipArchiveEntry& entry : archive.entries())
    if (entry.storedName() == name) return entry;
  if (!hasFolder(archive, name)) throw missingEntry(path, archive, name);
  throw Failure(withRemarks(shownArchive(path) + ": " + inQuotes(name) + " is a folder",
                            {"kqzip extract gives it with all below it"}));
}

[[noreturn]] void failReading(const std::string& path, const KQZipArchiveEntry& entry,
                              const std::shared_ptr<const KQ::NSError>& error) {
  const bool isOther = error && error->code() == KQZipErrorEntryRefused;
  throw Failure(
      withRemarks(shownArchive(path) + ": " + errorText(error, inQuotes(entry.name()) + " cannot be read"),
                  {isOther ? otherProgramNeeded : verifyTellsMore}));
}

}  // namespace

void cat(const CatOptions& options, const KQ::NSProgress& work) {
  const auto archive = openArchive(options.archive, work);
  const KQZipArchiveEntry entry = entryNamed(options.archive, *archive, options.path);
  std::shared_ptr<const KQ::NSError> error;
  const auto stream = archive->stream(entry, &error);
  if (!stream) failReading(options.archive, entry, error);
  StandardOutput output;
  std::vector<std::uint8_t> block(
      static_cast<std::size_t>(std::clamp<std::uint64_t>(entry.length(), 1, blockSize)));
  std::int64_t count = 0;
  while ((count = stream->read(block.data(), block.size())) > 0)
    output.write({reinterpret_cast<const char*>(block.data()), static_cast<std::size_t>(count)});
  // What could be read is out by then.
  output.flush();
  if (count < 0) failReading(options.archive, entry, stream->streamError());
}

}  // namespace Tool
