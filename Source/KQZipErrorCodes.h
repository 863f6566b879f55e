#pragma once

#include <cstdint>

/// @file
/// The codes of the errors that the library makes, all in the domain "KQZipErrorDomain". Errors of the system
/// are handed on as they are, in the domain "NSPOSIXErrorDomain" with `errno` as their code.

/// The codes of the domain "KQZipErrorDomain"; compare them with KQ::NSError::code().
enum KQZipErrorCode : std::int64_t {
  KQZipErrorRefusedPath = -1,               ///< A path at which no archive can be made, or changed.
  KQZipErrorReading = -50,                  ///< A source or an archive cannot be read, or not at a place.
  KQZipErrorWriting = -51,                  ///< A stream or a file does not take what is written.
  KQZipErrorCancelled = -90,                ///< The progress of the operation was cancelled.
  KQZipErrorUnknownSignature = -100,        ///< Bytes where a record must begin, and none does.
  KQZipErrorUnsupportedCompression = -101,  ///< An entry that is not stored as it is.

  // What jobs on a whole archive add; the reader and the writer make none of these.
  KQZipErrorNoArchive = -200,      ///< A file without any record of an archive.
  KQZipErrorEntryRefused = -201,   ///< An entry of a kind that cannot be given back.
  KQZipErrorEntryDamaged = -202,   ///< An entry whose header or data are not what the archive says.
  KQZipErrorProblemsFound = -203,  ///< A job that came to its end, and has problems in its report.
};
