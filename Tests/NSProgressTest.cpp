#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

using KQ::NSProgress;

namespace {

using Progress = std::shared_ptr<NSProgress>;

Progress make(std::int64_t total) { return NSProgress::progressWithTotalUnitCount(total); }

// A child made in a scope of its own, which is still open afterwards.
Progress makeChild(const Progress& parent, std::int64_t units, std::int64_t total) {
  parent->becomeCurrentWithPendingUnitCount(units);
  return make(total);
}

void inThreads(std::size_t count, const std::function<void(std::size_t)>& body) {
  std::vector<std::thread> threads;
  for (std::size_t number = 0; number < count; ++number) threads.emplace_back(body, number);
  for (std::thread& thread : threads) thread.join();
}

// Each test gets its thread as it left it: without a current progress.
class NSProgressTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(nullptr, NSProgress::currentProgress()); }
  void TearDown() override {
    EXPECT_EQ(nullptr, NSProgress::currentProgress()) << "a progress was left current";
    while (const Progress left = NSProgress::currentProgress()) left->resignCurrent();
  }
};

}  // namespace

// One progress

TEST_F(NSProgressTest, ANewProgressHasItsTotalAndDefaults) {
  const Progress progress = make(7);
  EXPECT_EQ(7, progress->totalUnitCount());
  EXPECT_EQ(0, progress->completedUnitCount());
  EXPECT_EQ(0.0, progress->fractionCompleted());
  EXPECT_FALSE(progress->isFinished());
  EXPECT_FALSE(progress->isCancelled());
  EXPECT_TRUE(progress->isCancellable());
  EXPECT_FALSE(progress->isPausable());
  EXPECT_EQ("", progress->kind());
}

TEST_F(NSProgressTest, FlagsAndKindAreStored) {
  const Progress progress = make(7);
  progress->setCancellable(false);
  progress->setPausable(true);
  progress->setKind(KQ::NSProgressKindFile);
  EXPECT_FALSE(progress->isCancellable());
  EXPECT_TRUE(progress->isPausable());
  EXPECT_EQ("NSProgressKindFile", progress->kind());
  progress->setCancellable(true);
  progress->setPausable(false);
  EXPECT_TRUE(progress->isCancellable());
  EXPECT_FALSE(progress->isPausable());
}

TEST_F(NSProgressTest, ItsFractionIsTheCompletedShareOfTheTotal) {
  const Progress progress = make(8);
  progress->setCompletedUnitCount(2);
  EXPECT_EQ(0.25, progress->fractionCompleted());
  EXPECT_FALSE(progress->isFinished());
  progress->setCompletedUnitCount(8);
  EXPECT_EQ(1.0, progress->fractionCompleted());
  EXPECT_TRUE(progress->isFinished());
  progress->setTotalUnitCount(16);
  EXPECT_EQ(0.5, progress->fractionCompleted());
  EXPECT_FALSE(progress->isFinished());
}

TEST_F(NSProgressTest, ItsFractionNeverLeavesZeroToOne) {
  const Progress progress = make(8);
  progress->setCompletedUnitCount(1000);
  EXPECT_EQ(1.0, progress->fractionCompleted());
  EXPECT_EQ(1000, progress->completedUnitCount());
  EXPECT_TRUE(progress->isFinished());
  progress->setCompletedUnitCount(-1);
  EXPECT_EQ(0.0, progress->fractionCompleted());
}

TEST_F(NSProgressTest, CountsOfSixtyFourBitsAreKept) {
  const Progress progress = make(INT64_MAX);
  progress->setCompletedUnitCount(INT64_MAX / 2);
  EXPECT_EQ(INT64_MAX, progress->totalUnitCount());
  EXPECT_EQ(INT64_MAX / 2, progress->completedUnitCount());
  EXPECT_DOUBLE_EQ(0.5, progress->fractionCompleted());
}

TEST_F(NSProgressTest, AnIndeterminateProgressHasFractionZero) {
  const Progress unknown = make(-1);
  EXPECT_EQ(0.0, unknown->fractionCompleted());
  EXPECT_FALSE(unknown->isFinished());
  unknown->setCompletedUnitCount(5);
  EXPECT_EQ(0.0, unknown->fractionCompleted());
  unknown->setTotalUnitCount(10);
  EXPECT_EQ(0.5, unknown->fractionCompleted());

  const Progress empty = make(0);
  EXPECT_EQ(0.0, empty->fractionCompleted());
  EXPECT_FALSE(empty->isFinished());
}

TEST_F(NSProgressTest, ATotalOfZeroIsFinishedOnceSomethingIsCompleted) {
  const Progress progress = make(0);
  progress->setCompletedUnitCount(1);
  EXPECT_TRUE(progress->isFinished());
  EXPECT_EQ(1.0, progress->fractionCompleted());
}

