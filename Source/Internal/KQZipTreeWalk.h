#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "../Archive/KQZipPackingOptions.h"
#include "../Platform/Internal/NSSystem.h"
#include "../Platform/NSError.h"
#include "../Platform/NSProgress.h"
#include "KQZipPackingEntries.h"

/// Finds the entries of sources in the file system, and notes what is left out. Files are not opened. For the
/// library's own use.
class KQZipTreeWalk {
 public:
  /// Adds to `found`. With `measuring` every file's size is asked for. A progress may cancel it.
  KQZipTreeWalk(KQZipPackingEntries& found, const KQZipPackingOptions& options, bool measuring,
                const KQ::NSProgress* progress);

  /// Adds the entries of a source. Fails with -90, and with the error of what cannot be packed if it is to
  /// fail at once.
  bool add(std::uint32_t source, KQ::NSErrorSlot error);

 private:
  struct Item {
    std::string name;
    KQ::NSItemType type;
    std::uint64_t size;
  };
  // A folder with its items that are still to be visited, the last one first.
  struct Folder {
    std::string name;  // In the archive, with "/" at the end, or empty.
    bool isIncluded;
    std::uint64_t device;
    std::uint64_t number;
    std::vector<Item> items;
  };

  bool _addTree();
  bool _addItem();
  void _addGiven();
  bool _enter(std::string name, bool followingLink, bool isIncluded);
  bool _list(KQ::NSHandle folder, std::vector<Item>* items);
  int _identify(KQ::NSHandle folder, const KQ::NSListedItem& listed, Item* item) const;
  bool _visit(Item item);
  bool _visitLink(Item* item, const std::string& name, bool isIncluded);
  bool _isChosen(const Item& item, const std::string& name, bool* isIncluded);
  bool _isCircle(const KQ::NSItemStatus& status) const;
  void _addFolder(const std::string& name, const KQ::NSItemStatus& status);
  KQZipPackingEntry& _add(std::string_view name, KQZipPackingEntry::Kind kind);
  void _leaveOut(const std::string& name, KQZipLeftOut::Why why, const char* reason);
  bool _leaveOutFailed(const std::string& name, int code);
  const std::string& _pathOf(const std::string& name);

  KQZipPackingEntries& found_;
  const bool isExact_;
  const bool measuring_;
  const bool atOnce_;
  const KQ::NSProgress* const progress_;

  // The source that is added.
  std::uint32_t source_ = 0;
  const KQZipTreeOptions* options_ = nullptr;
  KQ::NSErrorSlot error_ = nullptr;
  std::vector<Folder> folders_;
  std::string path_;
};
