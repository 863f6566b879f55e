#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace KQTest {

/// What stands at the end of an archive of the library's own form, read by hand.
struct ArchiveTail {
  explicit ArchiveTail(const std::string& archive);

  std::uint64_t entries;
  std::size_t startOfDirectory;
  std::size_t startOfEndRecords;
};

/// A number in an archive, low byte first.
std::uint64_t numberAt(const std::string& bytes, std::size_t position, std::size_t width);

/// Puts a number in its place.
void setNumberAt(std::string& bytes, std::size_t position, std::size_t width, std::uint64_t value);

/// The archive that other programs open, made by hand from one of the library's own form: without the
/// library's code, and by other means. `permissions` are those of entries that do not have 0644, or 0755 for
/// a folder. Attributes that are not 0 stay.
std::string interoperableArchive(std::string archive,
                                 const std::map<std::string, unsigned>& permissions = {});

}  // namespace KQTest