TEST_F(NSProgressTest, CancellingHasNoWayBack) {
  const Progress progress = make(10);
  progress->cancel();
  EXPECT_TRUE(progress->isCancelled());
  progress->cancel();
  progress->setCompletedUnitCount(10);
  EXPECT_TRUE(progress->isCancelled());
  EXPECT_EQ(10, progress->completedUnitCount());
}

TEST_F(NSProgressTest, CancellingDoesNotAskWhetherItHasAMeaning) {
  const Progress progress = make(10);
  progress->setCancellable(false);
  progress->cancel();
  EXPECT_TRUE(progress->isCancelled());
}

TEST_F(NSProgressTest, IsSharedAndNeverCopied) {
  static_assert(!std::is_copy_constructible_v<NSProgress>);
  static_assert(!std::is_copy_assignable_v<NSProgress>);
}

// The thread's current progress

TEST_F(NSProgressTest, BecomingCurrentAndResigningNest) {
  const Progress first = make(1);
  const Progress second = make(1);
  first->becomeCurrentWithPendingUnitCount(1);
  EXPECT_EQ(first, NSProgress::currentProgress());
  second->becomeCurrentWithPendingUnitCount(1);
  EXPECT_EQ(second, NSProgress::currentProgress());
  second->resignCurrent();
  EXPECT_EQ(first, NSProgress::currentProgress());
  first->resignCurrent();
  EXPECT_EQ(nullptr, NSProgress::currentProgress());
}

TEST_F(NSProgressTest, MakingAProgressDoesNotMakeItCurrent) {
  const Progress parent = make(1);
  const Progress child = makeChild(parent, 1, 1);
  EXPECT_EQ(parent, NSProgress::currentProgress());
  parent->resignCurrent();
}

TEST_F(NSProgressTest, AProgressMadeWithoutACurrentOneHasNoParent) {
  const Progress bystander = make(10);
  const Progress progress = make(1);
  progress->setCompletedUnitCount(1);
  bystander->cancel();
  EXPECT_EQ(0, bystander->completedUnitCount());
  EXPECT_FALSE(progress->isCancelled());
}

TEST_F(NSProgressTest, AProgressMadeAfterResigningHasNoParent) {
  const Progress parent = make(10);
  parent->becomeCurrentWithPendingUnitCount(1);
  parent->resignCurrent();
  const Progress later = make(1);
  later->setCompletedUnitCount(1);
  parent->cancel();
  EXPECT_EQ(0, parent->completedUnitCount());
  EXPECT_FALSE(later->isCancelled());
}

TEST_F(NSProgressTest, ResigningOneThatIsNotOnTheStackDoesNothing) {
  const Progress current = make(10);
  const Progress stranger = make(10);
  stranger->resignCurrent();
  const Progress child = makeChild(current, 3, 1);
  stranger->resignCurrent();
  EXPECT_EQ(current, NSProgress::currentProgress());
  EXPECT_EQ(0, current->completedUnitCount());
  EXPECT_EQ(0, stranger->completedUnitCount());
  child->resignCurrent();
  EXPECT_EQ(current, NSProgress::currentProgress());
  current->resignCurrent();
  EXPECT_EQ(3, current->completedUnitCount());
  current->resignCurrent();
  EXPECT_EQ(3, current->completedUnitCount());
}

TEST_F(NSProgressTest, TheStackKeepsACurrentProgressAlive) {
  make(5)->becomeCurrentWithPendingUnitCount(5);
  const Progress current = NSProgress::currentProgress();
  ASSERT_NE(nullptr, current);
  EXPECT_EQ(5, current->totalUnitCount());
  current->resignCurrent();
}

TEST_F(NSProgressTest, ResigningTheLastReferenceIsSafe) {
  make(5)->becomeCurrentWithPendingUnitCount(5);
  const std::weak_ptr<NSProgress> watched = NSProgress::currentProgress();
  NSProgress* const current = NSProgress::currentProgress().get();
  current->resignCurrent();
  EXPECT_TRUE(watched.expired());
}

// Children

TEST_F(NSProgressTest, AChildIsWorthThePendingUnits) {
  const Progress parent = make(10);
  const Progress child = makeChild(parent, 4, 100);
  child->setCompletedUnitCount(50);
  EXPECT_DOUBLE_EQ(0.2, parent->fractionCompleted());
  EXPECT_EQ(0, parent->completedUnitCount());
  child->setCompletedUnitCount(100);
  EXPECT_EQ(4, parent->completedUnitCount());
  EXPECT_DOUBLE_EQ(0.4, parent->fractionCompleted());
  parent->resignCurrent();
  EXPECT_EQ(4, parent->completedUnitCount());
}

