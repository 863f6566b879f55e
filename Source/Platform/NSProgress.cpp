#include "NSProgress.h"

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

namespace KQ {

namespace {

// One progress on a thread's stack. The scope tells the children of one push from those of another.
struct Frame {
  std::shared_ptr<NSProgress> progress;
  std::int64_t pendingUnitCount;
  std::uint64_t scope;
};

std::vector<Frame>& threadStack() {
  thread_local std::vector<Frame> stack;
  return stack;
}

std::uint64_t nextScope() {
  static std::atomic<std::uint64_t> scope{0};
  return ++scope;
}

}  // namespace

struct NSProgress::Made : NSProgress {
  explicit Made(std::int64_t totalUnitCount) : NSProgress(totalUnitCount) {}
};

void NSProgress::ChildList::add(NSProgress* child) {
  child->previousSibling_ = nullptr;
  child->nextSibling_ = first;
  if (first != nullptr) first->previousSibling_ = child;
  first = child;
}

void NSProgress::ChildList::remove(NSProgress* child) {
  if (child->nextSibling_ != nullptr) child->nextSibling_->previousSibling_ = child->previousSibling_;
  if (child->previousSibling_ != nullptr) {
    child->previousSibling_->nextSibling_ = child->nextSibling_;
  } else {
    first = child->nextSibling_;
  }
}

std::shared_ptr<NSProgress> NSProgress::progressWithTotalUnitCount(std::int64_t totalUnitCount) {
  std::shared_ptr<NSProgress> progress = std::make_shared<Made>(totalUnitCount);
  if (threadStack().empty()) {
    progress->treeLock_ = std::make_shared<std::mutex>();
  } else {
    const Frame& top = threadStack().back();
    progress->_attachTo(top.progress, top.pendingUnitCount, top.scope);
  }
  return progress;
}

std::shared_ptr<NSProgress> NSProgress::currentProgress() {
  return threadStack().empty() ? nullptr : threadStack().back().progress;
}

NSProgress::NSProgress(std::int64_t totalUnitCount) : totalUnitCount_(totalUnitCount) {}

NSProgress::~NSProgress() {
  if (!parent_) return;
  const std::lock_guard<std::mutex> guard(*treeLock_);
  if (countedIntoParent_) {
    parent_->settled_.remove(this);
  } else {
    parent_->running_.remove(this);
    parent_->_releasedUnitsOfScope(scopeInParent_).units += unitsInParent_;
  }
}

void NSProgress::becomeCurrentWithPendingUnitCount(std::int64_t pendingUnitCount) {
  threadStack().push_back({shared_from_this(), pendingUnitCount, nextScope()});
}

void NSProgress::resignCurrent() {
  std::vector<Frame>& stack = threadStack();
  const auto found = std::find_if(stack.rbegin(), stack.rend(),
                                  [this](const Frame& frame) { return frame.progress.get() == this; });
  if (found == stack.rend()) return;
  const auto own = std::prev(found.base());

  // The stack may hold the last reference to the receiver.
  const std::shared_ptr<NSProgress> keptAlive = shared_from_this();
  const std::uint64_t scope = own->scope;
  stack.erase(own, stack.end());
  _settleChildrenOfScope(scope);
}

std::int64_t NSProgress::totalUnitCount() const {
  const std::lock_guard<std::mutex> guard(*treeLock_);
  return totalUnitCount_;
}

void NSProgress::setTotalUnitCount(std::int64_t count) {
  const std::lock_guard<std::mutex> guard(*treeLock_);
  totalUnitCount_ = count;
  _countIntoParentOnceFinished();
}

std::int64_t NSProgress::completedUnitCount() const {
  const std::lock_guard<std::mutex> guard(*treeLock_);
  return completedUnitCount_;
}

void NSProgress::setCompletedUnitCount(std::int64_t count) {
  const std::lock_guard<std::mutex> guard(*treeLock_);
  completedUnitCount_ = count;
  _countIntoParentOnceFinished();
}

double NSProgress::fractionCompleted() const {
  const std::lock_guard<std::mutex> guard(*treeLock_);
  return _fractionCompleted();
}

bool NSProgress::isFinished() const {
  const std::lock_guard<std::mutex> guard(*treeLock_);
  return _isFinished();
}

void NSProgress::cancel() {
  const std::lock_guard<std::mutex> guard(*treeLock_);
  _cancel();
}

std::string NSProgress::kind() const {
  const std::lock_guard<std::mutex> guard(*treeLock_);
  return kind_;
}

void NSProgress::setKind(const std::string& kind) {
  const std::lock_guard<std::mutex> guard(*treeLock_);
  kind_ = kind;
}

void NSProgress::_attachTo(const std::shared_ptr<NSProgress>& parent, std::int64_t units,
                           std::uint64_t scope) {
  treeLock_ = parent->treeLock_;
  const std::lock_guard<std::mutex> guard(*treeLock_);
  parent_ = parent;
  unitsInParent_ = units;
  scopeInParent_ = scope;
  countedIntoParent_ = false;
  parent->running_.add(this);
  // Made here, so that destroying a child never allocates.
  parent->_releasedUnitsOfScope(scope);
  if (parent->isCancelled()) _cancel();
}

void NSProgress::_settleChildrenOfScope(std::uint64_t scope) {
  const std::lock_guard<std::mutex> guard(*treeLock_);
  for (NSProgress* child = running_.first; child != nullptr;) {
    NSProgress* const next = child->nextSibling_;
    if (child->scopeInParent_ == scope) child->_countIntoParent();
    child = next;
  }
  const auto released = std::find_if(released_.begin(), released_.end(),
                                     [scope](const ReleasedUnits& entry) { return entry.scope == scope; });
  if (released != released_.end()) {
    completedUnitCount_ += released->units;
    released_.erase(released);
  }
  _countIntoParentOnceFinished();
}

NSProgress::ReleasedUnits& NSProgress::_releasedUnitsOfScope(std::uint64_t scope) {
  // Scopes nest, so the wanted one is nearly always the last.
  const auto found = std::find_if(released_.rbegin(), released_.rend(),
                                  [scope](const ReleasedUnits& entry) { return entry.scope == scope; });
  if (found != released_.rend()) return *found;
  return released_.emplace_back(ReleasedUnits{scope, 0});
}

void NSProgress::_countIntoParent() {
  countedIntoParent_ = true;
  parent_->running_.remove(this);
  parent_->settled_.add(this);
  parent_->completedUnitCount_ += unitsInParent_;
}

void NSProgress::_countIntoParentOnceFinished() {
  for (NSProgress* progress = this; !progress->countedIntoParent_ && progress->_isFinished();
       progress = progress->parent_.get()) {
    progress->_countIntoParent();
  }
}

void NSProgress::_cancel() {
  cancelled_.store(true, std::memory_order_release);
  for (NSProgress* child = running_.first; child != nullptr; child = child->nextSibling_) child->_cancel();
  for (NSProgress* child = settled_.first; child != nullptr; child = child->nextSibling_) child->_cancel();
}

bool NSProgress::_isFinished() const {
  return totalUnitCount_ >= 0 && completedUnitCount_ >= totalUnitCount_ && completedUnitCount_ > 0;
}

double NSProgress::_fractionCompleted() const {
  if (totalUnitCount_ < 0 || completedUnitCount_ < 0) return 0;
  if (totalUnitCount_ == 0) return completedUnitCount_ > 0 ? 1 : 0;
  auto completed = static_cast<double>(completedUnitCount_);
  for (const NSProgress* child = running_.first; child != nullptr; child = child->nextSibling_)
    completed += static_cast<double>(child->unitsInParent_) * child->_fractionCompleted();
  return std::clamp(completed / static_cast<double>(totalUnitCount_), 0.0, 1.0);
}

}  // namespace KQ
