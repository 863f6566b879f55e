#pragma once

#include <string>

#include "../KQZipPermissions.h"
#include "../Platform/KQExport.h"
#include "../Platform/NSError.h"

/// @file
/// Archives that other programs open.
///
/// By the rules of the library's own form an archive's end records count themselves in the directory's size,
/// the classic counts wrap at 65,536, no header says that its name is UTF-8 and there are no permissions. The
/// library reads that form and needs nothing else, but many programs call such an archive damaged, show other
/// names or extract files that nobody may read. Make it interoperable once it is written:
///
///     if (!KQZipMakeArchiveInteroperable("backup.zip", &error)) std::cerr << error->localizedDescription();

/// Changes the archive at `zipPath` in place so that other programs can open it. No byte moves, and what
/// KQZipFileReader answers stays the same. What changes:
/// - both end records give the size of the central headers alone as the directory's size;
/// - the classic end record's counts are 0xFFFF where there are more entries than that, and do not wrap;
/// - bit 11 of the flags, "the name is UTF-8", is set in both headers of each entry whose name is valid UTF-8
///   and not ASCII;
/// - external attributes that are 0, as the library writes them, become those of a regular file with the
///   permissions 0644, or, where the name ends in "/", of a folder with 0755.
///
/// The whole archive's records are checked first, but for local headers whose names are ASCII: it must be
/// exactly as KQZipFileWriter writes it to a file, or as this operation leaves it, finished or interrupted.
/// Attributes that have a type of file, whichever, are taken for set and stay.
/// An archive that is interoperable already is a success; it is not written to and need not be writable.
///
/// Whatever stops the operation on the way, the archive stays whole: KQZipFileReader reads it as before, and
/// a second call finishes it. The end records are written last, so that whoever goes by them finds
/// everything else in place. Costs a read of the central directory in large blocks, memory for as much of it
/// as changes, and one small read and write for each entry whose name is not ASCII.
///
/// Fails, with nothing changed, with the system's error (NSPOSIXErrorDomain) when the archive cannot be
/// opened for reading or, if there is something to change, for writing, or cannot be read; with -1
/// "%@ cannot be made interoperable: %@", the archive's path and what is wrong, for anything that is not such
/// an archive. Fails with the system's error, with a first part changed, when a write or the closing of the
/// file fails. Nobody else may write to the archive meanwhile. Any thread may call it.
KQZIP_EXPORT bool KQZipMakeArchiveInteroperable(const std::string& zipPath, KQ::NSErrorSlot error = nullptr);

/// The same, with the permissions that `permissions` gives for the entries whose external attributes are not
/// set yet. A call that finishes what an interrupted one began should be given the same permissions.
KQZIP_EXPORT bool KQZipMakeArchiveInteroperable(const std::string& zipPath,
                                                const KQZipPermissions& permissions,
                                                KQ::NSErrorSlot error = nullptr);
