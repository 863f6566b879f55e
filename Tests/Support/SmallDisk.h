#pragma once

#include <cstdint>
#include <string>

namespace KQTest {

/// Mounts a fresh, empty file system with room for `bytes` over `folder`, in place of one mounted there
/// before. Only the calling process and its children see it, and it goes with them: to be called inside
/// inChildProcess(). Returns why it could not be done, nothing when it was.
std::string mountSmallDisk(const std::string& folder, std::uint64_t bytes);

/// Why a small disk cannot be mounted here, nothing when it can. Tells without mounting anything in the
/// calling process.
std::string reasonAgainstSmallDisks();

}  // namespace KQTest
