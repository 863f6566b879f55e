#include "KQZipNewFile.h"

#include <cerrno>
#include <tuple>

#include "../Platform/NSString.h"
#include "KQZipError.h"

using KQ::NSSystem;
using Outcome = KQZipNewFile::Outcome;

namespace {

constexpr std::uint16_t permissionsOfAnyFile = 0666;

// Set-user-id, set-group-id and sticky bits of an archive are left out.
constexpr std::uint16_t settablePermissions = 0777;

// How often a name is tried that turns out to be taken, or one that was taken and then is not.
constexpr int mostTries = 100;

bool isLater(KQ::NSItemTime time, const KQ::NSItemStatus& status) {
  return std::tie(time.seconds, time.nanoseconds) > std::tie(status.seconds, status.nanoseconds);
}

}  // namespace

Outcome KQZipNewFile::open(KQ::NSHandle handle, KQZipFolderTable::Folder folder, std::string_view name,
                           std::optional<std::uint16_t> permissions, KQ::NSItemTime time,
                           KQ::NSErrorSlot error) {
  folderHandle_ = handle;
  folder_ = folder;
  name_ = name;
  time_ = time;
  const auto given =
      static_cast<std::uint16_t>(permissions.value_or(permissionsOfAnyFile) & settablePermissions);
  return _place(error, [this, given](const char* path) {
    file_ = NSSystem::current().open(folderHandle_, path,
                                     KQ::NSOpenToWrite | KQ::NSOpenCreating | KQ::NSOpenNew, given);
    return file_;
  });
}

Outcome KQZipNewFile::link(const std::string& target, KQ::NSHandle handle, KQZipFolderTable::Folder folder,
                           std::string_view name, KQ::NSItemTime time, KQ::NSErrorSlot error) {
  folderHandle_ = handle;
  folder_ = folder;
  name_ = name;
  time_ = time;
  const Outcome outcome = _place(error, [&](const char* path) {
    return std::int64_t{NSSystem::current().makeLink(target.c_str(), folderHandle_, path)};
  });
  if (outcome != Outcome::Made) return outcome;
  const std::string& made = temporary_.empty() ? name_ : temporary_;
  const bool isDated =
      _takeResult(NSSystem::current().setTimeAt(folderHandle_, made.c_str(), false, time_), error);
  if (!_rename(error)) return Outcome::Refused;
  isThere_ = false;
  return isDated ? Outcome::Made : Outcome::Refused;
}

bool KQZipNewFile::write(const void* bytes, std::uint64_t length, KQ::NSErrorSlot error) {
  const auto* next = static_cast<const std::uint8_t*>(bytes);
  while (length > 0) {
    const KQ::NSPiece piece{next, length};
    const std::int64_t written = NSSystem::current().write(file_, &piece, 1);
    if (!_takeResult(written == 0 ? -EIO : written, error)) return false;
    next += written;
    length -= static_cast<std::uint64_t>(written);
  }
  return true;
}

bool KQZipNewFile::writeAt(const void* bytes, std::uint64_t length, std::uint64_t offset,
                           KQ::NSErrorSlot error) {
  const auto* next = static_cast<const std::uint8_t*>(bytes);
  while (length > 0) {
    const std::int64_t written = NSSystem::current().writeAt(file_, next, length, offset);
    if (!_takeResult(written == 0 ? -EIO : written, error)) return false;
    next += written;
    offset += static_cast<std::uint64_t>(written);
    length -= static_cast<std::uint64_t>(written);
  }
  return true;
}

bool KQZipNewFile::finish(KQ::NSErrorSlot error) {
  // Some file systems hold no dates: the data are whole all the same.
  const bool isDated = _takeResult(NSSystem::current().setTime(file_, time_), error);
  const int closed = NSSystem::current().close(file_);
  file_ = -1;
  if (!_takeResult(closed, error) || !_rename(error)) {
    abandon();
    return false;
  }
  isThere_ = false;
  return isDated;
}

