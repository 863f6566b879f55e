#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

namespace KQ {

/// An open file or folder. Negative values are none, but for NSCurrentFolder.
using NSHandle = std::int64_t;

/// In place of a folder: relative paths start at the process's current folder.
inline constexpr NSHandle NSCurrentFolder = INT64_MIN;

/// How NSSystem::open() opens. Values are combined.
enum NSOpenMode : unsigned {
  NSOpenToRead = 1,        ///< For reading.
  NSOpenToWrite = 2,       ///< For writing; with NSOpenToRead for both.
  NSOpenCreating = 4,      ///< Makes a file that is not there.
  NSOpenNew = 8,           ///< With NSOpenCreating: fails with EEXIST when anything has the name, a link too.
  NSOpenEmptying = 16,     ///< Cuts a file that is there to no bytes.
  NSOpenFolder = 32,       ///< Fails with ENOTDIR for what is no folder.
  NSOpenNoLink = 64,       ///< Fails when the last component is a symbolic link.
  NSOpenNotWaiting = 128,  ///< Does not wait for the other end of a pipe.
};

/// What an item in the file system is.
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

/// What the system tells of an item.
struct NSItemStatus {
  NSItemType type = NSItemType::Unknown;  ///< What it is.
  std::uint64_t size = 0;                 ///< Bytes of a file.
  std::int64_t seconds = 0;               ///< When the contents last changed, since 1970.
  std::int32_t nanoseconds = 0;           ///< The rest, 0 to 999,999,999.
  std::uint16_t permissions = 0;          ///< The lowest twelve bits of the mode.
  std::uint64_t device = 0;               ///< With `number`, which item it is.
  std::uint64_t number = 0;               ///< Unique on the device.
  std::uint64_t blocks = 0;               ///< Units of 512 bytes that are stored.
};

/// A time to set, in seconds and nanoseconds since 1970.
struct NSItemTime {
  std::int64_t seconds = 0;      ///< Whole seconds.
  std::int32_t nanoseconds = 0;  ///< The rest, 0 to 999,999,999.
};

/// A piece of memory to write.
struct NSPiece {
  const void* bytes;     ///< The first byte.
  std::uint64_t length;  ///< How many.
};

/// An item of a folder that is being listed.
struct NSListedItem {
  std::string name;                       ///< Its name, as the file system has it.
  NSItemType type = NSItemType::Unknown;  ///< What it is; Unknown where the file system does not tell.
};

/// The items of an open folder, "." and ".." left out, in any order.
class NSFolderListing {
 public:
  virtual ~NSFolderListing() = default;
  /// Moves to the next item. 1, 0 at the end, or a failure.
  virtual int next(NSListedItem* item) = 0;
};

/// Everything that the library asks of the operating system, in one place: a port implements it, and a test
/// puts one of its own underneath that fails, stops or counts.
///
/// A call that fails returns the negative of its error number, one of `errno`'s. A call that a signal
/// interrupts is repeated by the implementation, so EINTR is never seen. Paths are UTF-8 with a final NUL;
/// they are relative to `folder`, which is an open one or NSCurrentFolder. A call is made exactly once: what
/// transfers less than asked says so. Any thread may call at any time.
///
/// Operations that not every system has answer -ENOSYS, "not here", and whoever calls them has the plain way
/// ready; what else they fail with is a failure.
class NSSystem {
 public:
  virtual ~NSSystem();

  /// The one that the library uses.
  static NSSystem& current();
  /// Puts another one in its place, null for the system's own. Returns the one before. It must live as long
  /// as it is used; nothing else may run meanwhile.
  static NSSystem* replace(NSSystem* system);

  /// @name Files
  /// @{

