#pragma once

#include <filesystem>
#include <string>

namespace Tool {

/// The folder that entries are extracted to. It makes the folders above an entry and the way free for the
/// entry itself, and does not let a symbolic link lead out of it. All paths are relative to it.
class Destination {
 public:
  /// Creates the folder if it is missing, and those above it. With `followLinks`, links are taken as they
  /// are. Throws a Failure when there can be no such folder.
  Destination(const std::string& directory, bool followLinks);

  /// Makes the folder and those above it. Returns its full path; throws a Failure when that cannot be.
  std::string folder(const std::string& path) const;

  /// Makes the folders above the file and removes what stands in its place, so that nothing is ever written
  /// through a link, nor into a file that has other names. Returns its full path; throws a Failure when that
  /// cannot be.
  std::string placeForFile(const std::string& path) const;

 private:
  void requireFolder(const std::string& path) const;
  void requireInside(const std::string& link) const;

  std::string directory_;
  std::filesystem::path realDirectory_;
  bool followLinks_;
};

}  // namespace Tool