void KQZipNewFile::abandon() {
  if (file_ >= 0) NSSystem::current().close(file_);
  file_ = -1;
  const std::string& made = temporary_.empty() ? name_ : temporary_;
  if (isThere_) NSSystem::current().remove(folderHandle_, made.c_str(), false);
  isThere_ = false;
}

std::optional<KQZipItemIdentity> KQZipNewFile::identity() const {
  KQ::NSItemStatus status;
  if (NSSystem::current().status(file_, &status) < 0) return std::nullopt;
  return KQZipItemIdentity{status.device, status.number};
}

// Makes the item under its name or, where something has that, under one of its own beside it.
Outcome KQZipNewFile::_place(KQ::NSErrorSlot error, const std::function<std::int64_t(const char*)>& make) {
  temporary_.clear();
  for (int i = 0; i < mostTries; ++i) {
    std::int64_t result = make(temporary_.empty() ? name_.c_str() : temporary_.c_str());
    isThere_ = result >= 0;
    if (isThere_) return Outcome::Made;
    if (result != -EEXIST) return _refuse(result, error);
    if (temporary_.empty()) {
      const Outcome outcome = _lookAtExisting(error);
      if (outcome != Outcome::Made) return outcome;
    }
    temporary_ = placing_.destination.temporaryName();
  }
  return _refuse(-EEXIST, error);
}

// Made: what is there may be replaced.
Outcome KQZipNewFile::_lookAtExisting(KQ::NSErrorSlot error) {
  KQ::NSItemStatus status;
  const int result = NSSystem::current().statusAt(folderHandle_, name_.c_str(), false, &status);
  // Gone again: then nothing is replaced.
  if (result == -ENOENT) return Outcome::Made;
  if (result < 0) return _refuse(result, error);
  const KQZipItemIdentity identity{status.device, status.number};
  if (placing_.archive == identity)
    return _refuseExisting(KQZipErrorInTheWay, "%@ is the archive itself", error);
  if (status.type == KQ::NSItemType::Folder) return _refuse(-EISDIR, error);
  const bool isOther = others_ != nullptr && others_->count(identity) != 0;
  // Nobody but this job has put anything into a folder of its own.
  if (isOther || placing_.destination.isNew(folder_))
    return _refuseExisting(KQZipErrorInTheWay, "%@ has the name of another entry to this file system", error);
  if (status.type != KQ::NSItemType::File && status.type != KQ::NSItemType::Link)
    return _refuseExisting(KQZipErrorInTheWay, "%@ is in the way and is not a regular file", error);
  switch (placing_.existing) {
    case KQZipExisting::Replace:
      return Outcome::Made;
    case KQZipExisting::Keep:
      return Outcome::Kept;
    case KQZipExisting::KeepNewer:
      return isLater(time_, status) ? Outcome::Made : Outcome::Kept;
    case KQZipExisting::Fail:
      break;
  }
  return _refuse(-EEXIST, error);
}

Outcome KQZipNewFile::_refuse(std::int64_t result, KQ::NSErrorSlot error) const {
  _takeResult(result, error);
  return Outcome::Refused;
}

Outcome KQZipNewFile::_refuseExisting(KQZipErrorCode code, const char* text, KQ::NSErrorSlot error) const {
  const std::string shown = placing_.destination.shownPath(folder_, name_);
  KQ::NSStoreError(error, KQZipMakeError(code, KQ::stringWithFormat(text, {shown})));
  return Outcome::Refused;
}

bool KQZipNewFile::_takeResult(std::int64_t result, KQ::NSErrorSlot error) const {
  if (result >= 0) return true;
  if (error != nullptr) *error = placing_.destination.errorFor(result, folder_, name_);
  return false;
}

bool KQZipNewFile::_rename(KQ::NSErrorSlot error) {
  if (temporary_.empty()) return true;
  const int result =
      NSSystem::current().rename(folderHandle_, temporary_.c_str(), folderHandle_, name_.c_str());
  if (result < 0) {
    _takeResult(result, error);
    abandon();
  }
  return result >= 0;
}
