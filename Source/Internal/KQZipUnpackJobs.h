#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "../Archive/KQZipUnpackOptions.h"
#include "../Platform/NSProgress.h"
#include "KQZipArchiveState.h"
#include "KQZipNewFile.h"
#include "KQZipUnpackPlan.h"
#include "KQZipWorkers.h"

// Gives the files of an archive back. For the library's own use.

/// The files as jobs: a run of small ones that are read in one piece, or a block of a large one.
class KQZipUnpackJobs final : public KQZipJobs {
 public:
  KQZipUnpackJobs(const KQZipArchiveState& archive, const KQZipUnpackPlan& plan,
                  const KQZipUnpackOptions& options, KQZipPlacing& placing, std::size_t slots,
                  KQ::NSProgress& progress);
  ~KQZipUnpackJobs() override;

  /// The files that the next work is about. Those whose names are others' to some file systems need one
  /// thread.
  void setFiles(const std::vector<KQZipUnpackItem>& files) {
    files_ = &files;
    next_ = 0;
  }

  /// Makes the symbolic links, one after the other. False when it was cancelled.
  bool makeLinks();

  /// What went wrong, in any order.
  std::vector<KQZipPlacedProblem>& problems() { return problems_; }

  bool prepare(std::size_t slot) override;
  void perform(std::size_t slot) override;
  bool finish(std::size_t slot) override;
  bool goOn() override;

 private:
  /// A file that is written in several blocks.
  struct LargeFile {
    LargeFile(KQZipPlacing& placing, const KQZipUnpackItem& asked) : item(asked), file(placing) {}
    ~LargeFile();
    LargeFile(const LargeFile&) = delete;
    LargeFile& operator=(const LargeFile&) = delete;

    const KQZipUnpackItem& item;
    KQ::NSHandle folder = -1;
    KQZipNewFile file;
    std::uint64_t dataAt = 0;
    std::uint64_t prepared = 0;       ///< Bytes that jobs were made for.
    std::uint64_t finished = 0;       ///< Bytes that are written, without a gap.
    std::uint32_t crc = 0;            ///< Of these.
    bool hasProblem = false;          ///< One was told of.
    std::atomic<bool> isOver{false};  ///< Something went wrong: the rest is not written.
  };

  struct Slot {
    explicit Slot(const KQZipDestinationFolder& destination) : handles(destination) {}

    std::unique_ptr<std::uint8_t[]> bytes;
    std::uint64_t start = 0;   ///< Where in the archive the bytes stand.
    std::uint64_t length = 0;  ///< How many are wanted.
    std::int64_t count = 0;    ///< How many were read.
    std::shared_ptr<const KQ::NSError> error;

    std::vector<const KQZipUnpackItem*> run;  ///< The files of a run.
    std::vector<KQZipPlacedProblem> problems;
    std::vector<const KQZipUnpackItem*> given;
    std::vector<const KQZipUnpackItem*> kept;
    KQZipDestinationFolder::Handles handles;
    KQZipTargetPath target;

    std::shared_ptr<LargeFile> large;  ///< The file of a block.
    std::uint64_t offset = 0;          ///< Where in the file the block begins.
    std::uint32_t crc = 0;
  };

  const KQZipIndexRecord& _recordOf(const KQZipUnpackItem& item) const;
  std::uint32_t _indexOf(const KQZipUnpackItem& item) const { return archive_.index.inOrder(item.place); }
  std::uint64_t _spanOf(const KQZipUnpackItem& item) const;
  bool _makeFolderOf(const KQZipUnpackItem& item);
  bool _prepareRun(Slot& slot);
  void _beginLarge(const KQZipUnpackItem& item);
  KQZipNewFile::Outcome _openLarge(LargeFile& large, KQ::NSErrorSlot error);
  void _prepareBlock(Slot& slot);
  void _read(Slot& slot) const;
  void _performRun(Slot& slot);
  void _performBlock(Slot& slot) const;
  void _giveBack(Slot& slot, const KQZipUnpackItem& item, KQZipBytes bytes);
  void _write(Slot& slot, const KQZipUnpackItem& item, KQZipBytes data);
  void _finishRun(Slot& slot);
  void _finishBlock(Slot& slot);
  void _settleLarge(LargeFile& large);
  KQZipNewFile::Outcome _makeLink(const KQZipUnpackItem& item, const std::string& target,
                                  KQ::NSErrorSlot error);
  bool _isLinkInside(const KQZipUnpackItem& item, const std::string& target);
  bool _readLink(const KQZipUnpackItem& item, std::string* target);
  void _tell(const KQZipUnpackItem& item, bool isKept);
  void _addText(const KQZipUnpackItem& item, KQZipProblemKind kind, const std::string& text);
  void _addProblem(std::vector<KQZipPlacedProblem>& problems, const KQZipUnpackItem& item,
                   const std::shared_ptr<const KQ::NSError>& error) const;
  void _addFinding(std::vector<KQZipPlacedProblem>& problems, const KQZipUnpackItem& item,
                   const KQZipFinding& finding) const;
  KQ::NSItemTime _timeOf(const KQZipUnpackItem& item) const;
  std::optional<std::uint16_t> _permissionsOf(const KQZipUnpackItem& item) const;

  const KQZipArchiveState& archive_;
  const KQZipUnpackPlan& plan_;
  const KQZipUnpackOptions& options_;
  KQZipPlacing& placing_;
  KQ::NSProgress& progress_;
  const std::vector<KQZipUnpackItem>* files_ = nullptr;
  std::size_t next_ = 0;
  std::shared_ptr<LargeFile> large_;
  std::vector<std::unique_ptr<Slot>> slots_;
  std::vector<KQZipPlacedProblem> problems_;
  std::set<KQZipItemIdentity> others_;
  std::atomic<std::uint64_t> bytesDone_{0};
  std::uint64_t bytesTold_ = 0;
};
