#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "Support/TemporaryDirectory.h"

namespace KQTest {

/// Makes a file of `length` zero bytes that takes no room on the disk, and returns its path.
inline std::string sparseFile(const std::string& path, std::uint64_t length) {
  writeFile(path, "");
  std::filesystem::resize_file(path, length);
  return path;
}

}  // namespace KQTest
