#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

namespace KQ {

/// An open file or folder. A negative value is none, except NSCurrentFolder.
using NSHandle = std::int64_t;

/// Stands for the process's current folder, as the start of relative paths.
inline constexpr NSHandle NSCurrentFolder = INT64_MIN;

/// How NSSystem::open() opens; a combination of these values.
enum NSOpenMode : unsigned {
  NSOpenToRead = 1,        ///< For reading.
  NSOpenToWrite = 2,       ///< For writing; with NSOpenToRead for both.
  NSOpenCreating = 4,      ///< Creates a missing file.
  NSOpenNew = 8,           ///< With NSOpenCreating: EEXIST when any item has the name, a link included.
  NSOpenEmptying = 16,     ///< Empties an existing file.
  NSOpenFolder = 32,       ///< Fails with ENOTDIR for anything but a folder.
  NSOpenNoLink = 64,       ///< Fails when the last component is a symbolic link.
  NSOpenNotWaiting = 128,  ///< Does not wait for the other end of a pipe.
};

/// The type of an item in the file system.
enum class NSItemType : std::uint8_t {
  Unknown,
  File,
  Folder,
  Link,
  Socket,
  CharacterDevice,
  BlockDevice,
  Pipe
};

/// The attributes of an item.
struct NSItemStatus {
  NSItemType type = NSItemType::Unknown;  ///< Its type.
  std::uint64_t size = 0;                 ///< Size of a file in bytes.
  std::int64_t seconds = 0;               ///< Last change of the contents, in seconds since 1970.
  std::int32_t nanoseconds = 0;           ///< The rest, 0 to 999,999,999.
  std::uint16_t permissions = 0;          ///< The lowest twelve bits of the mode.
  std::uint64_t device = 0;               ///< Identifies the item together with `number`.
  std::uint64_t number = 0;               ///< Unique on the device.
  std::uint64_t blocks = 0;               ///< Allocated units of 512 bytes.
};

/// A time to set, in seconds and nanoseconds since 1970.
struct NSItemTime {
  std::int64_t seconds = 0;      ///< Whole seconds.
  std::int32_t nanoseconds = 0;  ///< The rest, 0 to 999,999,999.
};

/// A piece of memory to write.
struct NSPiece {
  const void* bytes;     ///< The first byte.
  std::uint64_t length;  ///< The number of bytes.
};

/// An item of a folder that is being listed.
struct NSListedItem {
  std::string name;                       ///< Its name, in the file system's bytes.
  NSItemType type = NSItemType::Unknown;  ///< Its type; Unknown if the file system does not list it.
};

/// The items of an open folder without "." and "..", in any order.
class NSFolderListing {
 public:
  virtual ~NSFolderListing() = default;
  /// Moves to the next item. Returns 1, 0 at the end, or a failure.
  virtual int next(NSListedItem* item) = 0;
};

/// Everything that the library needs of the operating system, in one place. A port implements it. A test
/// replaces it with a system of its own that fails, stops or counts.
///
/// A call that fails returns the negative of an `errno` value. The implementation repeats a call that a
/// signal interrupts, so EINTR is never returned. Paths are UTF-8 with a final NUL, and relative to `folder`:
/// an open folder or NSCurrentFolder. A transfer may be partial; its result is the number of bytes, and the
/// implementation does not continue it. Any thread may call at any time.
///
/// A call marked "Optional" returns -ENOSYS where the system does not have it; its callers then do the same
/// with other calls. Any other error is a failure.
class NSSystem {
 public:
  virtual ~NSSystem();

  /// The system that the library uses.
  static NSSystem& current();
  /// Makes the library use `system`, or the operating system for null. Returns the previous one. `system`
  /// must outlive its use. No other thread may use the library during the call.
  static NSSystem* replace(NSSystem* system);

  /// @name Files
  /// @{

