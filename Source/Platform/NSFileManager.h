#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "KQExport.h"
#include "NSCalendar.h"
#include "NSError.h"

namespace KQ {

/// What an item in the file system is.
enum NSFileAttributeType {
  NSFileTypeRegular,           ///< A regular file.
  NSFileTypeDirectory,         ///< A folder.
  NSFileTypeSymbolicLink,      ///< A symbolic link itself, whatever it points to.
  NSFileTypeSocket,            ///< A socket.
  NSFileTypeCharacterSpecial,  ///< A character device.
  NSFileTypeBlockSpecial,      ///< A block device.
  NSFileTypeUnknown            ///< Anything else, a named pipe for instance.
};

/// The attributes that the library reads and sets. An absent attribute is unknown, or is not set.
struct NSFileAttributes {
  std::optional<std::uint64_t> NSFileSize;        ///< Size in bytes.
  std::optional<NSDate> NSFileModificationDate;   ///< When the contents last changed.
  std::optional<NSFileAttributeType> NSFileType;  ///< What the item is.

  /// The lowest twelve bits of the mode: the permissions (0777), and set-user-ID (04000), set-group-ID
  /// (02000) and sticky (01000).
  std::optional<std::uint16_t> NSFilePosixPermissions = std::nullopt;
};

/// Walks a folder deeply; see NSFileManager::enumeratorAtPath(). One thread at a time.
class KQZIP_EXPORT NSDirectoryEnumerator {
 public:
  /// Use NSFileManager::enumeratorAtPath() instead.
  explicit NSDirectoryEnumerator(std::string root);

  /// The path of the next item, relative to the root, or nothing at the end. The names in a folder are in
  /// byte order, and a folder comes before its contents. Names are those of the file system, even if they are
  /// not valid UTF-8.
  std::optional<std::string> nextObject();

  /// The error of the last folder that could not be read, the root included; empty while there is none. The
  /// walk leaves out that folder's contents and continues after it.
  std::shared_ptr<const NSError> error() const { return error_; }

 private:
  struct Item {
    std::string name;
    bool isFolder;
  };
  // The remaining items of one folder, last first.
  struct Folder {
    std::string relativePath;
    std::vector<Item> items;
  };

  KQZIP_HIDDEN void _enter(const std::string& relativePath);
  KQZIP_HIDDEN std::optional<std::vector<Item>> _itemsOfFolder(const std::string& relativePath);
  KQZIP_HIDDEN static int _readFolder(const std::string& path, bool followingLink, std::vector<Item>* items);

  std::string root_;
  std::vector<Folder> folders_;
  // The folder that nextObject() returned last, to be entered next.
  std::optional<std::string> pendingFolder_;
  std::shared_ptr<const NSError> error_;
};

/// The file system. Errors are of NSPOSIXErrorDomain with `errno` as their code and a message that names the
/// path and the reason. The empty path is the current directory. A path with a NUL byte (EINVAL) or with
/// bytes that are not valid UTF-8 (EILSEQ) is refused, never truncated. The class has no state: any thread
/// may call it.
class KQZIP_EXPORT NSFileManager {
 public:
  /// True when an item exists at `path`. Follows symbolic links. Sets `*isDirectory`, unless the pointer is
  /// null, to whether the item is a folder, or to false when there is none.
  static bool fileExistsAtPath(const std::string& path, bool* isDirectory = nullptr);

  /// Size, date, type and permissions of the item itself: a symbolic link is reported as a link. For a date
  /// that NSDate cannot hold, the nearest one that it can.
  static std::optional<NSFileAttributes> attributesOfItemAtPath(const std::string& path,
                                                                NSErrorSlot error = nullptr);

  /// Sets the modification date. Follows symbolic links. The other attributes are ignored. Without a date
  /// this only tests that the item exists.
  static bool setAttributes(const NSFileAttributes& attributes, const std::string& path,
                            NSErrorSlot error = nullptr);

  /// Creates a folder. With intermediate directories, creates missing parents too, and succeeds if the folder
  /// already exists. Without, an existing folder is an error.
  static bool createDirectoryAtPath(const std::string& path, bool withIntermediateDirectories,
                                    NSErrorSlot error = nullptr);

  /// A deep walk over everything below the folder at `path`. Follows a symbolic link as the root, and no
  /// other.
  static NSDirectoryEnumerator enumeratorAtPath(const std::string& path);
};

}  // namespace KQ