TEST_F(NSProgressTest, EveryProgressMadeInOneScopeBecomesAChildWorthThePendingUnits) {
  const Progress parent = make(12);
  parent->becomeCurrentWithPendingUnitCount(2);
  const Progress first = make(4);
  const Progress second = make(4);
  const Progress third = make(4);
  first->setCompletedUnitCount(4);
  EXPECT_EQ(2, parent->completedUnitCount());
  second->setCompletedUnitCount(2);
  third->setCompletedUnitCount(1);
  EXPECT_EQ(2, parent->completedUnitCount());
  EXPECT_DOUBLE_EQ((2 + 2 * 0.5 + 2 * 0.25) / 12, parent->fractionCompleted());
  third->setCompletedUnitCount(4);
  EXPECT_EQ(4, parent->completedUnitCount());
  parent->resignCurrent();
  EXPECT_EQ(6, parent->completedUnitCount());
  EXPECT_DOUBLE_EQ(0.5, parent->fractionCompleted());
}

TEST_F(NSProgressTest, ThePendingUnitsAreThoseOfTheLatestBecoming) {
  const Progress parent = make(100);
  const Progress first = makeChild(parent, 1, 1);
  parent->resignCurrent();
  EXPECT_EQ(1, parent->completedUnitCount());
  const Progress second = makeChild(parent, 10, 1);
  second->setCompletedUnitCount(1);
  EXPECT_EQ(11, parent->completedUnitCount());
  parent->resignCurrent();
  EXPECT_EQ(11, parent->completedUnitCount());
}

TEST_F(NSProgressTest, AChildThatFinishesIsCountedOnce) {
  const Progress parent = make(10);
  const Progress child = makeChild(parent, 4, 2);
  child->setCompletedUnitCount(2);
  child->setCompletedUnitCount(1);
  EXPECT_EQ(4, parent->completedUnitCount());
  EXPECT_DOUBLE_EQ(0.4, parent->fractionCompleted());
  child->setCompletedUnitCount(2);
  child->setTotalUnitCount(5);
  child->setCompletedUnitCount(7);
  EXPECT_EQ(4, parent->completedUnitCount());
  parent->resignCurrent();
  EXPECT_EQ(4, parent->completedUnitCount());
}

TEST_F(NSProgressTest, AChildFinishesWhenItsTotalIsLoweredToWhatIsCompleted) {
  const Progress parent = make(10);
  const Progress child = makeChild(parent, 4, 100);
  child->setCompletedUnitCount(30);
  child->setTotalUnitCount(31);
  EXPECT_EQ(0, parent->completedUnitCount());
  child->setTotalUnitCount(30);
  EXPECT_TRUE(child->isFinished());
  EXPECT_EQ(4, parent->completedUnitCount());
  parent->resignCurrent();
}

TEST_F(NSProgressTest, AnIndeterminateChildAddsNothingUntilItsTotalIsKnown) {
  const Progress parent = make(10);
  const Progress child = makeChild(parent, 4, -1);
  EXPECT_EQ(0.0, parent->fractionCompleted());
  child->setTotalUnitCount(2);
  child->setCompletedUnitCount(1);
  EXPECT_DOUBLE_EQ(0.2, parent->fractionCompleted());
  parent->resignCurrent();
  EXPECT_EQ(4, parent->completedUnitCount());
}

TEST_F(NSProgressTest, AChildOfTotalZeroIsCountedWhenItsParentResigns) {
  const Progress parent = make(10);
  const Progress child = makeChild(parent, 4, 0);
  EXPECT_EQ(0, parent->completedUnitCount());
  parent->resignCurrent();
  EXPECT_EQ(4, parent->completedUnitCount());
}

TEST_F(NSProgressTest, FinishingMovesUpAsManyLevelsAsAreFull) {
  const Progress top = make(2);
  const Progress middle = makeChild(top, 1, 1);
  const Progress bottom = makeChild(middle, 1, 3);
  bottom->setCompletedUnitCount(3);
  EXPECT_EQ(1, middle->completedUnitCount());
  EXPECT_TRUE(middle->isFinished());
  EXPECT_EQ(1, top->completedUnitCount());
  EXPECT_FALSE(top->isFinished());
  middle->resignCurrent();
  top->resignCurrent();
  EXPECT_EQ(1, top->completedUnitCount());
}

TEST_F(NSProgressTest, FractionsReachThroughAllLevels) {
  const Progress top = make(4);
  const Progress middle = makeChild(top, 2, 8);
  const Progress bottom = makeChild(middle, 4, 10);
  bottom->setCompletedUnitCount(5);
  EXPECT_DOUBLE_EQ(0.25, middle->fractionCompleted());
  EXPECT_DOUBLE_EQ(0.125, top->fractionCompleted());
  middle->setCompletedUnitCount(2);
  EXPECT_DOUBLE_EQ(0.5, middle->fractionCompleted());
  EXPECT_DOUBLE_EQ(0.25, top->fractionCompleted());
  middle->resignCurrent();
  top->resignCurrent();
}

