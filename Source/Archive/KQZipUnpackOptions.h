#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "KQZipArchiveEntry.h"

/// What unpacking does where a file has the name of an entry already. Whatever it is told, it never touches
/// a folder for a file's sake, never writes through a link and never replaces the archive that it reads.
enum class KQZipExisting : std::uint8_t {
  Replace,    ///< Puts the new file in its place, once that is whole.
  Keep,       ///< Leaves the file as it is and goes on; that is no problem.
  KeepNewer,  ///< Keeps it unless the entry has the later date.
  Fail        ///< Leaves it as it is and counts the entry as one that has a problem.
};

/// An entry that unpacking is done with.
struct KQZipUnpackedEntry {
  KQZipArchiveEntry entry;  ///< Which one.
  std::string path;         ///< Where it is now, below the folder that was unpacked into.
  bool isKept;              ///< Whether a file that was there was kept in its place.
};

/// How KQZipArchive::unpack() works. The defaults give everything back, replace what is there, and use as
/// many threads as the process may use processors.
struct KQZipUnpackOptions {
  /// How many threads read, check and write. 0 is as many as the process may use processors, 1 the calling
  /// thread alone. The number changes nothing but the time that it takes.
  unsigned threads = 0;

  /// What happens where a file has the name already.
  KQZipExisting existing = KQZipExisting::Replace;

  /// What to unpack: names of entries, names of folders, for all that is below them, and patterns. Everything
  /// when empty. One that is the name of an entry or a folder is that, even if it looks like a pattern. In a
  /// pattern `*` stands for any characters and `?` for one, "/" too, `[abc]`, `[a-z]` and `[!a]` for one of
  /// those, and `\` takes its meaning from the character after it. A pattern is compared with the whole name;
  /// it chooses a folder with all that is below it.
  std::vector<std::string> paths{};

  /// What to leave out of that: the same as in `paths`.
  std::vector<std::string> excluded{};

  /// How many parts are taken off the front of each name. An entry of which nothing is left is passed over.
  std::size_t strippedComponents = 0;

  /// Takes names that are absolute or have a part "..", and links, as they stand, also where they lead out of
  /// the folder. A name that is absolute still begins at the folder. For archives that are trusted.
  bool takesNamesAsTheyStand = false;

  /// Leaves files in their place whose data do not match. They count as problems all the same.
  bool keepsDamaged = false;

  /// Does nothing but to tell `onEntry` what would be done. No data are looked at.
  bool isDryRun = false;

  /// Called on the calling thread once it is known how many entries there are to be unpacked, and how many
  /// bytes of data they have, if it is set.
  std::function<void(std::uint64_t entries, std::uint64_t bytes)> onBegin{};

  /// Called on the calling thread for every entry that was given back or kept, if it is set.
  std::function<void(const KQZipUnpackedEntry&)> onEntry{};
};
