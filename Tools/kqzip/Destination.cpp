#include "Destination.h"

#include <KQZip/KQZip.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <memory>
#include <optional>
#include <system_error>

#include "Advice.h"
#include "Message.h"

namespace fs = std::filesystem;

namespace Tool {

namespace {

void createFolders(const std::string& path) {
  std::shared_ptr<const KQ::NSError> error;
  if (!KQ::NSFileManager::createDirectoryAtPath(path, true, &error))
    failWithError(error, inQuotes(path) + " cannot be created");
}

void createFolder(const std::string& path) {
  std::error_code error;
  if (!fs::create_directory(path, error) && error) failWithSystemError(error.value(), path);
}

// The type of the item itself, links not followed, as in a mode; nothing where there is none.
std::optional<mode_t> typeOf(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) == 0) return status.st_mode & S_IFMT;
  if (errno != ENOENT && errno != ENOTDIR) failWithSystemError(errno, path);
  return std::nullopt;
}

void requireFolderBehind(const std::string& path) {
  std::error_code ignored;
  if (!fs::is_directory(path, ignored)) failWithSystemError(ENOTDIR, path, inTheWay);
}

void remove(const std::string& path) {
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) failWithSystemError(errno, path);
}

}  // namespace

Destination::Destination(const std::string& directory, bool followLinks)
    : directory_(directory.empty() ? "." : directory), followLinks_(followLinks) {
  std::error_code error;
  const fs::file_status status = fs::status(directory_, error);
  if (fs::exists(status) && !fs::is_directory(status))
    failWithSystemError(ENOTDIR, directory, "choose another folder with -C");
  createFolders(directory_);
  realDirectory_ = fs::canonical(directory_, error);
  if (error) failWithSystemError(error.value(), directory);
}

std::string Destination::folder(const std::string& path) const {
  std::string full = KQ::stringByAppendingPathComponent(directory_, path);
  if (followLinks_) {
    createFolders(full);
    return full;
  }
  // Each folder on the way, the outermost first.
  for (std::size_t end = directory_.size(); end < full.size();) {
    end = std::min(full.find('/', end + 1), full.size());
    if (full[end - 1] != '/') requireFolder(full.substr(0, end));
  }
  return full;
}

std::string Destination::placeForFile(const std::string& path) const {
  folder(KQ::stringByDeletingLastPathComponent(path));
  std::string full = KQ::stringByAppendingPathComponent(directory_, path);
  const std::optional<mode_t> type = typeOf(full);
  if (!type) return full;
  if (type == S_IFDIR) failWithSystemError(EISDIR, full, inTheWay);
  if (type == S_IFLNK) {
    if (followLinks_) return full;
    requireInside(full);
  } else if (type != S_IFREG) {
    throw Failure(withRemarks(inQuotes(full) + " is in the way and is not a regular file", {inTheWay}));
  }
  remove(full);
  return full;
}

// Looked at anew for each entry: what was a folder may have become a link meanwhile.
void Destination::requireFolder(const std::string& path) const {
  const std::optional<mode_t> type = typeOf(path);
  if (!type) return createFolder(path);
  if (type == S_IFDIR) return;
  if (type == S_IFLNK) requireInside(path);
  requireFolderBehind(path);
}

void Destination::requireInside(const std::string& link) const {
  std::error_code error;
  const fs::path real = fs::canonical(link, error);
  const auto difference =
      std::mismatch(realDirectory_.begin(), realDirectory_.end(), real.begin(), real.end());
  if (error || difference.first != realDirectory_.end()) {
    const std::string text = inQuotes(link) + " is a symbolic link that leads out of " + inQuotes(directory_);
    throw Failure(withRemarks(text, {"remove it, or --unsafe-paths follows it"}));
  }
}

}  // namespace Tool