TEST_F(NSProgressTest, ChildrenWorthMoreThanTheTotalDoNotLiftTheFractionAboveOne) {
  const Progress parent = make(1);
  parent->becomeCurrentWithPendingUnitCount(1);
  const Progress first = make(2);
  const Progress second = make(2);
  first->setCompletedUnitCount(2);
  second->setCompletedUnitCount(1);
  EXPECT_EQ(1.0, parent->fractionCompleted());
  parent->resignCurrent();
  EXPECT_EQ(2, parent->completedUnitCount());
  EXPECT_EQ(1.0, parent->fractionCompleted());
}

TEST_F(NSProgressTest, TheParentsOwnCountCanBeSetBesideItsChildren) {
  const Progress parent = make(10);
  const Progress child = makeChild(parent, 4, 2);
  parent->setCompletedUnitCount(3);
  child->setCompletedUnitCount(1);
  EXPECT_DOUBLE_EQ(0.5, parent->fractionCompleted());
  child->setCompletedUnitCount(2);
  EXPECT_EQ(7, parent->completedUnitCount());
  parent->resignCurrent();
  parent->setCompletedUnitCount(10);
  EXPECT_TRUE(parent->isFinished());
}

// Settling

TEST_F(NSProgressTest, ResigningSettlesTheChildrenThatHaveNotFinished) {
  const Progress parent = make(10);
  parent->becomeCurrentWithPendingUnitCount(2);
  const Progress finished = make(4);
  const Progress halfway = make(4);
  const Progress untouched = make(4);
  finished->setCompletedUnitCount(4);
  halfway->setCompletedUnitCount(2);
  parent->resignCurrent();
  EXPECT_EQ(6, parent->completedUnitCount());
  EXPECT_DOUBLE_EQ(0.6, parent->fractionCompleted());
}

TEST_F(NSProgressTest, ASettledChildIsNotCountedAgain) {
  const Progress parent = make(10);
  const Progress child = makeChild(parent, 2, 4);
  child->setCompletedUnitCount(2);
  parent->resignCurrent();
  EXPECT_EQ(2, parent->completedUnitCount());
  child->setCompletedUnitCount(3);
  EXPECT_DOUBLE_EQ(0.2, parent->fractionCompleted());
  child->setCompletedUnitCount(4);
  EXPECT_EQ(2, parent->completedUnitCount());
  EXPECT_DOUBLE_EQ(0.2, parent->fractionCompleted());
}

TEST_F(NSProgressTest, ResigningWithoutAChildAddsNothing) {
  const Progress parent = make(10);
  parent->becomeCurrentWithPendingUnitCount(5);
  parent->resignCurrent();
  EXPECT_EQ(0, parent->completedUnitCount());
}

TEST_F(NSProgressTest, SettlingMayFinishTheParentAndCountsItInItsOwn) {
  const Progress top = make(2);
  const Progress middle = makeChild(top, 2, 3);
  const Progress bottom = makeChild(middle, 3, 5);
  middle->resignCurrent();
  EXPECT_TRUE(middle->isFinished());
  EXPECT_EQ(2, top->completedUnitCount());
  EXPECT_TRUE(top->isFinished());
  top->resignCurrent();
  EXPECT_EQ(2, top->completedUnitCount());
}

TEST_F(NSProgressTest, GrandchildrenMadeUnderAChildBelongToTheChild) {
  const Progress parent = make(10);
  const Progress child = makeChild(parent, 5, 2);
  const Progress grandchild = makeChild(child, 1, 7);
  grandchild->setCompletedUnitCount(7);
  EXPECT_EQ(1, child->completedUnitCount());
  EXPECT_EQ(0, parent->completedUnitCount());
  EXPECT_DOUBLE_EQ(0.25, parent->fractionCompleted());
  child->resignCurrent();
  parent->resignCurrent();
  EXPECT_EQ(5, parent->completedUnitCount());
}

// What a failure leaves on the stack

TEST_F(NSProgressTest, ProgressesLeftAboveTheReceiverAreTakenOffUnsettled) {
  const Progress outer = make(1);
  outer->becomeCurrentWithPendingUnitCount(1);
  const Progress parent = make(10);
  const Progress left = makeChild(parent, 3, 2);
  const Progress leftAbove = makeChild(left, 1, 4);
  const Progress topmost = makeChild(leftAbove, 2, 4);
  EXPECT_EQ(leftAbove, NSProgress::currentProgress());

  parent->resignCurrent();
  EXPECT_EQ(outer, NSProgress::currentProgress());
  EXPECT_EQ(3, parent->completedUnitCount());
  EXPECT_EQ(0, left->completedUnitCount());
  EXPECT_EQ(0, leftAbove->completedUnitCount());

  left->resignCurrent();
  leftAbove->resignCurrent();
  EXPECT_EQ(outer, NSProgress::currentProgress());
  EXPECT_EQ(0, left->completedUnitCount());
  EXPECT_EQ(0, leftAbove->completedUnitCount());
  outer->resignCurrent();
}

