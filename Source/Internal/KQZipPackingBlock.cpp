#include "KQZipPackingBlock.h"

#include <zlib.h>

#include <cstring>

#include "../Platform/Internal/NSFileDescriptor.h"

namespace {

using Entry = KQZipPackingEntry;
using KQ::NSSystem;

constexpr std::uint16_t permissionBits = 0777;

}  // namespace

KQZipSourceFile::~KQZipSourceFile() {
  // It was only read: a failure has no meaning.
  if (file_ >= 0) NSSystem::current().close(file_);
}

int KQZipSourceFile::open(const KQZipPackingEntry& entry, const std::string& path) {
  // What was a file when it was found may be a link now, or a pipe that nobody writes to.
  const unsigned links = entry.kind == Entry::Kind::LinkedFile ? 0U : KQ::NSOpenNoLink;
  file_ = NSSystem::current().open(KQ::NSCurrentFolder, KQ::NSSystemPath(path),
                                   KQ::NSOpenToRead | KQ::NSOpenNotWaiting | links, 0);
  return file_ < 0 ? static_cast<int>(-file_) : look();
}

int KQZipSourceFile::look() { return -NSSystem::current().status(file_, &status_); }

std::int64_t KQZipSourceFile::readAt(std::uint8_t* room, std::uint64_t length, std::uint64_t offset) const {
  std::uint64_t taken = 0;
  while (taken < length) {
    const std::int64_t count =
        NSSystem::current().readAt(file_, room + taken, length - taken, offset + taken);
    if (count < 0) return count;
    if (count == 0) break;
    taken += static_cast<std::uint64_t>(count);
  }
  return static_cast<std::int64_t>(taken);
}

std::int64_t KQZipSourceFile::readAll(std::uint8_t* room, std::uint64_t length) const {
  const std::int64_t count = NSSystem::current().readAt(file_, room, length, 0);
  if (count <= 0) return count;
  // A file that has given all that it should, and less than it might, has no more. One whose size is not told
  // is asked until it ends.
  const auto taken = static_cast<std::uint64_t>(count);
  if (taken < length && taken >= status_.size && status_.size != 0) return count;
  const std::int64_t rest = readAt(room + taken, length - taken, taken);
  return rest < 0 ? rest : count + rest;
}

void KQZipPackingBlock::clear() {
  used_ = 0;
  failures_.clear();
}

std::uint8_t* KQZipPackingBlock::bytes() {
  if (!bytes_) bytes_ = std::make_unique_for_overwrite<std::uint8_t[]>(size);
  return bytes_.get();
}

bool KQZipPackingBlock::append(KQZipPackingEntry& entry) {
  entry.offset = used_;
  if (entry.isFile()) return _appendFile(entry);
  if (entry.kind == Entry::Kind::Link) return _appendLink(entry);
  job_.form.setTime(&entry);
  if (entry.kind == Entry::Kind::Folder) return _appendBytes(entry, nullptr, 0);
  const auto& more = *job_.list.sources[entry.source].more;
  if (entry.kind == Entry::Kind::Stream) return _giveLargePlace(entry, more.rare->length);
  return more.data ? _appendBytes(entry, more.data->bytes(), more.data->length())
                   : _appendBytes(entry, nullptr, 0);
}

bool KQZipPackingBlock::_appendFile(KQZipPackingEntry& entry) {
  job_.list.getPath(entry, &path_);
  KQZipSourceFile file;
  if (const int code = file.open(entry, path_); code != 0) return _leaveOut(entry, code);
  if (job_.target.isItself(file.status())) return _leaveOut(entry, 0, KQZipLeftOut::Why::Archive);
  if (file.status().type != KQ::NSItemType::File) return _leaveOut(entry, 0);
  _takeAttributes(entry, file.status());
  return _appendOpenFile(entry, file);
}

bool KQZipPackingBlock::_appendOpenFile(KQZipPackingEntry& entry, KQZipSourceFile& file) {
  // A byte more than the file has, so that one read tells that it has no more.
  const std::uint64_t header = job_.form.sizeOfLocalHeader(entry);
  if (file.status().size >= size - header) return _giveLargePlace(entry, file.status().size);
  if (header + file.status().size >= size - used_) return false;
  const std::uint64_t room = size - used_ - header;
  const std::int64_t count = file.readAll(bytes() + used_ + header, room);
  if (count < 0) return _leaveOut(entry, static_cast<int>(-count));
  entry.length = static_cast<std::uint64_t>(count);
  if (entry.length < room) return _finish(entry), true;
  // It has grown. In an empty block that makes it a large one, unless it does not say so.
  if (used_ != 0) return false;
  if (const int code = file.look(); code != 0) return _leaveOut(entry, code);
  return file.status().size >= room ? _giveLargePlace(entry, file.status().size) : _leaveOut(entry, 0);
}

bool KQZipPackingBlock::_appendLink(KQZipPackingEntry& entry) {
  const KQZipPackingSource& source = job_.list.sources[entry.source];
  std::string target(source.path);
  if (source.kind != KQZipPackingSource::Kind::Link) {
    job_.list.getPath(entry, &path_);
    const char* const path = KQ::NSSystemPath(path_);
    KQ::NSItemStatus status;
    int code = -NSSystem::current().statusAt(KQ::NSCurrentFolder, path, false, &status);
    if (code == 0) code = -NSSystem::current().readLink(KQ::NSCurrentFolder, path, &target);
    if (code != 0) return _leaveOut(entry, code);
    _takeAttributes(entry, status);
  } else {
    job_.form.setTime(&entry);
  }
  return _appendBytes(entry, reinterpret_cast<const std::uint8_t*>(target.data()), target.size());
}

bool KQZipPackingBlock::_appendBytes(KQZipPackingEntry& entry, const std::uint8_t* data,
                                     std::uint64_t length) {
  const std::uint64_t header = job_.form.sizeOfLocalHeader(entry);
  if (length > size - header) return _giveLargePlace(entry, length);
  if (length + header > size - used_) return false;
  if (length != 0) std::memcpy(bytes() + used_ + header, data, length);
  entry.length = length;
  _finish(entry);
  return true;
}

void KQZipPackingBlock::_finish(KQZipPackingEntry& entry) {
  std::uint8_t* const record = bytes() + used_;
  const std::uint64_t header = job_.form.sizeOfLocalHeader(entry);
  entry.crc32 = static_cast<std::uint32_t>(::crc32(0, record + header, static_cast<uInt>(entry.length)));
  job_.form.encodeLocalHeader(entry, record);
  entry.state = Entry::State::Packed;
  used_ += header + entry.length;
  job_.done.fetch_add(entry.length, std::memory_order_relaxed);
}

bool KQZipPackingBlock::_giveLargePlace(KQZipPackingEntry& entry, std::uint64_t length) {
  entry.length = length;
  entry.state = Entry::State::Large;
  return true;
}

bool KQZipPackingBlock::_leaveOut(KQZipPackingEntry& entry, int code, KQZipLeftOut::Why why) {
  entry.state = Entry::State::LeftOut;
  failures_.push_back({&entry, why, code});
  return true;
}

void KQZipPackingBlock::_takeAttributes(KQZipPackingEntry& entry, const KQ::NSItemStatus& status) const {
  const KQZipEntryAttributes& attributes = job_.list.attributesOf(entry);
  if (!attributes.date) entry.seconds = status.seconds;
  if (!attributes.permissions) entry.permissions = status.permissions & permissionBits;
  job_.form.setTime(&entry);
}
