#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "Support/ErrorExpectations.h"
#include "Support/GoldenArchive.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"

namespace KQTest {

/// A folder for source files and archives, in a fixed time zone. Its files have one fixed modification date,
/// so that their headers can be foretold; any user may read it.
class SourceTree {
 public:
  static constexpr long long date = 1600000000;  ///< 2020-09-13 12:26:40 in UTC.
  static constexpr std::uint16_t time16 = dosTime(12, 26, 40);
  static constexpr std::uint16_t date16 = dosDate(2020, 9, 13);

  SourceTree();

  /// The folder's absolute path.
  const std::filesystem::path& path() const { return folder_.path(); }

  /// The path of something in the folder.
  std::string operator/(const std::string& relativePath) const { return folder_ / relativePath; }

  /// Writes a file, with the folders above it and the fixed date, and returns its path.
  std::string file(const std::string& relativePath, const std::string& contents) const;

  /// What an archive is to hold for a file of this tree.
  static GoldenEntry entry(const std::string& name, const std::string& contents);

 private:
  TemporaryDirectory folder_;
  TimeZone zone_;
};

}  // namespace KQTest