TEST_F(NSProgressTest, TheChildrenOfAProgressLeftUnsettledStillCountWhenTheyFinish) {
  const Progress parent = make(10);
  const Progress left = makeChild(parent, 3, 2);
  const Progress running = makeChild(left, 1, 4);
  parent->resignCurrent();
  EXPECT_EQ(0, left->completedUnitCount());
  running->setCompletedUnitCount(2);
  EXPECT_DOUBLE_EQ(0.25, left->fractionCompleted());
  running->setCompletedUnitCount(4);
  EXPECT_EQ(1, left->completedUnitCount());
  EXPECT_EQ(3, parent->completedUnitCount());
}

TEST_F(NSProgressTest, AStrangerLeftAboveTheReceiverIsTakenOffUnsettled) {
  const Progress stranger = make(10);
  const Progress receiver = make(10);
  receiver->becomeCurrentWithPendingUnitCount(1);
  const Progress child = makeChild(stranger, 4, 1);
  receiver->resignCurrent();
  EXPECT_EQ(nullptr, NSProgress::currentProgress());
  EXPECT_EQ(0, receiver->completedUnitCount());
  EXPECT_EQ(0, stranger->completedUnitCount());
}

TEST_F(NSProgressTest, ProgressesBelowTheReceiverStayCurrentAndUnsettled) {
  const Progress below = make(10);
  const Progress receiver = makeChild(below, 5, 2);
  const Progress child = makeChild(receiver, 1, 2);
  receiver->resignCurrent();
  EXPECT_EQ(below, NSProgress::currentProgress());
  EXPECT_EQ(1, receiver->completedUnitCount());
  EXPECT_EQ(0, below->completedUnitCount());
  below->resignCurrent();
  EXPECT_EQ(5, below->completedUnitCount());
}

// The same progress several times on the stack

TEST_F(NSProgressTest, BecomingCurrentTwiceNeedsResigningTwice) {
  const Progress progress = make(10);
  progress->becomeCurrentWithPendingUnitCount(1);
  progress->becomeCurrentWithPendingUnitCount(2);
  progress->resignCurrent();
  EXPECT_EQ(progress, NSProgress::currentProgress());
  progress->resignCurrent();
  EXPECT_EQ(nullptr, NSProgress::currentProgress());
}

TEST_F(NSProgressTest, EachResigningSettlesTheChildrenOfItsOwnBecoming) {
  const Progress progress = make(10);
  const Progress outer = makeChild(progress, 1, 1);
  const Progress inner = makeChild(progress, 2, 1);
  progress->resignCurrent();
  EXPECT_EQ(2, progress->completedUnitCount());
  const Progress outerAgain = make(1);
  outerAgain->setCompletedUnitCount(1);
  EXPECT_EQ(3, progress->completedUnitCount());
  progress->resignCurrent();
  EXPECT_EQ(4, progress->completedUnitCount());
}

TEST_F(NSProgressTest, ResigningTakesTheUppermostOfSeveralAndWhatIsAboveIt) {
  const Progress progress = make(10);
  const Progress other = make(10);
  const Progress first = makeChild(progress, 1, 1);
  const Progress ofOther = makeChild(other, 5, 1);
  const Progress second = makeChild(progress, 2, 1);
  other->becomeCurrentWithPendingUnitCount(7);
  progress->resignCurrent();
  EXPECT_EQ(other, NSProgress::currentProgress());
  EXPECT_EQ(2, progress->completedUnitCount());
  EXPECT_EQ(0, other->completedUnitCount());
  other->resignCurrent();
  EXPECT_EQ(5, other->completedUnitCount());
  progress->resignCurrent();
  EXPECT_EQ(3, progress->completedUnitCount());
}

TEST_F(NSProgressTest, BecomingCurrentAgainAndAgainAddsUpLikeAWriterDoes) {
  const Progress writer = make(50);
  for (int i = 0; i < 50; ++i) {
    writer->becomeCurrentWithPendingUnitCount(1);
    const Progress entry = make(20);
    entry->setCompletedUnitCount(10);
    EXPECT_DOUBLE_EQ((i + 0.5) / 50, writer->fractionCompleted());
    writer->resignCurrent();
    EXPECT_EQ(i + 1, writer->completedUnitCount());
  }
  EXPECT_TRUE(writer->isFinished());
}

// Cancelling

TEST_F(NSProgressTest, CancellingReachesAllDescendantsAndNothingElse) {
  const Progress top = make(10);
  const Progress sibling = makeChild(top, 1, 1);
  const Progress middle = make(1);
  const Progress bottom = makeChild(middle, 1, 1);
  middle->resignCurrent();
  top->resignCurrent();
  middle->cancel();
  EXPECT_TRUE(middle->isCancelled());
  EXPECT_TRUE(bottom->isCancelled());
  EXPECT_FALSE(top->isCancelled());
  EXPECT_FALSE(sibling->isCancelled());
  top->cancel();
  EXPECT_TRUE(sibling->isCancelled());
}

