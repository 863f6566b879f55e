#pragma once

#include <string>

#include "../KQZipPermissions.h"
#include "../Platform/KQExport.h"
#include "../Platform/NSError.h"

/// @file
/// Archives that other programs open.
///
/// In the library's own form of an archive, the directory's size includes the end records, the classic counts
/// wrap at 65,536, no header marks its name as UTF-8, and there are no permissions. The library reads this
/// form. Many other programs report such an archive as damaged, show wrong names, or extract files that
/// nobody can read. To avoid that, make the archive interoperable after it is written:
///
///     if (!KQZipMakeArchiveInteroperable("backup.zip", &error)) std::cerr << error->localizedDescription();

/// Changes the archive at `zipPath` in place so that other programs can open it. No byte moves, and
/// KQZipFileReader gives the same answers. These fields change:
/// - the directory's size in both end records becomes that of the central headers alone;
/// - the classic end record's counts become 0xFFFF, and do not wrap, when there are more entries;
/// - bit 11 of the flags, "the name is UTF-8", is set in both headers of each entry whose name is valid UTF-8
///   and not ASCII;
/// - external attributes of 0, as the library writes them, become those of a regular file with the
///   permissions 0644, or, where the name ends in "/", of a folder with 0755.
///
/// First, all records are checked, except local headers with ASCII names. The archive must be exactly as
/// KQZipFileWriter writes it to a file, or as this operation leaves it, finished or interrupted. External
/// attributes with any file type count as set and are kept. An archive that is already interoperable is a
/// success; it is not written to and need not be writable.
///
/// If the operation is interrupted, the archive stays whole: KQZipFileReader reads it as before, and a second
/// call completes the change. The end records are written last, so that a program that relies on them finds
/// everything else done. Cost: a read of the central directory in large blocks, memory for the part of it
/// that changes, and one small read and write for each entry whose name is not ASCII.
///
/// Fails without a change, with the system's error (NSPOSIXErrorDomain), when the archive cannot be opened
/// for reading, cannot be read or, if there is something to change, cannot be opened for writing; with -1 "%@
/// cannot be made interoperable: %@" (the path and the reason) for anything but such an archive. Fails after
/// a part of the changes, with the system's error, when a write or closing the file fails. No other program
/// or thread may write to the archive during the call. Any thread may call it.
KQZIP_EXPORT bool KQZipMakeArchiveInteroperable(const std::string& zipPath, KQ::NSErrorSlot error = nullptr);

/// The same, with the permissions from `permissions` for the entries whose external attributes are not set
/// yet. To complete an interrupted call, pass the same permissions again.
KQZIP_EXPORT bool KQZipMakeArchiveInteroperable(const std::string& zipPath,
                                                const KQZipPermissions& permissions,
                                                KQ::NSErrorSlot error = nullptr);
