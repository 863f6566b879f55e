#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

// Several threads for one piece of work that falls into jobs. For the library's own use.

/// A piece of work as a row of jobs. A job has a slot while it is on its way: a place of its own, below
/// KQZipWorkers::slots(), for what it was given and what it has made. The slots are used in turn, 0 first.
///
/// Whatever touches a host's stream or a progress belongs into what the calling thread does. The jobs count
/// into atomics of their own, and goOn() moves the count to the progress.
class KQZipJobs {
 public:
  KQZipJobs() = default;
  virtual ~KQZipJobs() = default;
  KQZipJobs(const KQZipJobs&) = delete;
  KQZipJobs& operator=(const KQZipJobs&) = delete;

  /// Makes the next job ready. The calling thread, in order. False when there is none left.
  virtual bool prepare(std::size_t slot) = 0;

  /// Does the job. Any thread, several at once, each with a slot of its own.
  virtual void perform(std::size_t slot) = 0;

  /// Takes over what the job has made. The calling thread, in the order in which the jobs were prepared.
  /// False ends the work: no other job is finished, but some may have been performed.
  virtual bool finish(std::size_t slot) = 0;

  /// Asked before each step and again and again while others work. The calling thread. False ends the work.
  virtual bool goOn() = 0;
};

/// The threads. The calling thread is one of them, so that with one thread it does everything: each job is
/// prepared, performed and finished before the next. More threads change nothing but the time that it takes.
/// A thread is started when there is a job for it; where the system starts no more, fewer do the work.
class KQZipWorkers {
 public:
  /// Uses `threads` threads at most, 0 for as many as the process may use processors.
  explicit KQZipWorkers(unsigned threads);
  ~KQZipWorkers();
  KQZipWorkers(const KQZipWorkers&) = delete;
  KQZipWorkers& operator=(const KQZipWorkers&) = delete;

  /// How many threads work at most.
  unsigned threads() const { return threads_; }

  /// How many jobs are on their way at most.
  std::size_t slots() const { return states_.size(); }

  /// Does all jobs. True when the last one is finished, false when something ended the work before. What a
  /// job throws is thrown here, in its turn. When this returns or throws, no job is being performed.
  bool run(KQZipJobs& jobs);

  /// True once the work has to end early. A job that takes long asks. Any thread.
  bool isEnding() const { return ending_.load(std::memory_order_relaxed); }

 private:
  // Where the job in a slot stands.
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