TEST_F(NSProgressTest, CancellingReachesSettledAndFinishedChildren) {
  const Progress parent = make(10);
  const Progress finished = makeChild(parent, 1, 1);
  finished->setCompletedUnitCount(1);
  const Progress settled = make(1);
  const Progress below = makeChild(settled, 1, 1);
  settled->resignCurrent();
  parent->resignCurrent();
  parent->cancel();
  EXPECT_TRUE(finished->isCancelled());
  EXPECT_TRUE(settled->isCancelled());
  EXPECT_TRUE(below->isCancelled());
}

TEST_F(NSProgressTest, WhatIsMadeUnderACancelledProgressIsCancelledFromTheStart) {
  const Progress top = make(10);
  top->cancel();
  const Progress middle = makeChild(top, 1, 1);
  EXPECT_TRUE(middle->isCancelled());
  const Progress bottom = makeChild(middle, 1, 1);
  EXPECT_TRUE(bottom->isCancelled());
  top->resignCurrent();
}

TEST_F(NSProgressTest, WhatIsMadeUnderASettledChildOfACancelledProgressIsCancelled) {
  const Progress top = make(10);
  const Progress settled = makeChild(top, 1, 1);
  top->resignCurrent();
  top->cancel();
  const Progress later = makeChild(settled, 1, 1);
  EXPECT_TRUE(later->isCancelled());
  settled->resignCurrent();
}

TEST_F(NSProgressTest, CancellingReachesWhatWasMadeUnderASettledChildBefore) {
  const Progress top = make(10);
  const Progress settled = makeChild(top, 1, 1);
  top->resignCurrent();
  const Progress later = makeChild(settled, 1, 1);
  EXPECT_FALSE(later->isCancelled());
  top->cancel();
  EXPECT_TRUE(later->isCancelled());
  settled->resignCurrent();
}

TEST_F(NSProgressTest, CancellingReachesWhatAFailureLeftUnsettled) {
  const Progress top = make(10);
  const Progress left = makeChild(top, 1, 1);
  const Progress below = makeChild(left, 1, 1);
  top->resignCurrent();
  top->cancel();
  EXPECT_TRUE(left->isCancelled());
  EXPECT_TRUE(below->isCancelled());
}

TEST_F(NSProgressTest, CountsGoOnAfterACancellation) {
  const Progress parent = make(10);
  const Progress child = makeChild(parent, 4, 2);
  parent->cancel();
  child->setCompletedUnitCount(2);
  EXPECT_EQ(4, parent->completedUnitCount());
  parent->resignCurrent();
}

// Lifetimes

TEST_F(NSProgressTest, AChildReleasedEarlyIsCountedWhenItsParentResigns) {
  const Progress parent = make(10);
  Progress child = makeChild(parent, 4, 100);
  child->setCompletedUnitCount(50);
  child.reset();
  parent->resignCurrent();
  EXPECT_EQ(4, parent->completedUnitCount());
  EXPECT_DOUBLE_EQ(0.4, parent->fractionCompleted());
}

TEST_F(NSProgressTest, AChildOfTotalZeroReleasedEarlyIsCountedWhenItsParentResigns) {
  const Progress parent = make(10);
  makeChild(parent, 4, 0).reset();
  parent->resignCurrent();
  EXPECT_EQ(4, parent->completedUnitCount());
}

TEST_F(NSProgressTest, AFinishedChildReleasedEarlyIsCountedOnce) {
  const Progress parent = make(10);
  makeChild(parent, 4, 2)->setCompletedUnitCount(2);
  EXPECT_EQ(4, parent->completedUnitCount());
  parent->resignCurrent();
  EXPECT_EQ(4, parent->completedUnitCount());
}

TEST_F(NSProgressTest, ChildrenReleasedEarlyAreCountedInTheScopeTheyWereMadeIn) {
  const Progress parent = make(100);
  makeChild(parent, 1, 5).reset();
  makeChild(parent, 10, 5).reset();
  make(5).reset();
  parent->resignCurrent();
  EXPECT_EQ(20, parent->completedUnitCount());
  make(5).reset();
  parent->resignCurrent();
  EXPECT_EQ(22, parent->completedUnitCount());
}

TEST_F(NSProgressTest, AChildReleasedUnderAProgressThatWasLeftUnsettledIsNotCounted) {
  const Progress parent = make(10);
  const Progress left = makeChild(parent, 4, 2);
  makeChild(left, 1, 5).reset();
  parent->resignCurrent();
  EXPECT_EQ(0, left->completedUnitCount());
  left->becomeCurrentWithPendingUnitCount(1);
  left->resignCurrent();
  EXPECT_EQ(0, left->completedUnitCount());
}

TEST_F(NSProgressTest, ASettledChildReleasedLaterChangesNothing) {
  const Progress parent = make(10);
  Progress child = makeChild(parent, 4, 5);
  parent->resignCurrent();
  child.reset();
  EXPECT_EQ(4, parent->completedUnitCount());
  parent->cancel();
  EXPECT_TRUE(parent->isCancelled());
}