  /// Opens or creates a file, or opens a folder. A new file has `permissions`, less the process's mask.
  virtual NSHandle open(NSHandle folder, const char* path, unsigned mode, std::uint16_t permissions);
  /// open(), but fails when the path leaves `folder` or any component is a symbolic link. Optional.
  virtual NSHandle openBeneath(NSHandle folder, const char* path, unsigned mode, std::uint16_t permissions);
  /// Closes the handle, even if it fails. A failure means that written data may be lost.
  virtual int close(NSHandle file);
  /// False for a file without offsets, such as a pipe.
  virtual bool isSeekable(NSHandle file);
  /// Reads at most `length` bytes at `offset`; 0 at the end.
  virtual std::int64_t readAt(NSHandle file, void* buffer, std::uint64_t length, std::uint64_t offset);
  /// Reads at most `length` bytes at the file's position; 0 at the end.
  virtual std::int64_t read(NSHandle file, void* buffer, std::uint64_t length);
  /// Writes at most `length` bytes at `offset`.
  virtual std::int64_t writeAt(NSHandle file, const void* buffer, std::uint64_t length, std::uint64_t offset);
  /// Writes at most the bytes of `count` pieces, 16 at most, at the file's position.
  virtual std::int64_t write(NSHandle file, const NSPiece* pieces, int count);
  /// Copies at most `length` bytes from `offset` of `source` to the position of `target`. Optional.
  virtual std::int64_t sendAt(NSHandle target, NSHandle source, std::uint64_t length, std::uint64_t offset);
  /// Copies at most `length` bytes from an offset of one file to an offset of another. Optional.
  virtual std::int64_t copyAt(NSHandle target, std::uint64_t targetOffset, NSHandle source,
                              std::uint64_t sourceOffset, std::uint64_t length);
  /// Makes the file `length` bytes long.
  virtual int setLength(NSHandle file, std::uint64_t length);
  /// Reserves room for `length` bytes, so that writing them does not find the disk full. The file's length
  /// does not change. Optional.
  virtual int reserve(NSHandle file, std::uint64_t length);
  /// Waits until written data, or a folder's names, are on the disk.
  virtual int synchronise(NSHandle file);
  /// Announces that the file will be read from front to back. Optional.
  virtual int willReadAll(NSHandle file);
  /// @}

  /// @name Items
  /// @{

  /// The attributes of an open file or folder.
  virtual int status(NSHandle file, NSItemStatus* status);
  /// The attributes of the item at `path`; of a link itself unless `followingLink`.
  virtual int statusAt(NSHandle folder, const char* path, bool followingLink, NSItemStatus* status);
  /// Sets the modification time of an open file or folder.
  virtual int setTime(NSHandle file, NSItemTime time);
  /// Sets the modification time of the item at `path`; of a link itself unless `followingLink`.
  virtual int setTimeAt(NSHandle folder, const char* path, bool followingLink, NSItemTime time);
  /// Sets the permissions of an open file or folder, whatever the process's mask.
  virtual int setPermissions(NSHandle file, std::uint16_t permissions);
  /// Creates a folder with `permissions`, less the process's mask.
  virtual int makeFolder(NSHandle folder, const char* path, std::uint16_t permissions);
  /// Creates a symbolic link to `target` at `path`.
  virtual int makeLink(const char* target, NSHandle folder, const char* path);
  /// Reads the target of the symbolic link at `path`.
  virtual int readLink(NSHandle folder, const char* path, std::string* target);
  /// Gives a file a second name, at which nothing may exist.
  virtual int addName(NSHandle folder, const char* path, NSHandle newFolder, const char* newPath);
  /// Renames an item and replaces an item of the new name.
  virtual int rename(NSHandle folder, const char* path, NSHandle newFolder, const char* newPath);
  /// Renames an item; EEXIST when any item has the new name. Optional.
  virtual int renameToNew(NSHandle folder, const char* path, NSHandle newFolder, const char* newPath);
  /// Removes a file or link, or an empty folder if `isFolder`.
  virtual int remove(NSHandle folder, const char* path, bool isFolder);
  /// Begins to list an open folder. The listing takes over the folder and closes it; so does a failure.
  virtual int list(NSHandle folder, std::unique_ptr<NSFolderListing>* listing);
  /// @}

  /// @name The process and the machine
  /// @{

  /// Converts to local time; false when that is impossible.
  virtual bool localTime(std::time_t seconds, std::tm* parts);
  /// Seconds since 1970 of a local time, whose parts may be out of range.
  virtual std::time_t secondsOfLocalTime(std::tm* parts);
  /// Sends one line to the system's log.
  virtual void log(const std::string& line);
  /// How many processors the process may use; at least 1.
  virtual unsigned processors();
  /// The process's identifier.
  virtual std::int64_t process();
  /// The permissions that the process keeps from what it makes.
  virtual std::uint16_t mask();
  /// @}
};

}  // namespace KQ
