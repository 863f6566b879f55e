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

/// The attributes that the library reads and sets. An attribute that is absent is not known, or not to be
/// set.
struct NSFileAttributes {
  std::optional<std::uint64_t> NSFileSize;        ///< Size in bytes.
  std::optional<NSDate> NSFileModificationDate;   ///< When the contents last changed.
  std::optional<NSFileAttributeType> NSFileType;  ///< What the item is.

  /// The lowest twelve bits of the mode: who may do what, and the marks above that (04000, 02000, 01000).
  std::optional<std::uint16_t> NSFilePosixPermissions = std::nullopt;
};

/// Walks a folder deeply; see NSFileManager::enumeratorAtPath(). One thread at a time.
class KQZIP_EXPORT NSDirectoryEnumerator {
 public:
  /// Use NSFileManager::enumeratorAtPath() instead.
  explicit NSDirectoryEnumerator(std::string root);

  /// The path of the next item, relative to the root, or nothing when there is none left. The names in a
  /// folder come in the order of their bytes and a folder before its contents. Names are yielded as they
  /// are stored, even if they are not valid UTF-8.
  std::optional<std::string> nextObject();

  /// The error of the last folder that could not be read, the root included; empty while all could. Its
  /// contents are missing from the walk, which goes on behind it.
  std::shared_ptr<const NSError> error() const { return error_; }

 private:
  struct Item {
    std::string name;
    bool isFolder;
  };
  // The items of one folder that are still to be yielded, last first.
  struct Folder {
    std::string relativePath;
    std::vector<Item> items;
  };

  KQZIP_HIDDEN void _enter(const std::string& relativePath);
  KQZIP_HIDDEN std::optional<std::vector<Item>> _itemsOfFolder(const std::string& relativePath);
  KQZIP_HIDDEN static int _readFolder(const std::string& path, bool followingLink, std::vector<Item>* items);

  std::string root_;
  std::vector<Folder> folders_;
  // The folder that was yielded last, to be entered next.
  std::optional<std::string> pendingFolder_;
  std::shared_ptr<const NSError> error_;
};

/// The file system. Errors are of NSPOSIXErrorDomain with `errno` as their code and a message that names the
/// path and the reason. The empty path is the current directory. A path with a NUL byte (EINVAL) or with
/// bytes that are not valid UTF-8 (EILSEQ) is refused, never cut short. It keeps no state: any thread may
/// call it.
class KQZIP_EXPORT NSFileManager {
 public:
  /// True when something exists at `path`, links followed. `isDirectory`, unless null, is set to whether it
  /// is a folder, and to false when nothing is there.
  static bool fileExistsAtPath(const std::string& path, bool* isDirectory = nullptr);

  /// Size, date, type and permissions of the item itself: a symbolic link is reported as a link. A date that
  /// NSDate cannot hold is moved to the nearest one that it can.
  static std::optional<NSFileAttributes> attributesOfItemAtPath(const std::string& path,
                                                                NSErrorSlot error = nullptr);

  /// Applies the modification date, links followed. The others describe the file and are taken as given.
  /// Without a date it only tests that the item exists.
  static bool setAttributes(const NSFileAttributes& attributes, const std::string& path,
                            NSErrorSlot error = nullptr);

  /// Creates a folder. With intermediate directories, missing parents are created too and a folder that
  /// already exists is a success; otherwise that is an error.
  static bool createDirectoryAtPath(const std::string& path, bool withIntermediateDirectories,
                                    NSErrorSlot error = nullptr);

  /// A deep walk over everything below the folder at `path`, which does not follow links (one given as the
  /// root is followed).
  static NSDirectoryEnumerator enumeratorAtPath(const std::string& path);
};

}  // namespace KQ