TEST_F(NSProgressTest, ChildrenMayBeReleasedInAnyOrder) {
  for (std::size_t first = 0; first < 3; ++first) {
    for (const bool settledBefore : {false, true}) {
      const Progress parent = make(10);
      parent->becomeCurrentWithPendingUnitCount(1);
      std::vector<Progress> children{make(2), make(2), make(2)};
      if (settledBefore) parent->resignCurrent();
      for (std::size_t i = 0; i < 3; ++i) {
        children[(first + i * 2) % 3].reset();
        EXPECT_EQ(settledBefore ? 0.3 : 0.0, settledBefore ? parent->fractionCompleted() : 0.0);
      }
      parent->resignCurrent();
      EXPECT_EQ(3, parent->completedUnitCount());
      parent->cancel();
    }
  }
}

TEST_F(NSProgressTest, AChildKeepsItsParentsAlive) {
  Progress top = make(2);
  Progress middle = makeChild(top, 2, 1);
  const Progress bottom = makeChild(middle, 1, 1);
  middle->resignCurrent();
  top->resignCurrent();
  const std::weak_ptr<NSProgress> watchedTop = top;
  const std::weak_ptr<NSProgress> watchedMiddle = middle;
  top.reset();
  middle.reset();
  ASSERT_FALSE(watchedTop.expired());
  ASSERT_FALSE(watchedMiddle.expired());
  watchedTop.lock()->cancel();
  EXPECT_TRUE(bottom->isCancelled());
}

TEST_F(NSProgressTest, AParentDoesNotKeepItsChildren) {
  const Progress parent = make(10);
  Progress child = makeChild(parent, 1, 2);
  const std::weak_ptr<NSProgress> watched = child;
  child.reset();
  EXPECT_TRUE(watched.expired());
  parent->resignCurrent();
}

TEST_F(NSProgressTest, AWholeTreeIsReleasedWithItsLastReference) {
  std::weak_ptr<NSProgress> watched;
  {
    const Progress top = make(2);
    const Progress middle = makeChild(top, 2, 1);
    const Progress bottom = makeChild(middle, 1, 1);
    middle->resignCurrent();
    top->resignCurrent();
    watched = top;
  }
  EXPECT_TRUE(watched.expired());
}

// Threads

TEST_F(NSProgressTest, EachThreadHasACurrentProgressOfItsOwn) {
  const Progress progress = make(10);
  progress->becomeCurrentWithPendingUnitCount(5);
  std::thread([&progress] {
    EXPECT_EQ(nullptr, NSProgress::currentProgress());
    const Progress other = make(1);
    other->setCompletedUnitCount(1);
    progress->resignCurrent();
  }).join();
  EXPECT_EQ(0, progress->completedUnitCount());
  EXPECT_EQ(progress, NSProgress::currentProgress());
  progress->resignCurrent();
}

TEST_F(NSProgressTest, AThreadMayEndWithAProgressStillCurrent) {
  const Progress progress = make(10);
  Progress child;
  std::thread([&] { child = makeChild(progress, 5, 2); }).join();
  EXPECT_EQ(0, progress->completedUnitCount());
  child->setCompletedUnitCount(2);
  EXPECT_EQ(5, progress->completedUnitCount());
  EXPECT_EQ(1, progress.use_count() - (child ? 1 : 0));
}

TEST_F(NSProgressTest, OneProgressMayBeCurrentOnManyThreads) {
  const Progress progress = make(4000);
  inThreads(4, [&progress](std::size_t number) {
    for (int i = 0; i < 500; ++i) {
      progress->becomeCurrentWithPendingUnitCount(2);
      const Progress child = make(3);
      // Finished, unfinished and released children in turn; all of them count in the end.
      if (i % 3 == static_cast<int>(number % 3)) child->setCompletedUnitCount(3);
      if (i % 3 == 1) child->setCompletedUnitCount(1);
      progress->resignCurrent();
    }
  });
  EXPECT_EQ(4000, progress->completedUnitCount());
  EXPECT_TRUE(progress->isFinished());
}

TEST_F(NSProgressTest, ChildrenFinishOnManyThreadsAndEachIsCountedOnce) {
  const Progress parent = make(800);
  parent->becomeCurrentWithPendingUnitCount(1);
  std::vector<Progress> children;
  for (int i = 0; i < 800; ++i) children.push_back(make(2));
  inThreads(8, [&children](std::size_t number) {
    // Every child is finished by two of the threads at about the same time.
    for (std::size_t i = number / 2; i < children.size(); i += 4) {
      children[i]->setCompletedUnitCount(1);
      children[i]->setCompletedUnitCount(2);
    }
  });
  EXPECT_EQ(800, parent->completedUnitCount());
  parent->resignCurrent();
  EXPECT_EQ(800, parent->completedUnitCount());
}

