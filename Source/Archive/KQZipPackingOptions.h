#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "../Platform/NSCalendar.h"

/// How an archive is written.
enum class KQZipForm : std::uint8_t {
  /// For every program: with permissions, exact times, folders and symbolic links; see
  /// Documentation/Format.md.
  Interoperable,
  /// Byte for byte what KQZipFileWriter makes of the same files. It has files only, and no permissions.
  Exact
};

/// What becomes of symbolic links.
enum class KQZipLinks : std::uint8_t {
  Keep,     ///< The entry is a link. The exact form, which has none, leaves it out.
  Follow,   ///< What the link leads to is packed in its place. A link to a folder above itself is left out.
  LeaveOut  ///< They are left out.
};

/// What an entry has in place of what its source says. An entry without a source file has the time at which
/// it was added, and 0644, a folder 0755.
struct KQZipEntryAttributes {
  std::optional<KQ::NSDate> date = std::nullopt;            ///< When the contents last changed.
  std::optional<std::uint16_t> permissions = std::nullopt;  ///< The lowest nine bits of the mode.
};

/// What is taken from a folder and what is below it.
///
/// A pattern is matched against the whole name in the archive, without the final "/" of a folder: `*` stands
/// for any characters, `?` for one, `[…]` for one of a set, all of them for "/" too, and a backslash takes
/// the special meaning from the character after it. A pattern that matches a folder covers all below it.
struct KQZipTreeOptions {
  /// The folder's own name in the archive, in front of the names of all below it. Without one there is no
  /// entry for the folder itself.
  std::string name = {};
  /// Whether items are taken whose names begin with "."; without them, nothing below such a folder is.
  bool hidden = true;
  /// What becomes of symbolic links. The folder itself may be one and is followed.
  KQZipLinks links = KQZipLinks::Keep;
  /// Unless empty, only what one of these patterns matches is taken.
  std::vector<std::string> including = {};
  /// What one of these patterns matches is not taken, whatever else says.
  std::vector<std::string> excluding = {};
};

/// How a list is packed.
struct KQZipPackingOptions {
  /// What the archive looks like.
  KQZipForm form = KQZipForm::Interoperable;
  /// How many threads work, the calling one included; 0 is as many as the process may use processors, and 1
  /// the calling thread alone. It never changes a byte of the archive.
  unsigned threads = 0;
  /// Whether an archive that is there already is replaced, once the new one is complete. What is replaced may
  /// be a file or a symbolic link, and no folder. The new archive has the permissions of a file that it
  /// replaces.
  bool replacing = false;
  /// Whether the archive is on the disk, and its name, before pack() returns.
  bool synchronising = false;
  /// Whether the first source that cannot be packed fails the whole, in place of being left out.
  bool failingAtOnce = false;
  /// Whether the sizes of all files are looked at beforehand, a system call for each, so that the progress
  /// has a total. Without it the progress is indeterminate until the end. Nobody watches a pack() on a thread
  /// without a current progress, so there it is not done.
  bool measuring = true;
};

/// Something that was not packed.
struct KQZipLeftOut {
  /// Why it was left out.
  enum class Why : std::uint8_t {
    Chosen,   ///< Options or the form ask for it.
    Special,  ///< It is no file, folder or symbolic link.
    Archive,  ///< It is the archive that is being written, or the one that it replaces.
    Failed    ///< It could not be read, or has no name that an entry can have.
  };

  std::string path;       ///< The item in the file system; the name of one that is not from there.
  std::string reason;     ///< For a person, "it is hidden" or the system's reason for instance.
  Why why = Why::Failed;  ///< Why it was left out.
};

/// An entry of an archive that is, or would be, packed.
struct KQZipPackedItem {
  std::string name;          ///< In the archive; a folder's ends with "/".
  std::uint64_t length = 0;  ///< Bytes of data.
};
