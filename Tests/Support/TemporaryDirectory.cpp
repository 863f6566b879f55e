#include "Support/TemporaryDirectory.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace KQTest {

TemporaryDirectory::TemporaryDirectory() {
  std::string pattern = (fs::temp_directory_path() / "kqzip-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make a temporary folder");
  path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
  // A test may have taken away permissions that removing needs.
  std::error_code ignored;
  fs::permissions(path_, fs::perms::owner_all, ignored);
  for (auto item = fs::recursive_directory_iterator(path_, ignored);
       item != fs::recursive_directory_iterator(); item.increment(ignored)) {
    if (item->is_directory(ignored) && !item->is_symlink(ignored))
      fs::permissions(item->path(), fs::perms::owner_all, ignored);
  }
  fs::remove_all(path_, ignored);
}

void writeFile(const fs::path& path, const std::string& contents) {
  if (path.has_parent_path()) fs::create_directories(path.parent_path());
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(contents.data(), static_cast<std::streamsize>(contents.size()));
  file.close();
  if (!file) throw std::runtime_error("cannot write " + path.string());
}

std::string readFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file.is_open()) << "cannot read " << path;
  std::ostringstream contents;
  contents << file.rdbuf();
  return contents.str();
}

void setModificationDate(const fs::path& path, long long seconds, long nanoseconds) {
  timespec times[2] = {};
  times[0].tv_nsec = UTIME_OMIT;
  times[1].tv_sec = static_cast<time_t>(seconds);
  times[1].tv_nsec = nanoseconds;
  ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW)) << path;
}

std::string patternBytes(std::size_t length, unsigned seed) {
  std::mt19937 generator(seed);
  std::string bytes(length, '\0');
  for (char& byte : bytes) byte = static_cast<char>(generator() & 0xFF);
  return bytes;
}

}  // namespace KQTest