TEST_F(NSProgressTest, ChildrenFinishWhileTheirParentResignsAndEachIsCountedOnce) {
  for (int round = 0; round < 100; ++round) {
    const Progress parent = make(20);
    parent->becomeCurrentWithPendingUnitCount(1);
    std::vector<Progress> children;
    for (int i = 0; i < 20; ++i) children.push_back(make(1));
    std::thread finisher([&children] {
      for (const Progress& child : children) child->setCompletedUnitCount(1);
    });
    parent->resignCurrent();
    finisher.join();
    ASSERT_EQ(20, parent->completedUnitCount());
  }
}

TEST_F(NSProgressTest, ChildrenAreReleasedOnAnotherThreadWhileTheirParentResigns) {
  for (int round = 0; round < 100; ++round) {
    const Progress parent = make(20);
    parent->becomeCurrentWithPendingUnitCount(1);
    std::vector<Progress> children;
    for (int i = 0; i < 20; ++i) children.push_back(make(1));
    std::thread releaser([&children] { children.clear(); });
    parent->resignCurrent();
    releaser.join();
    ASSERT_EQ(20, parent->completedUnitCount());
  }
}

TEST_F(NSProgressTest, ACancellationReachesEverythingMadeMeanwhileOnOtherThreads) {
  for (int round = 0; round < 20; ++round) {
    const Progress top = make(1000);
    std::vector<std::vector<Progress>> made(4);
    std::thread canceller([&top] { top->cancel(); });
    inThreads(made.size(), [&](std::size_t number) {
      for (int i = 0; i < 20; ++i) {
        top->becomeCurrentWithPendingUnitCount(1);
        const Progress middle = make(1);
        middle->becomeCurrentWithPendingUnitCount(1);
        made[number].push_back(make(1));
        made[number].push_back(middle);
        top->resignCurrent();
      }
    });
    canceller.join();
    for (const std::vector<Progress>& progresses : made) {
      for (const Progress& progress : progresses) ASSERT_TRUE(progress->isCancelled());
    }
  }
}

TEST_F(NSProgressTest, EverythingMayBeReadAndCancelledFromOutsideWhileWorkGoesOn) {
  const Progress all = make(1);
  std::atomic<bool> done{false};
  std::vector<std::thread> watchers;
  std::atomic<int> wrong{0};
  for (int i = 0; i < 3; ++i) {
    watchers.emplace_back([&] {
      double last = 0;
      while (!done) {
        const double fraction = all->fractionCompleted();
        // Work that only ever counts upwards never seems to go back.
        if (fraction < last - 1e-9 || fraction > 1) ++wrong;
        last = fraction;
        if (all->completedUnitCount() > all->totalUnitCount()) ++wrong;
        if (all->isFinished() && all->completedUnitCount() != 1) ++wrong;
        if (all->kind() != "" && all->kind() != "kind") ++wrong;
      }
    });
  }
  all->becomeCurrentWithPendingUnitCount(1);
  const Progress writer = make(100);
  int unitsBeforeCancel = 0;
  for (int entry = 0; entry < 100; ++entry) {
    writer->becomeCurrentWithPendingUnitCount(1);
    const Progress progress = make(40);
    for (int block = 1; block <= 40; ++block) progress->setCompletedUnitCount(block);
    writer->resignCurrent();
    if (entry == 50) all->setKind("kind");
    if (entry == 80) all->cancel();
    if (!writer->isCancelled()) ++unitsBeforeCancel;
  }
  all->resignCurrent();
  done = true;
  for (std::thread& thread : watchers) thread.join();
  EXPECT_EQ(0, wrong.load());
  EXPECT_EQ(80, unitsBeforeCancel);
  EXPECT_TRUE(all->isFinished());
}

TEST_F(NSProgressTest, ManyThreadsMayCancelAndReadOneTreeAtOnce) {
  const Progress top = make(100);
  const Progress middle = makeChild(top, 50, 10);
  const Progress bottom = makeChild(middle, 10, 1000);
  middle->resignCurrent();
  std::atomic<int> wrong{0};
  inThreads(8, [&](std::size_t number) {
    for (int i = 0; i < 300; ++i) {
      if (number < 2) bottom->setCompletedUnitCount(i);
      if (number == 2) middle->setTotalUnitCount(10 + i % 2);
      if (number == 3 && i == 150) top->cancel();
      if (number == 4 && i == 150) bottom->cancel();
      const double fraction = top->fractionCompleted();
      if (fraction < 0 || fraction > 1) ++wrong;
      if (top->isCancelled() && !top->isCancelled()) ++wrong;
      top->setCancellable(i % 2 == 0);
      top->setPausable(i % 2 == 0);
      if (top->isFinished()) ++wrong;
    }
  });
  EXPECT_EQ(0, wrong.load());
  EXPECT_TRUE(middle->isCancelled());
  EXPECT_TRUE(bottom->isCancelled());
  top->resignCurrent();
}
