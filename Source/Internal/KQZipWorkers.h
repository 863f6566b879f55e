#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

// Several threads for one piece of work, which consists of jobs.

/// A piece of work as a sequence of jobs. From its preparation to its end a job has a slot of its own, a
/// number below KQZipWorkers::slots(), for its input and its result. The slots are used in turn, 0 first.
///
/// Only the calling thread may use a host's stream or a progress. The jobs count in atomics of their own, and
/// goOn() adds the counts to the progress.
class KQZipJobs {
 public:
  KQZipJobs() = default;
  virtual ~KQZipJobs() = default;
  KQZipJobs(const KQZipJobs&) = delete;
  KQZipJobs& operator=(const KQZipJobs&) = delete;

  /// Prepares the next job. Runs on the calling thread, in order. False when no job is left.
  virtual bool prepare(std::size_t slot) = 0;

  /// Performs the job. Runs on any thread, several at once, each with its own slot.
  virtual void perform(std::size_t slot) = 0;

  /// Takes the job's result. Runs on the calling thread, in the order of preparation. False ends the work: no
  /// other job is finished, though some may have been performed.
  virtual bool finish(std::size_t slot) = 0;

  /// Asked before each step, and repeatedly while other threads work. Runs on the calling thread. False ends
  /// the work.
  virtual bool goOn() = 0;
};

/// The threads. The calling thread is one of them: with one thread it does everything, and each job is
/// prepared, performed and finished before the next. More threads only change the time. A thread is started
/// when there is a job for it; if the system starts no more, fewer threads do the work.
class KQZipWorkers {
 public:
  /// Uses at most `threads` threads; 0 for one per processor that the process may use.
  explicit KQZipWorkers(unsigned threads);
  ~KQZipWorkers();
  KQZipWorkers(const KQZipWorkers&) = delete;
  KQZipWorkers& operator=(const KQZipWorkers&) = delete;

  /// The largest number of threads.
  unsigned threads() const { return threads_; }

  /// The largest number of jobs between preparation and end.
  std::size_t slots() const { return states_.size(); }

  /// Performs all jobs. True when the last one is finished, false when the work ended before. An exception of
  /// a job is thrown here, in the job's turn. When this returns or throws, no job is running.
  bool run(KQZipJobs& jobs);

  /// True once the work has to end early, for long jobs to ask. Any thread may call it.
  bool isEnding() const { return ending_.load(std::memory_order_relaxed); }

 private:
  // The state of the job in a slot.
  struct State {
    bool performed = false;
    std::exception_ptr thrown;
  };

  class Ending;

  bool _runAlone(KQZipJobs& jobs);
  bool _runTogether(KQZipJobs& jobs);
  void _publish(KQZipJobs& jobs);
  void _startThread(KQZipJobs& jobs);
  void _work(KQZipJobs& jobs);
  bool _performOne(KQZipJobs& jobs, std::unique_lock<std::mutex>& lock);
  bool _isNextPerformed();
  void _performOrWait(KQZipJobs& jobs);
  void _end();
  std::size_t _slotOf(std::uint64_t ticket) const { return static_cast<std::size_t>(ticket % slots()); }

  unsigned threads_;
  std::vector<State> states_;
  std::vector<std::thread> started_;
  bool mayStart_ = true;
  std::atomic<bool> ending_{false};

  // Guards what follows, and the states of jobs that are not finished. Tickets count the jobs.
  std::mutex mutex_;
  std::condition_variable somethingToDo_;
  std::condition_variable somethingDone_;
  std::uint64_t prepared_ = 0;
  std::uint64_t taken_ = 0;
  std::uint64_t finished_ = 0;
  std::size_t idle_ = 0;
};
