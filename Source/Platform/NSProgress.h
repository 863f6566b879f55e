#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "KQExport.h"

namespace KQ {

/// The kind of a progress that counts the bytes of a file.
inline constexpr char NSProgressKindFile[] = "NSProgressKindFile";

/// A number of bytes as a unit count, at most the largest count.
inline std::int64_t NSUnitCount(std::uint64_t bytes) {
  return bytes > INT64_MAX ? INT64_MAX : static_cast<std::int64_t>(bytes);
}

/// The progress of a piece of work, in units. Progresses form a tree: one that is current on a thread becomes
/// the parent of every progress made on that thread. So a caller can watch and cancel work that it does
/// not see.
///
///     auto all = KQ::NSProgress::progressWithTotalUnitCount(1);
///     all->becomeCurrentWithPendingUnitCount(1);
///     writer.writeToZipPath("out.zip", &error);   // its progress becomes a child of `all`
///     all->resignCurrent();
///
/// Any thread may call any operation at any time. becomeCurrentWithPendingUnitCount() and resignCurrent() act
/// on the calling thread's stack of current progresses. A child keeps its parents alive; a parent does not
/// keep its children alive.
class KQZIP_EXPORT NSProgress : public std::enable_shared_from_this<NSProgress> {
 public:
  /// A new progress. If the calling thread has a current progress, the new one is its child. The child is
  /// worth the pending unit count with which the parent became current, and starts cancelled if the parent is
  /// cancelled.
  static std::shared_ptr<NSProgress> progressWithTotalUnitCount(std::int64_t totalUnitCount);

  /// The calling thread's current progress, or empty.
  static std::shared_ptr<NSProgress> currentProgress();

  ~NSProgress();
  NSProgress(const NSProgress&) = delete;             ///< A progress is shared, never copied.
  NSProgress& operator=(const NSProgress&) = delete;  ///< A progress is shared, never copied.

  /// Pushes the receiver onto the calling thread's stack. While it is on top, every progress made on the
  /// thread becomes its child, worth `pendingUnitCount` of the receiver's units.
  void becomeCurrentWithPendingUnitCount(std::int64_t pendingUnitCount);

  /// Pops the receiver off the calling thread's stack and settles the children made since the push: their
  /// units that are not counted yet count as completed. Without children it adds nothing. Progresses above
  /// the receiver were left there by a failure or a cancellation; they are popped too, and not settled. Does
  /// nothing when the receiver is not on the stack.
  void resignCurrent();

  /// Units of the whole work. Negative while unknown.
  std::int64_t totalUnitCount() const;
  void setTotalUnitCount(std::int64_t count);  ///< May finish the receiver; see isFinished().

  /// Completed units, including those of children that are finished or settled.
  std::int64_t completedUnitCount() const;
  void setCompletedUnitCount(std::int64_t count);  ///< May finish the receiver; see isFinished().

  /// Completed units and the fractions of running children, divided by the total: 0 to 1. 0 while the
  /// progress is indeterminate (a negative count, or both counts 0).
  double fractionCompleted() const;

  /// True when the total is known, the completed units have reached it and one of the two is above 0. When a
  /// child finishes, its units are added to its parent's completed count, once.
  bool isFinished() const;

  /// True once the receiver or a progress above it is cancelled. This cannot be undone.
  bool isCancelled() const { return cancelled_.load(std::memory_order_acquire); }

  /// Cancels the receiver and everything below it, including progresses made there later.
  void cancel();

  /// Whether the work can be cancelled, for a user interface that offers it. True by default. cancel()
  /// ignores it.
  bool isCancellable() const { return cancellable_.load(std::memory_order_relaxed); }
  void setCancellable(bool value) { cancellable_.store(value, std::memory_order_relaxed); }

  /// Whether the work can pause. False by default.
  bool isPausable() const { return pausable_.load(std::memory_order_relaxed); }
  void setPausable(bool value) { pausable_.store(value, std::memory_order_relaxed); }

  /// What is counted, for instance NSProgressKindFile. Empty by default.
  std::string kind() const;
  void setKind(const std::string& kind);

 private:
  // A list of children, linked through the children themselves, so that adding and removing allocates
  // nothing.
  struct KQZIP_HIDDEN ChildList {
    NSProgress* first = nullptr;
    void add(NSProgress* child);
    void remove(NSProgress* child);
  };

  // Units of children that were made in one scope and destroyed before the scope was settled.
  struct ReleasedUnits {
    std::uint64_t scope;
    std::int64_t units;
  };

  // Lets std::make_shared() construct one.
  struct Made;

  explicit NSProgress(std::int64_t totalUnitCount);
  KQZIP_HIDDEN void _attachTo(const std::shared_ptr<NSProgress>& parent, std::int64_t units,
                              std::uint64_t scope);
  KQZIP_HIDDEN void _settleChildrenOfScope(std::uint64_t scope);
  KQZIP_HIDDEN ReleasedUnits& _releasedUnitsOfScope(std::uint64_t scope);
  KQZIP_HIDDEN void _countIntoParent();
  KQZIP_HIDDEN void _countIntoParentOnceFinished();
  KQZIP_HIDDEN void _cancel();
  KQZIP_HIDDEN bool _isFinished() const;
  KQZIP_HIDDEN double _fractionCompleted() const;

  // One lock for a whole tree: trees are shallow, and work counts once per block and not once per byte.
  std::shared_ptr<std::mutex> treeLock_;
  std::shared_ptr<NSProgress> parent_;
  std::int64_t unitsInParent_ = 0;
  std::uint64_t scopeInParent_ = 0;
  bool countedIntoParent_ = true;
  NSProgress* previousSibling_ = nullptr;
  NSProgress* nextSibling_ = nullptr;
  // Children whose units are not counted yet, and those that only a cancellation still reaches.
  ChildList running_;
  ChildList settled_;
  std::vector<ReleasedUnits> released_;
  std::int64_t totalUnitCount_;
  std::int64_t completedUnitCount_ = 0;
  std::string kind_;
  std::atomic<bool> cancelled_{false};
  std::atomic<bool> cancellable_{true};
  std::atomic<bool> pausable_{false};
};

}  // namespace KQ
