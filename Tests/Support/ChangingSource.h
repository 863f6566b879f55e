#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "Support/GoldenArchive.h"
#include "Support/SourceMoment.h"
#include "Support/SourceTree.h"

namespace KQTest {

/// A way in which a file changes while it is packed.
struct SourceChange {
  std::string name;
  std::function<std::string(const std::string&)> contents;  ///< The new contents, given the old ones.
  bool byRename = false;  ///< Another file takes its place; otherwise its own bytes change.

  /// Changes the file in the tree, which becomes a minute younger.
  void apply(const SourceTree& tree, const std::string& relativePath) const;
};

/// Files that grow, shrink, are rewritten and are replaced, in place and by another file.
std::vector<SourceChange> sourceChanges();

/// Every moment with its name.
struct NamedMoment {
  SourceMoment moment;
  std::string name;
};
std::vector<NamedMoment> sourceMoments();
inline void PrintTo(const NamedMoment& moment, std::ostream* stream) { *stream << moment.name; }

/// What an archive is to hold for a source with the contents `old` that changed at that moment.
GoldenEntry changedEntry(const std::string& name, const std::string& old, SourceMoment moment,
                         const SourceChange& change);

}  // namespace KQTest
