#pragma once

#include <cstdint>

/// @file
/// The codes of the library's own errors, all in the domain "KQZipErrorDomain". Errors of the system are
/// passed on unchanged, in the domain "NSPOSIXErrorDomain" with `errno` as their code.

/// The codes of the domain "KQZipErrorDomain". Compare them with KQ::NSError::code().
enum KQZipErrorCode : std::int64_t {
  KQZipErrorRefusedPath = -1,               ///< An archive cannot be created, or changed, at the path.
  KQZipErrorReading = -50,                  ///< A source or an archive cannot be read, or not at an offset.
  KQZipErrorWriting = -51,                  ///< A stream or a file cannot be written.
  KQZipErrorCancelled = -90,                ///< The progress of the operation was cancelled.
  KQZipErrorUnknownSignature = -100,        ///< No known signature where a record must start.
  KQZipErrorUnsupportedCompression = -101,  ///< An entry is compressed.

  // Codes of the jobs on a whole archive. The reader and the writer do not use them.
  KQZipErrorNoArchive = -200,      ///< A file has no record of an archive.
  KQZipErrorEntryRefused = -201,   ///< An entry is of a kind that cannot be extracted.
  KQZipErrorEntryDamaged = -202,   ///< An entry's header or data do not match the archive.
  KQZipErrorProblemsFound = -203,  ///< A job was completed and reports problems.
  KQZipErrorSourceRefused = -204,  ///< A source cannot be packed under its name.
  KQZipErrorUnsafeName = -205,     ///< A name would lead out of the folder that an archive is unpacked into.
  KQZipErrorNoSuchEntry = -206,    ///< A path matches no entry.
  KQZipErrorInTheWay = -207,       ///< An item that is not replaced has the path of an entry.
};
