#include "ArchivePath.h"

#include <KQZip/KQZip.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "Advice.h"
#include "Message.h"
#include "System.h"

namespace fs = std::filesystem;

namespace Tool {

void requireArchiveName(const std::string& path) {
  if (path.empty())
    throw Failure(withRemarks("the archive's name is empty", {"give the path of an archive"}));
}

void requireArchiveFile(const std::string& path) {
  requireArchiveName(path);
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (error) failWithSystemError(error.value(), path);
  if (!KQ::isValidUTF8(path)) failWithSystemError(EILSEQ, path);
  if (fs::is_directory(status)) failWithSystemError(EISDIR, path, "kqzip create packs a folder");
  if (!fs::is_regular_file(status))
    throw Failure(withRemarks(inQuotes(path) + " is not a regular file", {"copy it to one"}));
  if (const int code = System::codeForReading(path); code != 0) failWithSystemError(code, path);
}

}  // namespace Tool
