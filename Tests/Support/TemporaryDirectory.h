#pragma once

#include <filesystem>
#include <string>

namespace KQTest {

/// A folder of a test's own, removed with everything in it.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  /// The folder's absolute path.
  const std::filesystem::path& path() const { return path_; }

  /// The path of something in the folder.
  std::string operator/(const std::string& relativePath) const { return (path_ / relativePath).string(); }

 private:
  std::filesystem::path path_;
};

/// Writes a file, creating the folders above it.
void writeFile(const std::filesystem::path& path, const std::string& contents);

/// The bytes of a file; fails the test when it cannot be read.
std::string readFile(const std::filesystem::path& path);

/// Sets a file's modification date, in seconds and nanoseconds since 1970.
void setModificationDate(const std::filesystem::path& path, long long seconds, long nanoseconds = 0);

/// `length` bytes that look random and depend on `seed` alone.
std::string patternBytes(std::size_t length, unsigned seed = 1);

}  // namespace KQTest
