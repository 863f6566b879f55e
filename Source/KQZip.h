#pragma once

/// @file
/// All public headers of KQZip.
///
/// KQZipFileWriter packs files or a whole folder into an archive. KQZipFileReader lists an archive, reads its
/// entries and extracts them. Entries are stored without compression. KQZipMakeArchiveInteroperable() makes
/// an archive readable for other programs. An operation that can fail returns false or nothing, and takes an
/// error slot as its last argument (KQ::NSErrorSlot), which it writes only on failure. The only exception
/// that leaves the library is `std::bad_alloc`. For progress and cancellation see KQ::NSProgress, for log
/// lines KQ::NSSetLogSink().

/// @namespace KQ
/// The system services that the library uses: streams, files, progress, errors, the log, dates and strings.
/// Nothing here knows of archives.

#include "Archive/KQZipArchive.h"
#include "Archive/KQZipArchiveEntry.h"
#include "Archive/KQZipInteroperability.h"
#include "Archive/KQZipPackingList.h"
#include "Archive/KQZipPackingOptions.h"
#include "Archive/KQZipReport.h"
#include "Archive/KQZipUnpackOptions.h"
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
#include "Platform/NSFormat.h"
#include "Platform/NSLog.h"
#include "Platform/NSProgress.h"
#include "Platform/NSStream.h"
#include "Platform/NSString.h"
