#pragma once

#include <KQZip/Platform/Internal/NSSystem.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace KQTest {

/// While one exists, it is what the library takes for the system: it passes every call on, records it, and
/// lets calls go wrong as it was told before. One at a time, for programs that link the static library.
///
/// The library's threads may call at any time. What goes wrong is told, and the record read, while they do
/// not.
class ScriptedSystem final : public KQ::NSSystem {
 public:
  /// Whose calls it sees. Those of other threads pass by it.
  enum class Threads { All, TheMakers };

  /// One call.
  struct Call {
    std::string name{};        ///< As NSSystem has it; "next" for a listing's.
    std::string path{};        ///< What it concerns, with the folder's path in front; the line of a log.
    std::string otherPath{};   ///< The second path; what a link holds.
    KQ::NSHandle file = -1;    ///< The open file or folder, for a call on one; the target of two.
    unsigned mode = 0;         ///< How a file is opened.
    bool followsLink = false;  ///< Whether the status or time is that of what a link leads to.
    std::uint64_t offset = 0;  ///< Where a transfer reads or writes; of two, where it reads.
    std::uint64_t length = 0;  ///< How many bytes a transfer was asked for.
    std::vector<KQ::NSPiece> pieces{};  ///< The memory of a transfer.
    std::int64_t result = 0;            ///< What the library got back.

    /// Whether it puts bytes into a file.
    bool isWrite() const { return name == "write" || name == "writeAt" || isMove(); }
    /// Whether the system does that by itself, without memory of the process.
    bool isMove() const { return name == "sendAt" || name == "copyAt"; }
    /// Whether it is a read or a write.
    bool isTransfer() const { return name == "read" || name == "readAt" || isWrite(); }
  };

  /// Which calls. What is left out does not matter.
  struct Which {
    std::size_t number = 0;  ///< Of those that are left by the other members, from 1.
    bool andLater = false;   ///< With `number`: that call and every one after it.
    std::string name{};
    std::string path{};
    std::function<bool(const Call&)> matches{};
  };

  explicit ScriptedSystem(Threads threads = Threads::All);
  ~ScriptedSystem() override;
  ScriptedSystem(const ScriptedSystem&) = delete;
  ScriptedSystem& operator=(const ScriptedSystem&) = delete;

  /// @name What is to happen
  /// @{

  /// These calls fail with this number of `errno`'s, and nothing is done. When a close fails, half of what
  /// was written to the file is lost, whatever its order; a file written in place keeps what it had there.
  void fail(const Which& which, int code);
  /// These transfers get at most that many bytes.
  void shorten(const Which& which, std::uint64_t most);
  /// These transfers get half of the bytes, but at least one.
  void halve(const Which& which);
  /// Runs `action` before these calls.
  void act(const Which& which, std::function<void(const Call&)> action);
  /// The operations that not every system has are not here.
  void lackOptionalCalls();
  /// Folders tell names alone, as on some file systems.
  void hideTypes();
  /// All files together take so many more bytes. A write that would go beyond is cut there, and then `atEnd`
  /// is called; every later one fails with ENOSPC.
  void limitRoom(std::uint64_t bytes, std::function<void()> atEnd = {});
  /// @}

  /// @name What has happened
  /// @{

  /// Every call, in the order in which they began.
  std::vector<Call> calls() const;
  /// How many there were, of that name or of any.
  std::size_t count(const std::string& name = {}) const;
  /// All bytes that went into files.
  std::uint64_t bytesWritten() const;
  /// @}

