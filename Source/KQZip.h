#pragma once

/// @file
/// Everything that KQZip offers: one include.
///
/// KQZipFileWriter packs files or a whole folder into an archive, KQZipFileReader lists an archive and gives
/// the files back. Entries are stored without compression. KQZipMakeArchiveInteroperable() lets other
/// programs read an archive too. Operations that can fail return false or nothing and take an error slot as
/// their last argument (KQ::NSErrorSlot), which is written only on failure; the one exception that may leave
/// the library is `std::bad_alloc`. Progress and cancellation go through KQ::NSProgress, log lines through
/// KQ::NSSetLogSink().

/// @namespace KQ
/// What the library needs of the system: streams, files, progress, errors, the log, dates and strings. None
/// of it knows of archives.

#include "Archive/KQZipArchive.h"
#include "Archive/KQZipArchiveEntry.h"
#include "Archive/KQZipInteroperability.h"
#include "Archive/KQZipReport.h"
#include "FileHeader/KQZipCentralDirectoryFileHeader.h"
#include "FileHeader/KQZipFileEntry.h"
#include "FileHeader/KQZipFileLocalHeader.h"
#include "KQZip64EndOfCentralDirectoryLocator.h"
#include "KQZip64EndOfCentralDirectoryRecord.h"
#include "KQZipCentralDirectory.h"
#include "KQZipEndOfCentralDirectoryRecord.h"
#include "KQZipErrorCodes.h"
#include "KQZipExtraField.h"
#include "KQZipExtraFieldZip64ExtendedInfo.h"
#include "KQZipFileReader.h"
#include "KQZipFileWriter.h"
#include "KQZipPermissions.h"
#include "KQZipStreamPrimitives.h"
#include "KQZip_vers.h"
#include "Platform/NSCalendar.h"
#include "Platform/NSData.h"
#include "Platform/NSError.h"
#include "Platform/NSFileHandle.h"
#include "Platform/NSFileManager.h"
#include "Platform/NSLog.h"
#include "Platform/NSProgress.h"
#include "Platform/NSStream.h"
#include "Platform/NSString.h"
