#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "../Archive/KQZipPackingOptions.h"
#include "../Platform/NSData.h"
#include "../Platform/NSError.h"
#include "../Platform/NSStream.h"

// What a packing list holds: its sources, and the entries that they give. There may be millions of both, so
// that each is small and their texts share memory. For the library's own use.

/// Texts that stay where they are until all go together.
class KQZipTextPool {
 public:
  /// A copy of the text, which lives as long as the pool.
  std::string_view add(std::string_view text);

 private:
  std::vector<std::unique_ptr<char[]>> chunks_;
  char* next_ = nullptr;
  std::size_t left_ = 0;
};

/// What was added to a list.
struct KQZipPackingSource {
  /// What the source is.
  enum class Kind : std::uint8_t { Tree, Item, Data, Stream, Folder, Link };

  /// What only few sources have.
  struct Rare {
    KQZipTreeOptions tree;
    std::shared_ptr<KQ::NSInputStream> stream;
    std::uint64_t length = 0;
  };

  /// What sources have that are not simply in the file system.
  struct More {
    KQZipEntryAttributes attributes;
    std::shared_ptr<const KQ::NSData> data;
    std::unique_ptr<Rare> rare;
  };

  Kind kind = Kind::Item;
  KQZipLinks links = KQZipLinks::Keep;
  std::string_view path;  ///< In the file system; what a link holds.
  std::string_view name;  ///< In the archive; that of a tree's root, which may be empty.
  std::unique_ptr<More> more;
};

/// An entry on its way into the archive.
struct KQZipPackingEntry {
  /// What the entry is, and where its data comes from.
  enum class Kind : std::uint8_t { File, LinkedFile, Folder, Link, Data, Stream };

  /// How far it is.
  enum class State : std::uint8_t {
    Waiting,  ///< Not looked at.
    Packed,   ///< In the block of its run, or in the archive.
    Large,    ///< Has a place in the archive, and its data comes piece by piece.
    LeftOut   ///< Is not packed.
  };

  const char* nameBytes = nullptr;
  std::uint32_t nameLength = 0;
  std::uint32_t source = 0;
  std::uint64_t length = 0;  ///< Bytes of data; 0 before they are known.
  std::uint64_t offset = 0;  ///< Of the record in the archive; in its block, while it has no place.
  std::int64_t seconds = 0;  ///< When the contents last changed, since 1970.
  std::uint32_t crc32 = 0;
  std::uint16_t modTime = 0;
  std::uint16_t modDate = 0;
  std::uint16_t permissions = 0;
  Kind kind = Kind::File;
  State state = State::Waiting;

  /// The name in the archive, in the list's own memory.
  std::string_view name() const { return {nameBytes, nameLength}; }
  void setName(std::string_view name) {
    nameBytes = name.data();
    nameLength = static_cast<std::uint32_t>(name.size());
  }
  /// Whether the data is read from the file system as a file's.
  bool isFile() const { return kind == Kind::File || kind == Kind::LinkedFile; }
};

/// The sources of a list, and what was found of them.
struct KQZipPackingEntries {
  std::deque<KQZipPackingSource> sources;
  KQZipTextPool sourceTexts;

  std::deque<KQZipPackingEntry> entries;
  std::unique_ptr<KQZipTextPool> names;
  std::vector<KQZipLeftOut> leftOut;

  /// Forgets what was found.
  void clear();

  /// Orders the entries by their names. Fails with -204 for two entries with one name, a file whose name is
  /// that of another's folder included.
  bool order(KQ::NSErrorSlot error);

  /// Puts the path of the entry in the file system, its name in the archive where it has none, into `path`.
  void getPath(const KQZipPackingEntry& entry, std::string* path) const;

  /// What the entry has in place of what its source says.
  const KQZipEntryAttributes& attributesOf(const KQZipPackingEntry& entry) const;

  /// Notes that something is left out as chosen or not possible.
  void leaveOut(std::string path, KQZipLeftOut::Why why, const char* reason);

  /// Notes that something is left out that should have been packed, for a reason of the system, or, with 0,
  /// because it changed. With `atOnce` fails with that.
  bool leaveOutFailed(const std::string& path, int code, bool atOnce, KQ::NSErrorSlot error);
};
