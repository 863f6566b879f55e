#pragma once

#include <KQZip/KQZip.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

namespace KQFuzz {

/// A folder of this process's own, on the RAM disk if there is one, removed when the process ends. Log lines
/// are swallowed from the first call on.
const std::filesystem::path& scratch();

/// Lets all that is written to standard output go nowhere from the first call on.
void discardStandardOutput();

/// Empties `folder`, or makes it.
void empty(const std::filesystem::path& folder);

/// Writes a file whole.
void writeFile(const std::filesystem::path& path, const void* bytes, std::size_t length);

/// The bytes of a file.
std::string readFile(const std::filesystem::path& path);

/// Ends the process when what must hold does not: the input is then kept as a finding.
void require(bool holds, const char* what);

/// The bytes of `data`, empty for none.
std::string bytesOf(const std::shared_ptr<const KQ::NSData>& data);

/// An open stream on `bytes`.
std::shared_ptr<KQ::NSInputStream> openStream(const std::string& bytes);

/// What `record` writes; nothing when the write fails.
template <class Record>
std::optional<std::string> written(Record& record) {
  const auto stream = KQ::NSOutputStream::outputStreamToMemory();
  stream->open();
  std::shared_ptr<const KQ::NSError> error;
  if (!record.writeToStream(*stream, &error)) return std::nullopt;
  return bytesOf(stream->NSStreamDataWrittenToMemoryStreamKey());
}

}  // namespace KQFuzz
