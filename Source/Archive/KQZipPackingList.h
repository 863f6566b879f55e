#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "../Platform/KQExport.h"
#include "../Platform/NSData.h"
#include "../Platform/NSError.h"
#include "../Platform/NSStream.h"
#include "KQZipPackingOptions.h"

/// What goes into an archive, and the packing of it: in one pass over the sources, with several threads.
///
///     KQZipPackingList list;
///     list.addTree("Photos", {.name = "Photos"});
///     list.addData(notes, "notes.txt");
///     std::shared_ptr<const KQ::NSError> error;
///     if (!list.pack("photos.zip", {.threads = 4}, &error)) return fail(error);
///     for (const KQZipLeftOut& item : list.leftOut()) warn(item.path + ": " + item.reason);
///
/// Adding looks at nothing: what is wrong with a source shows when the list is packed. Sources may be added
/// in any order; entries are ordered by KQ::compare() of their names. A name in the archive is valid UTF-8,
/// has components between slashes, is not absolute and has no component "..".
///
/// A source that cannot be read is left out, the rest is packed, and leftOut() tells. What is packed of a
/// file is what one read of it gave; of one larger than about a megabyte, which takes several, the length
/// must stay as it was, or the file is left out.
///
/// A list is used by one thread at a time. It starts threads of its own only while it packs, and these touch
/// neither a host's streams nor a progress. Memory: at most 4 MiB for a thread, and 200 bytes for an entry.
class KQZIP_EXPORT KQZipPackingList {
 public:
  KQZipPackingList();                                             ///< An empty list.
  ~KQZipPackingList();                                            ///< Closes no stream.
  KQZipPackingList(const KQZipPackingList&) = delete;             ///< A list is one of a kind.
  KQZipPackingList& operator=(const KQZipPackingList&) = delete;  ///< A list is one of a kind.

  /// Adds what is in the folder at `path`, and all below. Every folder there gets an entry, its name with "/"
  /// at the end, with its permissions and date.
  ///
  /// The exact form takes what KQZipFileWriter::addContentsOfDirectory() does, whatever the options say of
  /// hidden items and links: files alone, those whose own names begin with "." left out, but not what hidden
  /// folders hold.
  void addTree(const std::string& path, const KQZipTreeOptions& options = {});

  /// Adds the item at `path` under `name`: a file, a folder without what is in it, or a symbolic link. The
  /// final "/" of a folder's name is added where it lacks.
  void addItem(const std::string& path, const std::string& name, KQZipLinks links = KQZipLinks::Follow,
               const KQZipEntryAttributes& attributes = {});

  /// Adds a file with these bytes, which are shared and not copied. Null is no bytes.
  void addData(std::shared_ptr<const KQ::NSData> data, const std::string& name,
               const KQZipEntryAttributes& attributes = {});

  /// Adds a file with a copy of these bytes.
  void addData(const std::string& bytes, const std::string& name,
               const KQZipEntryAttributes& attributes = {});

  /// Adds a file with the next `length` bytes of the stream, which is open, and read by the thread that
  /// packs, once: a second pack() needs another stream. It is left out when it gives fewer bytes; more are
  /// not read.
  void addStream(std::shared_ptr<KQ::NSInputStream> stream, std::uint64_t length, const std::string& name,
                 const KQZipEntryAttributes& attributes = {});

  /// Adds a folder without contents. The exact form leaves it out.
  void addFolder(const std::string& name, const KQZipEntryAttributes& attributes = {});

  /// Adds a symbolic link to `target`. The exact form leaves it out.
  void addLink(const std::string& target, const std::string& name,
               const KQZipEntryAttributes& attributes = {});

  /// Packs the list into a new archive. It is written under another name in the same folder,
  /// "NAME.XXXXXX.part" with six random characters, compared with what was meant, and only then appears under
  /// its own. Whatever stops it before leaves the folder as it was; a process that is killed leaves the file
  /// with the other name, from which every entry before the first that is not whole can be extracted.
  ///
  /// The progress, a child of the thread's current one, counts bytes. Cancelling it ends the work within a
  /// block of about a megabyte.
  ///
  /// Fails with -1 "Could not write to zip path %@" where anything has the archive's name, a symbolic link
  /// included, unless it is to be replaced, and with -1 "Could not write to zip path %@ because parent
  /// directory doesn't exist"; with -204 "%@ is the name of two sources", a file that is also another's
  /// folder included, and -204 "%@ cannot be the name of an entry", before anything is written; with -90
  /// "Cancelled by user."; with -51 "%@ does not hold what was written to it"; with the system's error
  /// (NSPOSIXErrorDomain), which names the archive, when it cannot be made, written or given its name. If the
  /// options ask for it, with the system's error, or -50 "%@ changed while it was packed", for the first
  /// source that would be left out as failed.
  bool pack(const std::string& zipPath, const KQZipPackingOptions& options = {},
            KQ::NSErrorSlot error = nullptr);

  /// Packs the list into a stream, which is open and stays so, from its first byte to its last; nothing is
  /// changed afterwards. Files larger than about a megabyte are read twice. Offsets in the archive count from
  /// the stream's first byte if it has a current offset, otherwise from the archive's.
  ///
  /// Fails as above, but where it concerns the archive's path, and with the stream's own error, or -51 "Error
  /// writing file" if it has none, when the stream does not take everything; with -50 "%@ changed while it
  /// was packed" for a large file whose second reading differs from its first.
  bool pack(KQ::NSOutputStream& stream, const KQZipPackingOptions& options = {},
            KQ::NSErrorSlot error = nullptr);

  /// Finds out what pack() would pack, and its length as far as it is known without reading: looks at the
  /// sources, writes nothing. Fails as pack() does before it writes.
  bool examine(const KQZipPackingOptions& options = {}, KQ::NSErrorSlot error = nullptr);

  /// What was not packed by the last pack(), or would not be after examine(): first what was not chosen, in
  /// the order of the sources, then what failed as it was read, in the order of the archive. Valid until the
  /// next call of one of the two.
  const std::vector<KQZipLeftOut>& leftOut() const;

  /// Number of entries of the last pack() or examine().
  std::size_t count() const;

  /// The entry at `index` below count(), in the order of the archive.
  KQZipPackedItem item(std::size_t index) const;

 private:
  struct KQZIP_HIDDEN State;
  std::unique_ptr<State> state_;
};
