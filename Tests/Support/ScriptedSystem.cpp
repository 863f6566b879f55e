#include "Support/ScriptedSystem.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <utility>

using namespace KQ;

namespace KQTest {

// A listing whose steps are calls too.
class ScriptedSystem::Listing final : public NSFolderListing {
 public:
  Listing(ScriptedSystem& system, std::string path, std::unique_ptr<NSFolderListing> own)
      : system_(system), path_(std::move(path)), own_(std::move(own)) {}

  int next(NSListedItem* item) override {
    const int result = system_.whole({.name = "next", .path = path_}, [&] { return own_->next(item); });
    if (result > 0 && system_.typesAreHidden_) item->type = NSItemType::Unknown;
    return result;
  }

 private:
  ScriptedSystem& system_;
  std::string path_;
  std::unique_ptr<NSFolderListing> own_;
};

ScriptedSystem::ScriptedSystem(Threads threads) : threads_(threads), before_(NSSystem::replace(this)) {}

ScriptedSystem::~ScriptedSystem() { NSSystem::replace(before_); }

void ScriptedSystem::fail(const Which& which, int code) { steps_.push_back({.which = which, .code = code}); }

void ScriptedSystem::shorten(const Which& which, std::uint64_t most) {
  steps_.push_back({.which = which, .most = most});
}

void ScriptedSystem::halve(const Which& which) { steps_.push_back({.which = which, .halves = true}); }

void ScriptedSystem::act(const Which& which, std::function<void(const Call&)> action) {
  steps_.push_back({.which = which, .action = std::move(action)});
}

void ScriptedSystem::lackOptionalCalls() {
  for (const char* const name : {"openBeneath", "sendAt", "copyAt", "reserve", "willReadAll", "renameToNew"})
    fail({.name = name}, ENOSYS);
}

void ScriptedSystem::hideTypes() { typesAreHidden_ = true; }

void ScriptedSystem::limitRoom(std::uint64_t bytes, std::function<void()> atEnd) {
  room_ = bytes;
  atEnd_ = std::move(atEnd);
}

std::vector<ScriptedSystem::Call> ScriptedSystem::calls() const {
  const std::lock_guard<std::mutex> guard(lock_);
  return calls_;
}

std::size_t ScriptedSystem::count(const std::string& name) const {
  const std::lock_guard<std::mutex> guard(lock_);
  return static_cast<std::size_t>(std::count_if(
      calls_.begin(), calls_.end(), [&](const Call& call) { return name.empty() || call.name == name; }));
}

std::uint64_t ScriptedSystem::bytesWritten() const {
  const std::lock_guard<std::mutex> guard(lock_);
  std::uint64_t sum = 0;
  for (const Call& call : calls_) {
    if (call.isWrite() && call.result > 0) sum += static_cast<std::uint64_t>(call.result);
  }
  return sum;
}

bool ScriptedSystem::sees() const { return threads_ == Threads::All || std::this_thread::get_id() == maker_; }

// Records the call and settles what happens to it.
ScriptedSystem::Plan ScriptedSystem::plan(const Call& call) {
  const std::lock_guard<std::mutex> guard(lock_);
  Plan plan{.index = calls_.size(), .length = call.length};
  calls_.push_back(call);
  for (Step& step : steps_) {
    const Which& which = step.which;
    if ((!which.name.empty() && which.name != call.name) ||
        (!which.path.empty() && which.path != call.path) || (which.matches && !which.matches(call)))
      continue;
    ++step.met;
    if (which.number != 0 && which.number != step.met && !(which.andLater && which.number < step.met))
      continue;
    if (step.code != 0) plan.code = step.code;
    plan.length = std::min(plan.length, step.most);
    if (step.halves && plan.length > 1) plan.length /= 2;
    if (step.action) plan.actions.push_back(step.action);
  }
  if (call.isWrite() && plan.code == 0) takeRoom(plan);
  return plan;
}

void ScriptedSystem::takeRoom(Plan& plan) {
  if (room_ == UINT64_MAX) return;
  plan.room = std::min(plan.length, room_);
  plan.meetsTheEnd = plan.room < plan.length;
  if (plan.meetsTheEnd && plan.room == 0) plan.code = ENOSPC;
  plan.length = plan.room;
  room_ -= plan.room;
}

// Records the result and gives back what room was not used.
void ScriptedSystem::finish(const Plan& plan, std::int64_t result) {
  std::function<void()> atEnd;
  {
    const std::lock_guard<std::mutex> guard(lock_);
    calls_[plan.index].result = result;
    const std::uint64_t used = result > 0 ? static_cast<std::uint64_t>(result) : 0;
    if (plan.room > used) room_ += plan.room - used;
    if (plan.meetsTheEnd && used == plan.room) atEnd = std::exchange(atEnd_, nullptr);
  }
  if (atEnd) atEnd();
}

template <class Make>
std::int64_t ScriptedSystem::transfer(const Call& call, Make make) {
  if (!sees()) return make(call.length);
  const Plan plan = this->plan(call);
  for (const auto& action : plan.actions) action(call);
  const std::int64_t result = plan.code != 0 ? -plan.code : make(plan.length);
  finish(plan, result);
  return result;
}

template <class Make>
int ScriptedSystem::whole(const Call& call, Make make) {
  return static_cast<int>(transfer(call, [&](std::uint64_t) { return make(); }));
}

std::string ScriptedSystem::pathOf(NSHandle file) const {
  const std::lock_guard<std::mutex> guard(lock_);
  const auto found = open_.find(file);
  return found == open_.end() ? std::string() : found->second.path;
}

std::string ScriptedSystem::pathAt(NSHandle folder, const std::string& path) const {
  const std::string above = path[0] == '/' ? std::string() : pathOf(folder);
  return above.empty() ? path : above + "/" + path;
}

ScriptedSystem::Call ScriptedSystem::onFile(const char* name, NSHandle file) const {
  return {.name = name, .path = pathOf(file), .file = file};
}

ScriptedSystem::Call ScriptedSystem::atPath(const char* name, NSHandle folder, const char* path) const {
  return {.name = name, .path = pathAt(folder, path)};
}

ScriptedSystem::Call ScriptedSystem::atPaths(const char* name, NSHandle folder, const char* path,
                                             NSHandle newFolder, const char* newPath) const {
  return {.name = name, .path = pathAt(folder, path), .otherPath = pathAt(newFolder, newPath)};
}

ScriptedSystem::Open ScriptedSystem::forget(NSHandle file) {
  const std::lock_guard<std::mutex> guard(lock_);
  const auto found = open_.find(file);
  if (found == open_.end()) return {{}, 0};
  Open open = std::move(found->second);
  open_.erase(found);
  return open;
}

void ScriptedSystem::rememberWhatIsThere(NSHandle file, std::uint64_t offset, std::uint64_t length) {
  {
    const std::lock_guard<std::mutex> guard(lock_);
    const auto found = open_.find(file);
    if (found == open_.end() || (found->second.mode & (NSOpenEmptying | NSOpenNew)) != 0) return;
    if ((found->second.mode & NSOpenToRead) == 0) return;
  }
  std::string bytes(length, '\0');
  const std::int64_t count = NSSystem::readAt(file, bytes.data(), length, offset);
  if (count < 0) abort();
  bytes.resize(static_cast<std::size_t>(count));
  const std::lock_guard<std::mutex> guard(lock_);
  open_.at(file).replaced.emplace_back(offset, std::move(bytes));
}

void ScriptedSystem::loseWhatWasWritten(NSHandle file, const Open& open) {
  if ((open.mode & NSOpenToWrite) == 0) return;
  const bool isInPlace = (open.mode & NSOpenToRead) != 0 && (open.mode & (NSOpenEmptying | NSOpenNew)) == 0;
  if (!isInPlace) {
    NSItemStatus found;
    if (NSSystem::status(file, &found) < 0 || NSSystem::setLength(file, found.size / 2) < 0) abort();
    return;
  }
  for (std::size_t i = 0; i < open.replaced.size(); i += 2) {
    const auto& [offset, bytes] = open.replaced[i];
    if (NSSystem::writeAt(file, bytes.data(), bytes.size(), offset) !=
        static_cast<std::int64_t>(bytes.size()))
      abort();
  }
}

NSHandle ScriptedSystem::openWith(const Call& call, const std::function<NSHandle()>& make) {
  return transfer(call, [&](std::uint64_t) {
    const NSHandle opened = make();
    if (opened >= 0 && sees()) {
      const std::lock_guard<std::mutex> guard(lock_);
      open_.insert_or_assign(opened, Open{call.path, call.mode});
    }
    return opened;
  });
}

NSHandle ScriptedSystem::open(NSHandle folder, const char* path, unsigned mode, std::uint16_t permissions) {
  Call call = atPath("open", folder, path);
  call.mode = mode;
  return openWith(call, [&] { return NSSystem::open(folder, path, mode, permissions); });
}

NSHandle ScriptedSystem::openBeneath(NSHandle folder, const char* path, unsigned mode,
                                     std::uint16_t permissions) {
  Call call = atPath("openBeneath", folder, path);
  call.mode = mode;
  return openWith(call, [&] { return NSSystem::openBeneath(folder, path, mode, permissions); });
}

int ScriptedSystem::close(NSHandle file) {
  if (!sees()) return NSSystem::close(file);
  const Call call = onFile("close", file);
  const Plan plan = this->plan(call);
  for (const auto& action : plan.actions) action(call);
  // Its number may be another file's as soon as it is closed, which it is whatever the result.
  const Open open = forget(file);
  if (plan.code != 0) loseWhatWasWritten(file, open);
  const int closed = NSSystem::close(file);
  const int result = plan.code != 0 ? -plan.code : closed;
  finish(plan, result);
  return result;
}

bool ScriptedSystem::isSeekable(NSHandle file) {
  return whole(onFile("isSeekable", file), [&] { return NSSystem::isSeekable(file) ? 1 : 0; }) == 1;
}

std::int64_t ScriptedSystem::readAt(NSHandle file, void* buffer, std::uint64_t length, std::uint64_t offset) {
  Call call = onFile("readAt", file);
  call.offset = offset;
  call.length = length;
  call.pieces = {{buffer, length}};
  return transfer(call, [&](std::uint64_t part) { return NSSystem::readAt(file, buffer, part, offset); });
}

std::int64_t ScriptedSystem::read(NSHandle file, void* buffer, std::uint64_t length) {
  Call call = onFile("read", file);
  call.length = length;
  call.pieces = {{buffer, length}};
  return transfer(call, [&](std::uint64_t part) { return NSSystem::read(file, buffer, part); });
}

std::int64_t ScriptedSystem::writeAt(NSHandle file, const void* buffer, std::uint64_t length,
                                     std::uint64_t offset) {
  Call call = onFile("writeAt", file);
  call.offset = offset;
  call.length = length;
  call.pieces = {{buffer, length}};
  return transfer(call, [&](std::uint64_t part) {
    if (sees()) rememberWhatIsThere(file, offset, part);
    return NSSystem::writeAt(file, buffer, part, offset);
  });
}

std::int64_t ScriptedSystem::write(NSHandle file, const NSPiece* pieces, int count) {
  Call call = onFile("write", file);
  call.pieces.assign(pieces, pieces + count);
  for (const NSPiece& piece : call.pieces) call.length += piece.length;
  return transfer(call, [&](std::uint64_t part) {
    std::vector<NSPiece> parts = call.pieces;
    for (NSPiece& piece : parts) {
      piece.length = std::min(piece.length, part);
      part -= piece.length;
    }
    return NSSystem::write(file, parts.data(), count);
  });
}

std::int64_t ScriptedSystem::sendAt(NSHandle target, NSHandle source, std::uint64_t length,
                                    std::uint64_t offset) {
  Call call = onFile("sendAt", target);
  call.otherPath = pathOf(source);
  call.offset = offset;
  call.length = length;
  return transfer(call, [&](std::uint64_t part) { return NSSystem::sendAt(target, source, part, offset); });
}

std::int64_t ScriptedSystem::copyAt(NSHandle target, std::uint64_t targetOffset, NSHandle source,
                                    std::uint64_t sourceOffset, std::uint64_t length) {
  Call call = onFile("copyAt", target);
  call.otherPath = pathOf(source);
  call.offset = sourceOffset;
  call.length = length;
  return transfer(call, [&](std::uint64_t part) {
    if (sees()) rememberWhatIsThere(target, targetOffset, part);
    return NSSystem::copyAt(target, targetOffset, source, sourceOffset, part);
  });
}

int ScriptedSystem::setLength(NSHandle file, std::uint64_t length) {
  return whole(onFile("setLength", file), [&] { return NSSystem::setLength(file, length); });
}

int ScriptedSystem::reserve(NSHandle file, std::uint64_t length) {
  return whole(onFile("reserve", file), [&] { return NSSystem::reserve(file, length); });
}

int ScriptedSystem::synchronise(NSHandle file) {
  return whole(onFile("synchronise", file), [&] { return NSSystem::synchronise(file); });
}

int ScriptedSystem::willReadAll(NSHandle file) {
  return whole(onFile("willReadAll", file), [&] { return NSSystem::willReadAll(file); });
}

int ScriptedSystem::status(NSHandle file, NSItemStatus* status) {
  return whole(onFile("status", file), [&] { return NSSystem::status(file, status); });
}

int ScriptedSystem::statusAt(NSHandle folder, const char* path, bool followingLink, NSItemStatus* status) {
  Call call = atPath("statusAt", folder, path);
  call.followsLink = followingLink;
  return whole(call, [&] { return NSSystem::statusAt(folder, path, followingLink, status); });
}

int ScriptedSystem::setTime(NSHandle file, NSItemTime time) {
  return whole(onFile("setTime", file), [&] { return NSSystem::setTime(file, time); });
}

int ScriptedSystem::setTimeAt(NSHandle folder, const char* path, bool followingLink, NSItemTime time) {
  Call call = atPath("setTimeAt", folder, path);
  call.followsLink = followingLink;
  return whole(call, [&] { return NSSystem::setTimeAt(folder, path, followingLink, time); });
}

int ScriptedSystem::setPermissions(NSHandle file, std::uint16_t permissions) {
  return whole(onFile("setPermissions", file), [&] { return NSSystem::setPermissions(file, permissions); });
}

int ScriptedSystem::makeFolder(NSHandle folder, const char* path, std::uint16_t permissions) {
  return whole(atPath("makeFolder", folder, path),
               [&] { return NSSystem::makeFolder(folder, path, permissions); });
}

int ScriptedSystem::makeLink(const char* target, NSHandle folder, const char* path) {
  Call call = atPath("makeLink", folder, path);
  call.otherPath = target;
  return whole(call, [&] { return NSSystem::makeLink(target, folder, path); });
}

int ScriptedSystem::readLink(NSHandle folder, const char* path, std::string* target) {
  return whole(atPath("readLink", folder, path), [&] { return NSSystem::readLink(folder, path, target); });
}

int ScriptedSystem::addName(NSHandle folder, const char* path, NSHandle newFolder, const char* newPath) {
  return whole(atPaths("addName", folder, path, newFolder, newPath),
               [&] { return NSSystem::addName(folder, path, newFolder, newPath); });
}

int ScriptedSystem::rename(NSHandle folder, const char* path, NSHandle newFolder, const char* newPath) {
  return whole(atPaths("rename", folder, path, newFolder, newPath),
               [&] { return NSSystem::rename(folder, path, newFolder, newPath); });
}

int ScriptedSystem::renameToNew(NSHandle folder, const char* path, NSHandle newFolder, const char* newPath) {
  return whole(atPaths("renameToNew", folder, path, newFolder, newPath),
               [&] { return NSSystem::renameToNew(folder, path, newFolder, newPath); });
}

int ScriptedSystem::remove(NSHandle folder, const char* path, bool isFolder) {
  return whole(atPath("remove", folder, path), [&] { return NSSystem::remove(folder, path, isFolder); });
}

int ScriptedSystem::list(NSHandle folder, std::unique_ptr<NSFolderListing>* listing) {
  if (!sees()) return NSSystem::list(folder, listing);
  bool isTaken = false;
  const std::string path = pathOf(folder);
  const int result = whole(onFile("list", folder), [&] {
    isTaken = true;
    forget(folder);
    return NSSystem::list(folder, listing);
  });
  if (!isTaken) {
    forget(folder);
    NSSystem::close(folder);
  }
  if (result >= 0) *listing = std::make_unique<Listing>(*this, path, std::move(*listing));
  return result;
}

bool ScriptedSystem::localTime(std::time_t seconds, std::tm* parts) {
  return whole({.name = "localTime"}, [&] { return NSSystem::localTime(seconds, parts) ? 1 : 0; }) == 1;
}

std::time_t ScriptedSystem::secondsOfLocalTime(std::tm* parts) {
  std::time_t seconds = -1;
  whole({.name = "secondsOfLocalTime"}, [&] {
    seconds = NSSystem::secondsOfLocalTime(parts);
    return 0;
  });
  return seconds;
}

void ScriptedSystem::log(const std::string& line) {
  whole({.name = "log", .path = line}, [&] {
    NSSystem::log(line);
    return 0;
  });
}

unsigned ScriptedSystem::processors() {
  const int usable = whole({.name = "processors"}, [&] { return static_cast<int>(NSSystem::processors()); });
  return static_cast<unsigned>(std::max(1, usable));
}

std::int64_t ScriptedSystem::process() {
  return transfer({.name = "process"}, [&](std::uint64_t) { return NSSystem::process(); });
}

}  // namespace KQTest
