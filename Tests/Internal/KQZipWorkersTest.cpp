#include <KQZip/Internal/KQZipWorkers.h>
#include <KQZip/Platform/Internal/NSSystem.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <functional>
#include <new>
#include <string>
#include <thread>
#include <vector>

namespace {

// How many threads the system still starts; negative for no end.
std::atomic<int> threadsLeft{-1};
std::atomic<int> threadsStarted{0};

using CreateThread = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

}  // namespace

// A sanitizer's own function, which has to hear of each thread.
extern "C" __attribute__((weak)) CreateThread __interceptor_pthread_create;

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                              void* argument) {
  if (threadsLeft == 0) return EAGAIN;
  if (threadsLeft > 0) --threadsLeft;
  ++threadsStarted;
  auto* create = __interceptor_pthread_create;
  if (create == nullptr) create = reinterpret_cast<CreateThread*>(dlsym(RTLD_NEXT, "pthread_create"));
  return create(thread, attributes, start, argument);
}

namespace {

using Numbers = std::vector<std::size_t>;

/// Jobs 0 to `count` - 1. Each squares its number; the calling thread gathers the squares.
class Squares : public KQZipJobs {
 public:
  Squares(std::size_t count, std::size_t slots) : count_(count), places_(slots) {}

  bool prepare(std::size_t slot) override {
    expectCallingThread();
    EXPECT_LT(slot, places_.size());
    if (prepared_ == count_) return false;
    EXPECT_FALSE(places_[slot].isTaken);
    EXPECT_EQ(prepared_ % places_.size(), slot);
    places_[slot] = {true, prepared_++, 0};
    if (onPrepare) onPrepare(places_[slot].number);
    return true;
  }

  void perform(std::size_t slot) override {
    const std::size_t number = places_[slot].number;
    if (onPerform) onPerform(number);
    if (std::this_thread::get_id() != callingThread_) ++performedElsewhere;
    ++performed;
    places_[slot].result = number * number;
  }

  bool finish(std::size_t slot) override {
    expectCallingThread();
    EXPECT_TRUE(places_[slot].isTaken);
    places_[slot].isTaken = false;
    EXPECT_EQ(results.size(), places_[slot].number);
    results.push_back(places_[slot].result);
    return !onFinish || onFinish(places_[slot].number);
  }

  bool goOn() override {
    expectCallingThread();
    return !onGoOn || onGoOn();
  }

  std::function<void(std::size_t)> onPrepare;
  std::function<void(std::size_t)> onPerform;
  std::function<bool(std::size_t)> onFinish;
  std::function<bool()> onGoOn;

  std::atomic<std::size_t> performed{0};
  std::atomic<std::size_t> performedElsewhere{0};
  Numbers results;

 private:
  struct Place {
    bool isTaken = false;
    std::size_t number = 0;
    std::size_t result = 0;
  };

  void expectCallingThread() const { EXPECT_EQ(callingThread_, std::this_thread::get_id()); }

  std::thread::id callingThread_ = std::this_thread::get_id();
  std::size_t count_;
  std::size_t prepared_ = 0;
  std::vector<Place> places_;
};

Numbers squaresBelow(std::size_t count) {
  Numbers squares;
  for (std::size_t i = 0; i < count; ++i) squares.push_back(i * i);
  return squares;
}

class KQZipWorkersOf : public testing::TestWithParam<unsigned> {
 protected:
  void TearDown() override { threadsLeft = -1; }

