#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "../Platform/Internal/NSSystem.h"
#include "../Platform/NSError.h"
#include "KQZipFolderTable.h"

// The folder that an archive is unpacked into, and the folders below it. For the library's own use.

/// Which item of the file system something is: the device, and the number on it.
using KQZipItemIdentity = std::pair<std::uint64_t, std::uint64_t>;

/// The folder that an archive is unpacked into. Nothing that goes through it leaves it: every call is
/// relative to an open folder, and no folder is reached through a symbolic link, also where one is put in the
/// place of a folder meanwhile.
///
/// The folders are numbered by the table. The calling thread adds and makes them; once a folder is made, any
/// thread may open it through handles of its own.
class KQZipDestinationFolder {
 public:
  using Folder = KQZipFolderTable::Folder;

  /// Holds open folders for one thread, the most recent ones, so that what is in one folder costs one open.
  class Handles {
   public:
    explicit Handles(const KQZipDestinationFolder& destination) : destination_(destination) {}
    ~Handles();
    Handles(const Handles&) = delete;
    Handles& operator=(const Handles&) = delete;

    /// The open folder, which stays this object's; the negative of an error number when it cannot be opened.
    KQ::NSHandle open(Folder folder);

   private:
    struct Held {
      Folder folder = KQZipFolderTable::none;
      KQ::NSHandle handle = -1;
      std::uint64_t lastUse = 0;
    };

    const KQZipDestinationFolder& destination_;
    std::array<Held, 8> held_{};
    std::uint64_t uses_ = 0;
  };

  /// Follows links, and takes ".." as it stands, if `followsLinks`.
  explicit KQZipDestinationFolder(bool followsLinks) : handles_(*this), followsLinks_(followsLinks) {}
  ~KQZipDestinationFolder();
  KQZipDestinationFolder(const KQZipDestinationFolder&) = delete;
  KQZipDestinationFolder& operator=(const KQZipDestinationFolder&) = delete;

  /// Opens the folder at `path`, and makes it first, with those above it, if it is not there and `makes`.
  bool open(const std::string& path, bool makes, KQ::NSErrorSlot error);

  /// The numbers of the folders below it. Adding one does not make it.
  KQZipFolderTable& table() { return table_; }
  const KQZipFolderTable& table() const { return table_; }

  /// Tells that another folder has a name that a file system may hold for the same.
  void noteTwin(Folder folder);

  /// Makes the folder, and those above it, where they are not there. It is nobody else's to look into until
  /// settle(). The calling thread.
  bool make(Folder folder, KQ::NSErrorSlot error);

  /// Whether make() made the folder itself, so that nothing was in it.
  bool isNew(Folder folder) const { return stateOf(folder).step == Step::Made; }

  /// Opens the folder, which has to be there. The negative of an error number when it is not or cannot be
  /// opened. Any thread.
  KQ::NSHandle openFolder(Folder folder) const;

  /// The handles of the calling thread.
  Handles& handles() { return handles_; }

  /// What the folder gets when it is settled, if it is new. Without permissions they are those that the
  /// system gives to any new folder.
  void settleAs(Folder folder, std::optional<std::uint16_t> permissions, KQ::NSItemTime time);

  /// Gives the folders that are new their permissions and dates. Called when nothing more is written into
  /// any. Returns those that did not take them, with the reasons.
  std::map<Folder, std::shared_ptr<const KQ::NSError>> settle();

  /// A path below it as a person knows it.
  std::string shownPath(Folder folder, std::string_view name = {}) const;

  /// A name that nothing has, for a file that is on its way.
  std::string temporaryName();

  /// The error of a call that failed for the item of that name.
  std::shared_ptr<const KQ::NSError> errorFor(std::int64_t result, Folder folder,
                                              std::string_view name = {}) const;

 private:
  enum class Step : std::uint8_t { Unknown, Was, Made };

  struct State {
    Step step = Step::Unknown;
    bool hasTwin = false;
    bool hasDate = false;
    bool hasPermissions = false;
    std::uint16_t permissions = 0;
    KQ::NSItemTime time;
  };

  State& stateAt(Folder folder);
  State stateOf(Folder folder) const { return folder < states_.size() ? states_[folder] : State(); }
  bool _makeOne(Folder folder, KQ::NSErrorSlot error);
  bool _takeExisting(Folder folder, KQ::NSErrorSlot error);
  bool _isToldApart(Folder folder, KQ::NSErrorSlot error);
  KQ::NSHandle _openByComponents(Folder folder) const;
  int _settleOne(Folder folder, std::uint16_t mask);

  std::string path_;
  KQZipFolderTable table_;
  std::vector<State> states_;
  std::map<KQZipItemIdentity, Folder> twins_;
  KQ::NSHandle root_ = -1;
  Handles handles_;
  bool followsLinks_;
  mutable std::atomic<bool> lacksBeneath_{false};
  std::atomic<std::uint64_t> temporaries_{0};
};