  KQ::NSHandle open(KQ::NSHandle folder, const char* path, unsigned mode, std::uint16_t permissions) override;
  KQ::NSHandle openBeneath(KQ::NSHandle folder, const char* path, unsigned mode,
                           std::uint16_t permissions) override;
  int close(KQ::NSHandle file) override;
  bool isSeekable(KQ::NSHandle file) override;
  std::int64_t readAt(KQ::NSHandle file, void* buffer, std::uint64_t length, std::uint64_t offset) override;
  std::int64_t read(KQ::NSHandle file, void* buffer, std::uint64_t length) override;
  std::int64_t writeAt(KQ::NSHandle file, const void* buffer, std::uint64_t length,
                       std::uint64_t offset) override;
  std::int64_t write(KQ::NSHandle file, const KQ::NSPiece* pieces, int count) override;
  std::int64_t sendAt(KQ::NSHandle target, KQ::NSHandle source, std::uint64_t length,
                      std::uint64_t offset) override;
  std::int64_t copyAt(KQ::NSHandle target, std::uint64_t targetOffset, KQ::NSHandle source,
                      std::uint64_t sourceOffset, std::uint64_t length) override;
  int setLength(KQ::NSHandle file, std::uint64_t length) override;
  int reserve(KQ::NSHandle file, std::uint64_t length) override;
  int synchronise(KQ::NSHandle file) override;
  int willReadAll(KQ::NSHandle file) override;
  int status(KQ::NSHandle file, KQ::NSItemStatus* status) override;
  int statusAt(KQ::NSHandle folder, const char* path, bool followingLink, KQ::NSItemStatus* status) override;
  int setTime(KQ::NSHandle file, KQ::NSItemTime time) override;
  int setTimeAt(KQ::NSHandle folder, const char* path, bool followingLink, KQ::NSItemTime time) override;
  int setPermissions(KQ::NSHandle file, std::uint16_t permissions) override;
  int makeFolder(KQ::NSHandle folder, const char* path, std::uint16_t permissions) override;
  int makeLink(const char* target, KQ::NSHandle folder, const char* path) override;
  int readLink(KQ::NSHandle folder, const char* path, std::string* target) override;
  int addName(KQ::NSHandle folder, const char* path, KQ::NSHandle newFolder, const char* newPath) override;
  int rename(KQ::NSHandle folder, const char* path, KQ::NSHandle newFolder, const char* newPath) override;
  int renameToNew(KQ::NSHandle folder, const char* path, KQ::NSHandle newFolder,
                  const char* newPath) override;
  int remove(KQ::NSHandle folder, const char* path, bool isFolder) override;
  int list(KQ::NSHandle folder, std::unique_ptr<KQ::NSFolderListing>* listing) override;
  bool localTime(std::time_t seconds, std::tm* parts) override;
  std::time_t secondsOfLocalTime(std::tm* parts) override;
  void log(const std::string& line) override;
  unsigned processors() override;
  std::int64_t process() override;

 private:
  class Listing;

  /// A part of the script, and how many calls it has concerned so far.
  struct Step {
    Which which;
    int code = 0;
    std::uint64_t most = UINT64_MAX;
    bool halves = false;
    std::function<void(const Call&)> action{};
    std::size_t met = 0;
  };

  /// What happens to one call.
  struct Plan {
    std::size_t index;  ///< In the record.
    int code = 0;
    std::uint64_t length;    ///< How much of a transfer is made.
    std::uint64_t room = 0;  ///< How much of that was taken from the room.
    bool meetsTheEnd = false;
    std::vector<std::function<void(const Call&)>> actions{};
  };

  /// A file that is open.
  struct Open {
    std::string path;
    unsigned mode;
    std::vector<std::pair<std::uint64_t, std::string>> replaced{};  ///< What was written over, and where.
  };

  bool sees() const;
  Plan plan(const Call& call);
  void takeRoom(Plan& plan);
  void finish(const Plan& plan, std::int64_t result);
  template <class Make>
  std::int64_t transfer(const Call& call, Make make);
  template <class Make>
  int whole(const Call& call, Make make);
  KQ::NSHandle openWith(const Call& call, const std::function<KQ::NSHandle()>& make);
  Call onFile(const char* name, KQ::NSHandle file) const;
  Call atPath(const char* name, KQ::NSHandle folder, const char* path) const;
  Call atPaths(const char* name, KQ::NSHandle folder, const char* path, KQ::NSHandle newFolder,
               const char* newPath) const;
  std::string pathOf(KQ::NSHandle file) const;
  std::string pathAt(KQ::NSHandle folder, const std::string& path) const;
  Open forget(KQ::NSHandle file);
  void rememberWhatIsThere(KQ::NSHandle file, std::uint64_t offset, std::uint64_t length);
  void loseWhatWasWritten(KQ::NSHandle file, const Open& open);

  const std::thread::id maker_ = std::this_thread::get_id();
  const Threads threads_;
  NSSystem* before_;

  mutable std::mutex lock_;  ///< Of all that follows.
  std::vector<Step> steps_;
  bool typesAreHidden_ = false;
  std::uint64_t room_ = UINT64_MAX;
  std::function<void()> atEnd_;
  std::vector<Call> calls_;
  std::map<KQ::NSHandle, Open> open_;
};

}  // namespace KQTest
