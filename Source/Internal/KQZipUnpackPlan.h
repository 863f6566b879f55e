#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "../Archive/KQZipReport.h"
#include "../Archive/KQZipUnpackOptions.h"
#include "../Platform/NSError.h"
#include "KQZipArchiveState.h"
#include "KQZipFolderTable.h"
#include "KQZipNameSelection.h"

// What is unpacked, and where to. For the library's own use.

/// An entry that is unpacked.
struct KQZipUnpackItem {
  std::uint32_t place;              ///< Where its record stands in the order of the archive.
  KQZipFolderTable::Folder folder;  ///< The folder that it goes into; of a folder, itself.
  bool isAlone = false;             ///< Its name is another's to some file systems.
  bool isLeftOut = false;           ///< Something was found wrong with it.
};

/// The part of an entry's name that is left as its path below the destination. It is used for one entry after
/// the other, so that its memory is, too.
class KQZipTargetPath {
 public:
  /// Takes the first `stripped` parts off the name, which is valid as long as the path is used.
  void set(std::string_view name, std::size_t stripped);

  /// The path, without "/" at either end; empty when nothing is left.
  std::string_view path() const { return path_; }
  /// Its last part.
  std::string_view name() const { return path_.substr(nameAt_); }
  /// The path of the folder that it is in.
  std::string_view folder() const { return path_.substr(0, nameAt_ == 0 ? 0 : nameAt_ - 1); }

  /// Memory for the name that is set.
  std::string& roomForName() { return roomForName_; }

 private:
  std::string roomForName_;
  std::string room_;
  std::string_view path_;
  std::size_t nameAt_ = 0;
};

/// A problem of an entry that is planned, with its place.
struct KQZipPlacedProblem {
  std::uint32_t place;
  KQZipProblem problem;
};

/// The problem of an entry that could not be written, or whose archive could not be read, for this reason.
KQZipProblem KQZipProblemOfWriting(std::string name, const std::shared_ptr<const KQ::NSError>& error);

/// Goes over the names of an archive before anything is read or written. Takes time and memory in proportion
/// to the names.
class KQZipUnpackPlan {
 public:
  KQZipUnpackPlan(const KQZipArchiveState& archive, const KQZipUnpackOptions& options,
                  KQZipFolderTable& folders);

  /// Makes the plan. False with the error in the slot for a name that refuses the whole archive.
  bool make(KQ::NSErrorSlot error);

  /// Folders, each before what is in it is needed.
  const std::vector<KQZipUnpackItem>& folders() const { return folderItems_; }
  /// Files, in the order of the archive.
  const std::vector<KQZipUnpackItem>& files() const { return files_; }
  /// Files that have to be written one after the other, when all others are.
  const std::vector<KQZipUnpackItem>& filesAlone() const { return filesAlone_; }
  /// Symbolic links.
  const std::vector<KQZipUnpackItem>& links() const { return links_; }

  /// Why entries that were asked for are left out.
  std::vector<KQZipPlacedProblem>& problems() { return problems_; }
  /// Paths that ask for nothing.
  std::vector<std::string> unmatched() const { return chosen_.unmatched(); }
  /// Folders that share a name with something else, to some file systems.
  const std::vector<KQZipFolderTable::Folder>& twins() const { return twins_; }
  /// Bytes of all data.
  std::uint64_t bytes() const { return bytes_; }
  /// How many entries were asked for.
  std::uint64_t entries() const { return entries_; }

  /// Where the entry at a place goes. Any thread, each with a path of its own.
  void findTarget(std::uint32_t place, KQZipTargetPath* target) const;
  /// The name of the entry at a place.
  std::string nameAt(std::uint32_t place) const;

  /// Why a symbolic link in `folder` must not be made that holds `target`, as far as the archive tells.
  /// Empty when it stays inside. `climbsAfter` gets the paths that must be no links on the disk.
  std::string whyLinkLeavesFolder(KQZipFolderTable::Folder folder, std::string_view target,
                                  std::vector<std::string>* climbsAfter) const;

 private:
  using Key = std::uint64_t;

  // A file, link or folder by what it is called.
  struct Named {
    Key key;             // Equal for names that some file system holds for the same.
    std::uint32_t hash;  // Equal for equal names.
    std::uint32_t number;
    enum Kind : std::uint8_t { Folder, File, Link } kind;
  };

  const KQZipIndexRecord& _recordAt(std::uint32_t place) const;
  std::string_view _nameAt(std::uint32_t place, std::string* room) const;
  bool _refuseUnsafeNames(KQ::NSErrorSlot error) const;
  void _showNames();
  void _addEntry(std::uint32_t place);
  bool _isLeftOut(std::uint32_t place, const KQZipTargetPath& target);
  void _addItem(std::uint32_t place, const KQZipTargetPath& target);
  void _leaveOut(std::uint32_t place, KQZipProblemKind kind, const std::string& text);
  void _makeFolderKeys();
  void _leaveOutFilesInTheWay(std::vector<KQZipUnpackItem>& items);
  std::vector<Named> _namesInUse();
  void _findTwins();
  void _settleTwins(const Named* first, const Named* last);
  void _sortOut();

  const KQZipArchiveState& archive_;
  const KQZipUnpackOptions& options_;
  KQZipFolderTable& table_;
  KQZipNameSelection chosen_;
  KQZipNameSelection excluded_;

  std::vector<KQZipUnpackItem> folderItems_;
  std::vector<KQZipUnpackItem> files_;
  std::vector<KQZipUnpackItem> filesAlone_;
  std::vector<KQZipUnpackItem> links_;
  std::vector<KQZipPlacedProblem> problems_;
  std::vector<KQZipFolderTable::Folder> twins_;
  // Of each folder, what its path is to a file system that makes the least difference between names.
  std::vector<Key> folderKeys_;
  std::unordered_set<Key> linkKeys_;
  std::uint64_t bytes_ = 0;
  std::uint64_t entries_ = 0;
};
