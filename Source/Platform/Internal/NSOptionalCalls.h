#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "NSSystem.h"

// Calls beyond POSIX that only some systems have. The build looks for each. One that is not found, or every
// one in a build with KQZIP_PLAIN_POSIX, fails with ENOSYS. A failure is a negative value, with the reason in
// `errno` unless stated otherwise. Nothing else in the library depends on the target system.

namespace KQ {

/// Opens a path that neither leaves `folder` nor meets a symbolic link.
int NSOpenBeneath(int folder, const char* path, int flags, int permissions);

/// Copies bytes of `source` to the position of `target`.
ssize_t NSSend(int target, int source, std::uint64_t offset, std::size_t length);

/// Copies bytes from one file to another.
ssize_t NSCopy(int target, std::uint64_t targetOffset, int source, std::uint64_t sourceOffset,
               std::size_t length);

/// Reserves room at the start of the file without changing its length.
int NSReserve(int file, std::uint64_t length);

/// Announces that the file will be read from front to back. Returns 0 or the negative error number.
int NSAdviseSequential(int file);

/// Renames without replacing.
int NSRenameToNew(int folder, const char* path, int newFolder, const char* newPath);

/// How many processors the process may use; at least 1.
unsigned NSUsableProcessors();

/// The process's mask, on systems that show it in a file.
int NSMaskWithoutChangingIt(mode_t* mask);

/// The time of the last change of an item's contents, whose field has two names.
timespec NSModificationTime(const struct stat& status);

/// The type of a folder's entry, on systems that list it with the name.
NSItemType NSTypeOfEntry(const dirent& entry);

}  // namespace KQ
