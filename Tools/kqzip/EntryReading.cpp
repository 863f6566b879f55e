#include "EntryReading.h"

#include <algorithm>
#include <vector>

#include "Advice.h"
#include "Message.h"

namespace Tool {

namespace {

constexpr std::uint64_t blockSize = 1048576;

[[noreturn]] void failReading(const ArchiveScan& archive, const ArchiveEntry& entry) {
  const auto error = archive.stream().streamError();
  const std::string text = inQuotes(entry.name) + " cannot be read: " + errorText(error, "unknown reason");
  throw Failure(withRemarks(text, {adviceFor(error)}));
}

}  // namespace

std::uint64_t readEntry(const ArchiveScan& archive, const ArchiveEntry& entry,
                        const std::function<void(std::string_view)>& take) {
  KQ::NSInputStream& stream = archive.stream();
  if (!stream.setNSStreamFileCurrentOffsetKey(entry.dataAt())) failReading(archive, entry);
  std::vector<std::uint8_t> block(std::min(entry.length(), blockSize));
  std::uint64_t done = 0;
  while (done < entry.length()) {
    const std::int64_t count = stream.read(block.data(), std::min(entry.length() - done, blockSize));
    if (count < 0) failReading(archive, entry);
    if (count == 0) break;
    take({reinterpret_cast<const char*>(block.data()), static_cast<std::size_t>(count)});
    done += static_cast<std::uint64_t>(count);
  }
  return done;
}

}  // namespace Tool
