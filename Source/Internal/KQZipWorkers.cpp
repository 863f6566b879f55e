#include "KQZipWorkers.h"

#include <algorithm>
#include <chrono>
#include <system_error>
#include <utility>

#include "../Platform/Internal/NSSystem.h"

namespace {

// More are of no use on any machine, and each costs memory.
constexpr unsigned mostThreads = 256;

// A running job and a waiting one for each thread: no thread waits while the calling thread is busy.
constexpr std::size_t slotsForThread = 2;

// How long the calling thread waits for other threads before it asks again whether to continue.
constexpr std::chrono::milliseconds patience{20};

unsigned threadsFor(unsigned asked) {
  return std::clamp(asked == 0 ? KQ::NSSystem::current().processors() : asked, 1U, mostThreads);
}

}  // namespace

/// Ends the threads, whichever way run() is left.
class KQZipWorkers::Ending {
 public:
  explicit Ending(KQZipWorkers& workers) : workers_(workers) {}
  ~Ending() { workers_._end(); }
  Ending(const Ending&) = delete;
  Ending& operator=(const Ending&) = delete;

 private:
  KQZipWorkers& workers_;
};

KQZipWorkers::KQZipWorkers(unsigned threads)
    : threads_(threadsFor(threads)), states_(threads_ == 1 ? 1 : threads_ * slotsForThread) {}

KQZipWorkers::~KQZipWorkers() = default;

bool KQZipWorkers::run(KQZipJobs& jobs) {
  ending_.store(false, std::memory_order_relaxed);
  return threads_ == 1 ? _runAlone(jobs) : _runTogether(jobs);
}

bool KQZipWorkers::_runAlone(KQZipJobs& jobs) {
  for (;;) {
    if (!jobs.goOn()) return false;
    if (!jobs.prepare(0)) return true;
    jobs.perform(0);
    if (!jobs.finish(0)) return false;
  }
}

bool KQZipWorkers::_runTogether(KQZipJobs& jobs) {
  prepared_ = taken_ = finished_ = 0;
  const Ending ending(*this);
  bool areMore = true;
  while (jobs.goOn()) {
    if (_isNextPerformed()) {
      const std::size_t slot = _slotOf(finished_);
      if (states_[slot].thrown) std::rethrow_exception(std::exchange(states_[slot].thrown, nullptr));
      if (!jobs.finish(slot)) return false;
      const std::lock_guard lock(mutex_);
      ++finished_;
    } else if (areMore && prepared_ - finished_ < slots()) {
      areMore = jobs.prepare(_slotOf(prepared_));
      if (areMore) _publish(jobs);
    } else if (!areMore && finished_ == prepared_) {
      return true;
    } else {
      _performOrWait(jobs);
    }
  }
  return false;
}

void KQZipWorkers::_publish(KQZipJobs& jobs) {
  bool needsThread = false;
  {
    const std::lock_guard lock(mutex_);
    states_[_slotOf(prepared_)].performed = false;
    ++prepared_;
    // One job is left for the calling thread, so that a single job starts no thread.
    needsThread = prepared_ - taken_ > idle_ + 1;
  }
  somethingToDo_.notify_one();
  if (needsThread && mayStart_ && started_.size() + 1 < threads_) _startThread(jobs);
}

void KQZipWorkers::_startThread(KQZipJobs& jobs) {
  try {
    started_.reserve(threads_);
    started_.emplace_back([this, &jobs] { _work(jobs); });
  } catch (const std::system_error&) {
    // The system has no more threads: the running ones, at least the calling thread, do all the work.
    mayStart_ = false;
  }
}

void KQZipWorkers::_work(KQZipJobs& jobs) {
  std::unique_lock lock(mutex_);
  for (;;) {
    ++idle_;
    somethingToDo_.wait(lock, [this] { return isEnding() || taken_ < prepared_; });
    --idle_;
    if (isEnding()) return;
    _performOne(jobs, lock);
  }
}

// Performs the oldest job that is not taken. False when there is none.
bool KQZipWorkers::_performOne(KQZipJobs& jobs, std::unique_lock<std::mutex>& lock) {
  if (taken_ == prepared_) return false;
  const std::uint64_t ticket = taken_++;
  const std::size_t slot = _slotOf(ticket);
  lock.unlock();
  std::exception_ptr thrown;
  try {
    jobs.perform(slot);
  } catch (...) {
    thrown = std::current_exception();
  }
  lock.lock();
  states_[slot].thrown = std::move(thrown);
  states_[slot].performed = true;
  if (ticket == finished_) somethingDone_.notify_one();
  return true;
}

bool KQZipWorkers::_isNextPerformed() {
  const std::lock_guard lock(mutex_);
  return finished_ < prepared_ && states_[_slotOf(finished_)].performed;
}

void KQZipWorkers::_performOrWait(KQZipJobs& jobs) {
  std::unique_lock lock(mutex_);
  if (_performOne(jobs, lock)) return;
  somethingDone_.wait_for(lock, patience, [this] { return states_[_slotOf(finished_)].performed; });
}

void KQZipWorkers::_end() {
  {
    const std::lock_guard lock(mutex_);
    ending_.store(true, std::memory_order_relaxed);
  }
  somethingToDo_.notify_all();
  for (std::thread& thread : started_) thread.join();
  started_.clear();
  mayStart_ = true;
  for (State& state : states_) state = State();
}
