#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "KQZipFolderTable.h"

// Which entries of an archive are asked for. For the library's own use.

/// Entries that a list of paths asks for: by their names, by folders that they are in, and by patterns. A
/// path that is the name of an entry or a folder is no pattern, whatever it looks like, so all names are
/// shown to it first.
class KQZipNameSelection {
 public:
  explicit KQZipNameSelection(const std::vector<std::string>& paths);

  /// Whether there are no paths.
  bool isEmpty() const { return paths_.empty(); }

  /// Shows a name, as KQZipCanonicalName() gives it. All are shown before the first is asked for.
  void show(std::string_view name);

  /// Whether the entry with this name is asked for. It remembers which paths did.
  bool asksFor(std::string_view name);

  /// The paths that have asked for nothing so far, in their order.
  std::vector<std::string> unmatched() const;

 private:
  // A path with a "/" at its end is no file.
  enum class Asked : std::uint8_t { No, AsFolder, Any };
  enum class Seen : std::uint8_t { No, AsFile, AsFolder };

  struct Path {
    std::string text;
    KQZipFolderTable::Folder place;
    bool isFolder;
    bool isPattern;
    bool isMatched = false;
  };

  bool _matchesName(std::string_view name);
  bool _isName(const Path& path) const;

  std::vector<Path> paths_;
  KQZipFolderTable names_;
  // Of each place in the table: whether a path names it, and whether an entry or a folder has its name.
  std::vector<Asked> asked_;
  std::vector<Seen> seen_;
};