  /// Opens or makes a file or opens a folder; `permissions` are those of a file that is made, less the
  /// process's mask.
  virtual NSHandle open(NSHandle folder, const char* path, unsigned mode, std::uint16_t permissions);
  /// The same, but fails when the path leaves `folder` or meets a symbolic link anywhere. Optional.
  virtual NSHandle openBeneath(NSHandle folder, const char* path, unsigned mode, std::uint16_t permissions);
  /// Gives the handle back, whatever it returns. A failure means that what was written may be lost.
  virtual int close(NSHandle file);
  /// False when the file has no offsets, as a pipe has none.
  virtual bool isSeekable(NSHandle file);
  /// Reads at most `length` bytes at `offset`; 0 at the end.
  virtual std::int64_t readAt(NSHandle file, void* buffer, std::uint64_t length, std::uint64_t offset);
  /// Reads at most `length` bytes where the file stands; 0 at the end.
  virtual std::int64_t read(NSHandle file, void* buffer, std::uint64_t length);
  /// Writes at most `length` bytes at `offset`.
  virtual std::int64_t writeAt(NSHandle file, const void* buffer, std::uint64_t length, std::uint64_t offset);
  /// Writes at most what the pieces hold, at most 16 of them, where the file stands.
  virtual std::int64_t write(NSHandle file, const NSPiece* pieces, int count);
  /// Copies at most `length` bytes at `offset` of `source` to where `target` stands. Optional.
  virtual std::int64_t sendAt(NSHandle target, NSHandle source, std::uint64_t length, std::uint64_t offset);
  /// Copies at most `length` bytes from one file's offset to the other's. Optional.
  virtual std::int64_t copyAt(NSHandle target, std::uint64_t targetOffset, NSHandle source,
                              std::uint64_t sourceOffset, std::uint64_t length);
  /// Makes the file `length` bytes long.
  virtual int setLength(NSHandle file, std::uint64_t length);
  /// Reserves room for `length` bytes, so that writing them does not meet a full disk. The file's length does
  /// not change. Optional.
  virtual int reserve(NSHandle file, std::uint64_t length);
  /// Waits until what was written is on the disk; for a folder, its names.
  virtual int synchronise(NSHandle file);
  /// Tells that the file is read from front to back. Optional.
  virtual int willReadAll(NSHandle file);
  /// @}

  /// @name Items
  /// @{

  /// What an open file or folder is.
  virtual int status(NSHandle file, NSItemStatus* status);
  /// What the item at `path` is; a link itself unless `followingLink`.
  virtual int statusAt(NSHandle folder, const char* path, bool followingLink, NSItemStatus* status);
  /// Sets the modification time of an open file or folder.
  virtual int setTime(NSHandle file, NSItemTime time);
  /// Sets the modification time of the item at `path`; of a link itself unless `followingLink`.
  virtual int setTimeAt(NSHandle folder, const char* path, bool followingLink, NSItemTime time);
  /// Sets the permissions of an open file or folder, whatever the process's mask.
  virtual int setPermissions(NSHandle file, std::uint16_t permissions);
  /// Makes a folder; `permissions` less the process's mask.
  virtual int makeFolder(NSHandle folder, const char* path, std::uint16_t permissions);
  /// Makes a symbolic link at `path` that holds `target`.
  virtual int makeLink(const char* target, NSHandle folder, const char* path);
  /// Reads what the symbolic link at `path` holds.
  virtual int readLink(NSHandle folder, const char* path, std::string* target);
  /// Gives a file a second name, which must be new.
  virtual int addName(NSHandle folder, const char* path, NSHandle newFolder, const char* newPath);
  /// Renames an item, in place of what has the new name.
  virtual int rename(NSHandle folder, const char* path, NSHandle newFolder, const char* newPath);
  /// Renames an item; EEXIST when anything has the new name. Optional.
  virtual int renameToNew(NSHandle folder, const char* path, NSHandle newFolder, const char* newPath);
  /// Removes a file or link, or an empty folder if `isFolder`.
  virtual int remove(NSHandle folder, const char* path, bool isFolder);
  /// Begins to list an open folder, which the listing takes over and closes, here too when it fails.
  virtual int list(NSHandle folder, std::unique_ptr<NSFolderListing>* listing);
  /// @}

  /// @name The process and the machine
  /// @{

  /// Local time; false when it cannot be told.
  virtual bool localTime(std::time_t seconds, std::tm* parts);
  /// Seconds since 1970 of a local time whose parts may be out of their ranges.
  virtual std::time_t secondsOfLocalTime(std::tm* parts);
  /// Sends one line to the system's log.
  virtual void log(const std::string& line);
  /// How many processors the process may use; at least 1.
  virtual unsigned processors();
  /// The process's number.
  virtual std::int64_t process();
  /// @}
};

}  // namespace KQ
