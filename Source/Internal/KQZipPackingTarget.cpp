#include "KQZipPackingTarget.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <utility>

#include "../Platform/Internal/NSFileDescriptor.h"
#include "../Platform/NSString.h"
#include "KQZipError.h"

namespace {

using KQ::NSSystem;

constexpr std::uint16_t permissionsOfNewFile = 0666;
constexpr std::uint16_t permissionBits = 0777;
constexpr int mostAttempts = 100;
constexpr std::size_t randomCharacters = 6;
constexpr std::size_t longestFileName = 255;
constexpr std::array extension{'.', 'p', 'a', 'r', 't'};

// Another number each time, in this process and in others.
std::uint64_t randomNumber() {
  static std::atomic<std::uint64_t> counter{0};
  const auto now = static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
  std::uint64_t number =
      now + (counter.fetch_add(1) << 48) + (static_cast<std::uint64_t>(NSSystem::current().process()) << 24);
  number = (number ^ number >> 30) * 0xBF58476D1CE4E5B9;
  number = (number ^ number >> 27) * 0x94D049BB133111EB;
  return number ^ number >> 31;
}

// "NAME.XXXXXX.part". A name that has no room for that is cut between two characters.
std::string temporaryNameFor(std::string_view name) {
  constexpr std::string_view characters = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  constexpr std::size_t longest = longestFileName - randomCharacters - extension.size() - 1;
  if (name.size() > longest) {
    std::size_t end = longest;
    while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xC0) == 0x80) --end;
    name = name.substr(0, end);
  }
  std::string temporary(name);
  temporary += '.';
  std::uint64_t number = randomNumber();
  for (std::size_t i = 0; i < randomCharacters; ++i, number /= characters.size())
    temporary += characters[number % characters.size()];
  temporary.append(extension.begin(), extension.end());
  return temporary;
}

bool isSame(std::uint64_t device, std::uint64_t number, const KQ::NSItemStatus& item) {
  return device == item.device && number == item.number;
}

}  // namespace

KQZipStreamTarget::KQZipStreamTarget(KQ::NSOutputStream& stream)
    : stream_(stream), start_(stream.NSStreamFileCurrentOffsetKey().value_or(0)) {}

int KQZipStreamTarget::write(const std::uint8_t* bytes, std::uint64_t length, std::uint64_t /*offset*/) {
  while (length != 0) {
    const std::int64_t count = stream_.write(bytes, length);
    if (count <= 0) return EIO;
    bytes += count;
    length -= static_cast<std::uint64_t>(count);
  }
  return 0;
}

std::shared_ptr<const KQ::NSError> KQZipStreamTarget::errorFor(int /*code*/) const {
  auto error = stream_.streamError();
  return error ? error : KQZipMakeError(KQZipErrorWriting, "Error writing file");
}

bool KQZipStreamTarget::flush(KQ::NSErrorSlot error) {
  if (stream_.flush()) return true;
  KQ::NSStoreError(error, errorFor(EIO));
  return false;
}

KQZipNewArchive::KQZipNewArchive(std::string path, bool replacing)
    : path_(std::move(path)), replacing_(replacing) {}

KQZipNewArchive::~KQZipNewArchive() {
  NSSystem& system = NSSystem::current();
  if (file_ >= 0) system.close(file_);
  if (!temporaryName_.empty()) system.remove(folder_, temporaryName_.c_str(), false);
  if (folder_ >= 0) system.close(folder_);
}

bool KQZipNewArchive::prepare(KQ::NSErrorSlot error) {
  if (const int code = KQ::NSCodeForUnusablePath(path_); code != 0) return _fail(code, error);
  return _lookAtExisting(error) && _openFolder(error);
}

bool KQZipNewArchive::create(KQ::NSErrorSlot error) {
  NSSystem& system = NSSystem::current();
  constexpr unsigned mode = KQ::NSOpenToRead | KQ::NSOpenToWrite | KQ::NSOpenCreating | KQ::NSOpenNew;
  // A replacement is at no time more readable than what it replaces.
  const std::uint16_t permissions = givesPermissions_ ? 0600 : permissionsOfNewFile;
  const std::string above =
      folder_ == KQ::NSCurrentFolder ? KQ::stringByDeletingLastPathComponent(name_) : std::string();
  std::string temporary;
  for (int attempt = 0; attempt < mostAttempts; ++attempt) {
    temporary = KQ::stringByAppendingPathComponent(above, temporaryNameFor(KQ::lastPathComponent(name_)));
    file_ = system.open(folder_, temporary.c_str(), mode, permissions);
    if (file_ != -EEXIST) break;
  }
  if (file_ < 0) return _fail(static_cast<int>(-file_), error);
  temporaryName_ = std::move(temporary);
  KQ::NSItemStatus status;
  int result = system.status(file_, &status);
  if (result >= 0 && givesPermissions_) result = system.setPermissions(file_, permissions_);
  if (result < 0) return _fail(-result, error);
  own_ = {status.device, status.number, true};
  return true;
}

int KQZipNewArchive::write(const std::uint8_t* bytes, std::uint64_t length, std::uint64_t offset) {
  while (length != 0) {
    const std::int64_t count = NSSystem::current().writeAt(file_, bytes, length, offset);
    if (count < 0) return static_cast<int>(-count);
    if (count == 0) return EIO;
    bytes += count;
    offset += static_cast<std::uint64_t>(count);
    length -= static_cast<std::uint64_t>(count);
  }
  return 0;
}

