#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "../Archive/KQZipUnpackOptions.h"
#include "../KQZipErrorCodes.h"
#include "../Platform/Internal/NSSystem.h"
#include "../Platform/NSError.h"
#include "KQZipDestinationFolder.h"

// A file or link that takes its place below the folder that an archive is unpacked into. For the library's
// own use.

/// What holds for all files of one unpacking. It does not change while they are written.
struct KQZipPlacing {
  KQZipDestinationFolder& destination;
  KQZipExisting existing = KQZipExisting::Replace;
  /// The archive that is read; nothing where it is no file.
  std::optional<KQZipItemIdentity> archive{};
};

/// A file that is written. Where nothing has its name, it is made under that; where something has, beside it,
/// and takes its place when it is whole. A file that is not finished is removed.
///
/// open(), finish() and the destructor are called one after the other; writeAt() by several threads at once.
class KQZipNewFile {
 public:
  /// What became of a file that was asked for.
  enum class Outcome { Made, Kept, Refused };

  explicit KQZipNewFile(KQZipPlacing& placing) : placing_(placing) {}
  ~KQZipNewFile() { abandon(); }
  KQZipNewFile(const KQZipNewFile&) = delete;
  KQZipNewFile& operator=(const KQZipNewFile&) = delete;

  /// Makes the file `name` in `folder`, whose open handle stays in use until the file is finished; for `time`
  /// what is there may be kept. `permissions` are cut by the process's mask. Refused leaves the reason.
  Outcome open(KQ::NSHandle handle, KQZipFolderTable::Folder folder, std::string_view name,
               std::optional<std::uint16_t> permissions, KQ::NSItemTime time, KQ::NSErrorSlot error);

  /// Writes what comes next.
  bool write(const void* bytes, std::uint64_t length, KQ::NSErrorSlot error);

  /// Writes at a place.
  bool writeAt(const void* bytes, std::uint64_t length, std::uint64_t offset, KQ::NSErrorSlot error);

  /// Gives the file its date, closes it and puts it into its place. After a failure it is removed, but for
  /// one that could not take its date alone.
  bool finish(KQ::NSErrorSlot error);

  /// Removes the file if it is not finished.
  void abandon();

  /// Makes a symbolic link instead, in the same way, at once.
  Outcome link(const std::string& target, KQ::NSHandle handle, KQZipFolderTable::Folder folder,
               std::string_view name, KQ::NSItemTime time, KQ::NSErrorSlot error);

  /// Which item the open file is; nothing when the system does not tell.
  std::optional<KQZipItemIdentity> identity() const;

  /// Items that are other entries' although the names differ: none of them is replaced.
  void setOthers(const std::set<KQZipItemIdentity>* others) { others_ = others; }

 private:
  Outcome _place(KQ::NSErrorSlot error, const std::function<std::int64_t(const char*)>& make);
  Outcome _lookAtExisting(KQ::NSErrorSlot error);
  Outcome _refuse(std::int64_t result, KQ::NSErrorSlot error) const;
  Outcome _refuseExisting(KQZipErrorCode code, const char* text, KQ::NSErrorSlot error) const;
  bool _takeResult(std::int64_t result, KQ::NSErrorSlot error) const;
  bool _rename(KQ::NSErrorSlot error);

  KQZipPlacing& placing_;
  const std::set<KQZipItemIdentity>* others_ = nullptr;
  KQ::NSHandle folderHandle_ = -1;
  KQZipFolderTable::Folder folder_ = KQZipFolderTable::root;
  std::string name_;
  std::string temporary_;
  KQ::NSItemTime time_;
  KQ::NSHandle file_ = -1;
  bool isThere_ = false;
};
