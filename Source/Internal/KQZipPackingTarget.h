#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "../Platform/Internal/NSSystem.h"
#include "../Platform/NSError.h"
#include "../Platform/NSStream.h"

// Where a packed archive goes. For the library's own use.

/// A place to write an archive to.
class KQZipPackingTarget {
 public:
  KQZipPackingTarget() = default;
  virtual ~KQZipPackingTarget() = default;
  KQZipPackingTarget(const KQZipPackingTarget&) = delete;
  KQZipPackingTarget& operator=(const KQZipPackingTarget&) = delete;

  /// True when bytes are only taken in their order, and from the calling thread.
  virtual bool isInOrder() const = 0;

  /// The offset of the archive's first byte.
  virtual std::uint64_t start() const { return 0; }

  /// Writes all bytes at the offset, which follows the last write where the order counts. 0, or the number of
  /// an error.
  virtual int write(const std::uint8_t* bytes, std::uint64_t length, std::uint64_t offset) = 0;

  /// The error for a number that write() returned.
  virtual std::shared_ptr<const KQ::NSError> errorFor(int code) const = 0;

  /// Whether the item is the archive, or the one that it replaces.
  virtual bool isItself(const KQ::NSItemStatus& /*item*/) const { return false; }
};

/// A stream of the host's.
class KQZipStreamTarget final : public KQZipPackingTarget {
 public:
  explicit KQZipStreamTarget(KQ::NSOutputStream& stream);

  bool isInOrder() const override { return true; }
  std::uint64_t start() const override { return start_; }
  int write(const std::uint8_t* bytes, std::uint64_t length, std::uint64_t offset) override;
  std::shared_ptr<const KQ::NSError> errorFor(int code) const override;

  /// Passes on what the stream has buffered.
  bool flush(KQ::NSErrorSlot error);

 private:
  KQ::NSOutputStream& stream_;
  std::uint64_t start_;
};

/// A new archive in the file system, which has another name until it is complete, and is removed with this
/// object unless it came so far.
class KQZipNewArchive final : public KQZipPackingTarget {
 public:
  /// An archive that is to be at `path`. Nothing is looked at yet.
  KQZipNewArchive(std::string path, bool replacing);
  ~KQZipNewArchive() override;

  /// Looks whether an archive can be made there. Fails with -1 where none can, and with the system's error.
  bool prepare(KQ::NSErrorSlot error);

  /// Makes the file under its temporary name. Fails with the system's error.
  bool create(KQ::NSErrorSlot error);

  /// The archive's path.
  const std::string& path() const { return path_; }

  bool isInOrder() const override { return false; }
  int write(const std::uint8_t* bytes, std::uint64_t length, std::uint64_t offset) override;
  std::shared_ptr<const KQ::NSError> errorFor(int code) const override;
  bool isItself(const KQ::NSItemStatus& item) const override;

  /// Reads all bytes at the offset. 0, or the number of an error, EIO where the file ends before.
  int read(std::uint8_t* bytes, std::uint64_t length, std::uint64_t offset) const;

  /// Cuts off what was written after the archive's end.
  bool setLength(std::uint64_t length, KQ::NSErrorSlot error);

  /// Gives the archive its name, if asked for once it is on the disk, and then waits for the name too. Fails
  /// with -1 when something has got the name meanwhile, and with the system's error.
  bool appear(bool synchronising, KQ::NSErrorSlot error);

 private:
  struct Identity {
    std::uint64_t device = 0;
    std::uint64_t number = 0;
    bool isKnown = false;
  };

  bool _openFolder(KQ::NSErrorSlot error);
  bool _lookAtExisting(KQ::NSErrorSlot error);
  int _rename();
  int _renameToNew();
  bool _refuse(const char* format, KQ::NSErrorSlot error) const;
  bool _fail(int code, KQ::NSErrorSlot error) const;

  const std::string path_;
  const bool replacing_;
  // The archive's folder, and its names from there.
  KQ::NSHandle folder_ = KQ::NSCurrentFolder;
  std::string name_;
  std::string temporaryName_;
  KQ::NSHandle file_ = -1;
  Identity own_;
  Identity replaced_;
  Identity replacedTarget_;
  bool givesPermissions_ = false;
  std::uint16_t permissions_ = 0;
};