std::shared_ptr<const KQ::NSError> KQZipNewArchive::errorFor(int code) const {
  return KQ::NSError::errorWithPOSIXCode(code, path_);
}

bool KQZipNewArchive::isItself(const KQ::NSItemStatus& item) const {
  const auto is = [&item](const Identity& identity) {
    return identity.isKnown && isSame(identity.device, identity.number, item);
  };
  return is(own_) || is(replaced_) || is(replacedTarget_);
}

int KQZipNewArchive::read(std::uint8_t* bytes, std::uint64_t length, std::uint64_t offset) const {
  while (length != 0) {
    const std::int64_t count = NSSystem::current().readAt(file_, bytes, length, offset);
    if (count < 0) return static_cast<int>(-count);
    if (count == 0) return EIO;
    bytes += count;
    offset += static_cast<std::uint64_t>(count);
    length -= static_cast<std::uint64_t>(count);
  }
  return 0;
}

bool KQZipNewArchive::setLength(std::uint64_t length, KQ::NSErrorSlot error) {
  const int result = NSSystem::current().setLength(file_, length);
  return result >= 0 || _fail(-result, error);
}

bool KQZipNewArchive::appear(bool synchronising, KQ::NSErrorSlot error) {
  NSSystem& system = NSSystem::current();
  int result = synchronising ? system.synchronise(file_) : 0;
  if (result < 0) return _fail(-result, error);
  result = system.close(std::exchange(file_, -1));
  if (result < 0) return _fail(-result, error);
  result = replacing_ ? _rename() : _renameToNew();
  if (result == -EEXIST) return _refuse("Could not write to zip path %@", error);
  if (result < 0) return _fail(-result, error);
  temporaryName_.clear();
  if (synchronising && folder_ != KQ::NSCurrentFolder) result = system.synchronise(folder_);
  return result >= 0 || _fail(-result, error);
}

bool KQZipNewArchive::_lookAtExisting(KQ::NSErrorSlot error) {
  KQ::NSItemStatus status;
  const char* const path = KQ::NSSystemPath(path_);
  const auto identityOf = [&status] { return Identity{status.device, status.number, true}; };
  const int result = NSSystem::current().statusAt(KQ::NSCurrentFolder, path, false, &status);
  if (result == -ENOENT || result == -ENOTDIR) return true;
  if (result < 0) return _fail(-result, error);
  if (!replacing_ || status.type == KQ::NSItemType::Folder)
    return _refuse("Could not write to zip path %@", error);
  replaced_ = identityOf();
  givesPermissions_ = status.type == KQ::NSItemType::File;
  permissions_ = status.permissions & permissionBits;
  if (status.type == KQ::NSItemType::Link &&
      NSSystem::current().statusAt(KQ::NSCurrentFolder, path, true, &status) >= 0)
    replacedTarget_ = identityOf();
  return true;
}

bool KQZipNewArchive::_openFolder(KQ::NSErrorSlot error) {
  constexpr auto noParent = "Could not write to zip path %@ because parent directory doesn't exist";
  const std::string parent = KQ::stringByDeletingLastPathComponent(path_);
  KQ::NSItemStatus status;
  if (NSSystem::current().statusAt(KQ::NSCurrentFolder, KQ::NSSystemPath(parent), true, &status) < 0 ||
      status.type != KQ::NSItemType::Folder)
    return _refuse(noParent, error);
  name_ = KQ::lastPathComponent(path_);
  folder_ = NSSystem::current().open(KQ::NSCurrentFolder, KQ::NSSystemPath(parent),
                                     KQ::NSOpenToRead | KQ::NSOpenFolder, 0);
  if (folder_ < 0) {
    // It may take files though it cannot be listed.
    folder_ = KQ::NSCurrentFolder;
    name_ = KQ::stringByAppendingPathComponent(parent, name_);
  }
  return true;
}

int KQZipNewArchive::_rename() {
  return NSSystem::current().rename(folder_, temporaryName_.c_str(), folder_, name_.c_str());
}

int KQZipNewArchive::_renameToNew() {
  NSSystem& system = NSSystem::current();
  const char* const temporary = temporaryName_.c_str();
  int result = system.renameToNew(folder_, temporary, folder_, name_.c_str());
  if (result != -ENOSYS) return result;
  result = system.addName(folder_, temporary, folder_, name_.c_str());
  if (result >= 0) {
    // The archive is there. That it may keep its other name too is no failure.
    system.remove(folder_, temporary, false);
    return 0;
  }
  if (result == -EEXIST) return result;
  // A file system without second names: the name is taken first, so that nothing of another's is replaced.
  const KQ::NSHandle taken = system.open(
      folder_, name_.c_str(), KQ::NSOpenToWrite | KQ::NSOpenCreating | KQ::NSOpenNew, permissionsOfNewFile);
  if (taken < 0) return static_cast<int>(taken);
  system.close(taken);
  result = _rename();
  if (result < 0) system.remove(folder_, name_.c_str(), false);
  return result;
}

bool KQZipNewArchive::_refuse(const char* format, KQ::NSErrorSlot error) const {
  return KQZipFail(error, KQZipErrorRefusedPath, KQ::stringWithFormat(format, {path_}));
}

bool KQZipNewArchive::_fail(int code, KQ::NSErrorSlot error) const {
  KQ::NSStoreError(error, errorFor(code));
  return false;
}
