#include <atomic>
#include <thread>
#include <vector>

#include "ossilar/store/contract/store_fixture.h"
#include "support/busy_message.h"
#include "support/threads.h"

namespace ossilar::store {
namespace {

using testing::busy_message;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

using std::chrono::milliseconds;

class LockTest : public ::testing::Test {
 protected:
  const std::unique_ptr<TestedDatabase> database = make_database();
  const std::unique_ptr<WriteLock> lock = database->open_lock(std::chrono::minutes(5));
  const std::unique_ptr<WriteLock> other = database->open_lock(milliseconds(20));
};

TEST_F(LockTest, OneHolderAtATimeAmongThreadsAndObjects) {
  const auto third = database->open_lock(std::chrono::minutes(5));
  std::atomic<int> held = 0;  // read and written apart: only the lock keeps an increment from getting lost
  testing::in_threads(6, [&](std::size_t i) {
    WriteLock& mine = i % 2 == 0 ? *lock : *third;
    for (int round = 0; round < 10; ++round) {
      mine.acquire(true);
      const int before = held.load(std::memory_order_relaxed);
      std::this_thread::yield();
      held.store(before + 1, std::memory_order_relaxed);
      mine.release();
    }
  });
  EXPECT_EQ(held, 6 * 10);
}

TEST_F(LockTest, BusyNamesTheHolderAndGivesUpInTime) {
  lock->acquire(false);
  EXPECT_THAT(busy_message(*lock, false),
              HasSubstr("by another save of this process; waited 0.0 s; try again"));
  for (const bool waits : {false, true}) {
    const auto began = std::chrono::steady_clock::now();
    EXPECT_THAT(busy_message(*other, waits),
                StartsWith("the wiki is being written by another save of this process; waited 0."));
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(2));
  }
  lock->release();
  EXPECT_EQ(busy_message(*other, false), "");
  EXPECT_EQ(busy_message(*lock, true), "");
}

// The first waits when the second comes, whichever thread the system would rather wake.
TEST_F(LockTest, ThreadsOfOneLockGetItInTheOrderInWhichTheyCame) {
  std::vector<int> order;  // guarded by the lock
  std::vector<std::thread> threads;
  lock->acquire(true);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      lock->acquire(true);
      order.push_back(i);
      lock->release();
    });
    std::this_thread::sleep_for(milliseconds(50));
  }
  lock->release();
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(order, ElementsAre(0, 1, 2, 3));
}

TEST_F(LockTest, AWaitThatIsCancelledHoldsNothing) {
  const auto patient = database->open_lock(std::chrono::minutes(5));
  for (WriteLock* waiting : {lock.get(), patient.get()}) {
    lock->acquire(true);
    utils::Task task;
    std::thread canceller([&task] {
      std::this_thread::sleep_for(milliseconds(100));
      task.cancel();
    });
    EXPECT_THROW(waiting->acquire(true, task), utils::Cancelled);
    canceller.join();
    lock->release();
    EXPECT_EQ(busy_message(*other, false), "");
  }
}

}  // namespace
}  // namespace ossilar::store
