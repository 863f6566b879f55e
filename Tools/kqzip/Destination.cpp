#include "Destination.h"

#include <KQZip/KQZip.h>

#include <algorithm>
#include <cerrno>
#include <memory>
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

void createFolder(const fs::path& path) {
  std::error_code error;
  if (!fs::create_directory(path, error) && error) failWithSystemError(error.value(), path.string());
}

// The status of the item itself, links not followed.
fs::file_status statusOf(const fs::path& path) {
  std::error_code error;
  const fs::file_status status = fs::symlink_status(path, error);
  if (status.type() == fs::file_type::none) failWithSystemError(error.value(), path.string());
  return status;
}

void requireFolderBehind(const fs::path& path) {
  std::error_code ignored;
  if (!fs::is_directory(path, ignored)) failWithSystemError(ENOTDIR, path.string(), inTheWay);
}

void remove(const fs::path& path) {
  std::error_code error;
  fs::remove(path, error);
  if (error) failWithSystemError(error.value(), path.string());
}

}  // namespace

Destination::Destination(const std::string& directory, bool followLinks)
    : directory_(directory.empty() ? "." : directory), followLinks_(followLinks) {
  std::error_code error;
  const fs::file_status status = fs::status(directory_, error);
  if (fs::exists(status) && !fs::is_directory(status))
    failWithSystemError(ENOTDIR, directory, "choose another folder with -C");
  createFolders(directory_.string());
  realDirectory_ = fs::canonical(directory_, error);
  if (error) failWithSystemError(error.value(), directory);
}

std::string Destination::folder(const std::string& path) const {
  std::string full = KQ::stringByAppendingPathComponent(directory_.string(), path);
  if (followLinks_) {
    createFolders(full);
    return full;
  }
  fs::path way = directory_;
  for (const fs::path& component : fs::path(path)) {
    way /= component;
    requireFolder(way);
  }
  return full;
}

std::string Destination::placeForFile(const std::string& path) const {
  folder(KQ::stringByDeletingLastPathComponent(path));
  std::string full = KQ::stringByAppendingPathComponent(directory_.string(), path);
  const fs::file_status status = statusOf(full);
  if (status.type() == fs::file_type::not_found) return full;
  if (fs::is_directory(status)) failWithSystemError(EISDIR, full, inTheWay);
  if (fs::is_symlink(status)) {
    if (followLinks_) return full;
    requireInside(full);
  } else if (!fs::is_regular_file(status)) {
    throw Failure(withRemarks(inQuotes(full) + " is in the way and is not a regular file", {inTheWay}));
  }
  remove(full);
  return full;
}

// Looked at anew for each entry: what was a folder may have become a link meanwhile.
void Destination::requireFolder(const fs::path& path) const {
  const fs::file_status status = statusOf(path);
  if (status.type() == fs::file_type::not_found) return createFolder(path);
  if (fs::is_directory(status)) return;
  if (fs::is_symlink(status)) requireInside(path);
  requireFolderBehind(path);
}

void Destination::requireInside(const fs::path& link) const {
  std::error_code error;
  const fs::path real = fs::canonical(link, error);
  const auto difference =
      std::mismatch(realDirectory_.begin(), realDirectory_.end(), real.begin(), real.end());
  if (error || difference.first != realDirectory_.end()) {
    const std::string text =
        inQuotes(link.string()) + " is a symbolic link that leads out of " + inQuotes(directory_.string());
    throw Failure(withRemarks(text, {"remove it, or --unsafe-paths follows it"}));
  }
}

}  // namespace Tool
