#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "NSSystem.h"

// What only some systems have beyond POSIX. The build looks for each; where it is not found, or the build
// asks for the plain way, the call fails with ENOSYS. All return a negative value for a failure, with the
// reason in `errno`. Nothing else in the library depends on which system it is built for.

namespace KQ {

/// Opens a path that neither leaves `folder` nor meets a symbolic link.
int NSOpenBeneath(int folder, const char* path, int flags, int permissions);

/// Copies bytes of `source` to where `target` stands.
ssize_t NSSend(int target, int source, std::uint64_t offset, std::size_t length);

/// Copies bytes from one file to another.
ssize_t NSCopy(int target, std::uint64_t targetOffset, int source, std::uint64_t sourceOffset,
               std::size_t length);

/// Reserves room at the start of the file without changing its length.
int NSReserve(int file, std::uint64_t length);

/// Tells that the file is read from front to back. 0 or the negative of an error number.
int NSAdviseSequential(int file);

/// Renames without replacing.
int NSRenameToNew(int folder, const char* path, int newFolder, const char* newPath);

/// How many processors the process may use; at least 1.
unsigned NSUsableProcessors();

/// When the contents of an item last changed: the field has two names.
timespec NSModificationTime(const struct stat& status);

/// What a folder's entry is, where the system tells along with the name.
NSItemType NSTypeOfEntry(const dirent& entry);

}  // namespace KQ
