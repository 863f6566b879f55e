#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// The folders below the one that an archive is unpacked into. For the library's own use.

/// Numbers the folders of paths. A folder has a larger number than the one that it is in; 0 is the root. The
/// memory is in proportion to the names of the folders, each counted once, and not to their paths.
class KQZipFolderTable {
 public:
  using Folder = std::uint32_t;
  static constexpr Folder root = 0;
  static constexpr Folder none = UINT32_MAX;

  KQZipFolderTable();

  /// The folder with this path, which has no empty component; the empty path is the root. It is added, and
  /// all above it, where it is new.
  Folder add(std::string_view path);

  /// The folder of that name in another one. It is added where it is new.
  Folder addIn(Folder parent, std::string_view name);

  /// The folder of that name in another one, or `none`.
  Folder find(Folder parent, std::string_view name) const;

  /// How many there are, the root included.
  std::size_t size() const { return folders_.size(); }

  /// The folder that it is in; the root is in itself.
  Folder parentOf(Folder folder) const { return folders_[folder].parent; }

  /// Its own name, followed by a NUL.
  std::string_view nameOf(Folder folder) const;

  /// Its path below the root; "" for the root.
  std::string pathOf(Folder folder) const;

 private:
  struct Entry {
    Folder parent;
    std::uint32_t nameLength;
    std::uint64_t nameAt;
  };

  std::size_t _placeFor(Folder parent, std::string_view name) const;
  void _grow();

  std::vector<Entry> folders_;
  std::string names_;
  std::vector<Folder> places_;
  std::string lastPath_;
  Folder last_ = root;
};