  KQZipWorkers workers_{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Threads, KQZipWorkersOf, testing::Values(1U, 2U, 3U, 8U));

TEST_P(KQZipWorkersOf, FinishAllJobsInOrder) {
  for (const std::size_t count : {0U, 1U, 2U, 3U, 7U, 500U}) {
    Squares jobs(count, workers_.slots());
    EXPECT_TRUE(workers_.run(jobs));
    EXPECT_EQ(squaresBelow(count), jobs.results);
    EXPECT_EQ(count, jobs.performed);
  }
}

TEST_P(KQZipWorkersOf, FinishInOrderHoweverLongEachJobTakes) {
  Squares jobs(40, workers_.slots());
  jobs.onPerform = [](std::size_t number) {
    std::this_thread::sleep_for(std::chrono::milliseconds(number % 4 == 0 ? 3 : 0));
  };
  EXPECT_TRUE(workers_.run(jobs));
  EXPECT_EQ(squaresBelow(40), jobs.results);
}

TEST_P(KQZipWorkersOf, EndWhenAJobIsRefusedAsItIsFinished) {
  Squares jobs(100, workers_.slots());
  jobs.onFinish = [](std::size_t number) { return number != 5; };
  EXPECT_FALSE(workers_.run(jobs));
  EXPECT_EQ(squaresBelow(6), jobs.results);
  EXPECT_LE(jobs.performed, 6 + workers_.slots());
}

TEST_P(KQZipWorkersOf, EndWhenToldNotToGoOn) {
  Squares jobs(1000, workers_.slots());
  jobs.onGoOn = [&] { return jobs.results.size() < 10; };
  EXPECT_FALSE(workers_.run(jobs));
  EXPECT_EQ(squaresBelow(10), jobs.results);
}

TEST_P(KQZipWorkersOf, DoNothingWhenToldNotToGoOnAtOnce) {
  Squares jobs(10, workers_.slots());
  jobs.onGoOn = [] { return false; };
  EXPECT_FALSE(workers_.run(jobs));
  EXPECT_EQ(0U, jobs.performed);
}

TEST_P(KQZipWorkersOf, ThrowWhatAJobThrewInItsTurn) {
  Squares jobs(100, workers_.slots());
  // The later one fails first where there are several threads.
  jobs.onPerform = [](std::size_t number) {
    if (number == 4) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (number == 4) throw std::bad_alloc();
    if (number == 5) throw std::string("the job after it");
  };
  EXPECT_THROW(workers_.run(jobs), std::bad_alloc);
  EXPECT_EQ(squaresBelow(4), jobs.results);
}

TEST_P(KQZipWorkersOf, ThrowWhatTheCallingThreadThrowsOnceNoJobIsPerformedAnyMore) {
  Squares atPreparing(100, workers_.slots());
  atPreparing.onPrepare = [](std::size_t number) {
    if (number == 7) throw std::bad_alloc();
  };
  EXPECT_THROW(workers_.run(atPreparing), std::bad_alloc);
  EXPECT_LE(atPreparing.performed, 7U);

  Squares atFinishing(100, workers_.slots());
  std::atomic<int> running{0};
  atFinishing.onPerform = [&](std::size_t) {
    ++running;
    std::this_thread::yield();
    --running;
  };
  atFinishing.onFinish = [](std::size_t number) -> bool {
    return number != 7 ? true : throw std::bad_alloc();
  };
  EXPECT_THROW(workers_.run(atFinishing), std::bad_alloc);
  EXPECT_EQ(0, running);
}

TEST_P(KQZipWorkersOf, DoTheNextPieceOfWorkAfterOneThatFailed) {
  Squares failing(100, workers_.slots());
  failing.onPerform = [](std::size_t) { throw std::bad_alloc(); };
  EXPECT_THROW(workers_.run(failing), std::bad_alloc);
  EXPECT_EQ(Numbers(), failing.results);
  Squares jobs(100, workers_.slots());
  EXPECT_TRUE(workers_.run(jobs));
  EXPECT_EQ(squaresBelow(100), jobs.results);
}

TEST_P(KQZipWorkersOf, DoEverythingWithTheThreadsThatTheSystemStarts) {
  for (const int allowed : {0, 1, 2}) {
    threadsLeft = allowed;
    Squares jobs(200, workers_.slots());
    EXPECT_TRUE(workers_.run(jobs));
    EXPECT_EQ(squaresBelow(200), jobs.results);
    EXPECT_TRUE(allowed > 0 || jobs.performedElsewhere == 0);
  }
}

TEST_P(KQZipWorkersOf, UseAllThreadsAtOnce) {
  Squares jobs(GetParam(), workers_.slots());
  std::atomic<unsigned> met{0};
  // Nobody goes on before all have come.
  jobs.onPerform = [&](std::size_t) {
    ++met;
    while (met < GetParam()) std::this_thread::yield();
  };
  EXPECT_TRUE(workers_.run(jobs));
  EXPECT_EQ(GetParam() - 1, jobs.performedElsewhere);
}

TEST(KQZipWorkers, WithOneThreadTheCallingThreadFinishesEachJobBeforeTheNext) {
  KQZipWorkers workers(1);
  EXPECT_EQ(1U, workers.slots());
  const int startedBefore = threadsStarted;
  Squares jobs(50, workers.slots());
  jobs.onPrepare = [&](std::size_t number) { EXPECT_EQ(number, jobs.results.size()); };
  EXPECT_TRUE(workers.run(jobs));
  EXPECT_EQ(0U, jobs.performedElsewhere);
  EXPECT_EQ(startedBefore, threadsStarted);
}

TEST(KQZipWorkers, StartNoThreadForASingleJob) {
  KQZipWorkers workers(8);
  const int startedBefore = threadsStarted;
  Squares jobs(1, workers.slots());
  EXPECT_TRUE(workers.run(jobs));
  EXPECT_EQ(startedBefore, threadsStarted);
}

TEST(KQZipWorkers, StartNoMoreThreadsThanAsked) {
  KQZipWorkers workers(3);
  const int startedBefore = threadsStarted;
  Squares jobs(300, workers.slots());
  EXPECT_TRUE(workers.run(jobs));
  EXPECT_LE(threadsStarted - startedBefore, 2);
}

TEST(KQZipWorkers, ZeroAsksForAsManyThreadsAsTheProcessMayUseProcessors) {
  EXPECT_EQ(KQ::NSSystem::current().processors(), KQZipWorkers(0).threads());
  EXPECT_EQ(5U, KQZipWorkers(5).threads());
}

TEST(KQZipWorkers, AskAgainAndAgainWhetherToGoOnWhileOthersWork) {
  KQZipWorkers workers(2);
  Squares jobs(2, workers.slots());
  std::atomic<bool> hasBegun{false};
  std::atomic<bool> hasEnded{false};
  const auto calling = std::this_thread::get_id();
  // The other thread's job ends only when the calling thread gives the work up.
  jobs.onPerform = [&](std::size_t) {
    if (std::this_thread::get_id() == calling) {
      while (!hasBegun) std::this_thread::yield();
      return;
    }
    hasBegun = true;
    while (!workers.isEnding()) std::this_thread::yield();
    hasEnded = true;
  };
  int asked = 0;
  jobs.onGoOn = [&] { return ++asked < 12; };
  EXPECT_FALSE(workers.run(jobs));
  EXPECT_TRUE(hasEnded);
}

}  // namespace
