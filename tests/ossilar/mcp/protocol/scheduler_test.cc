#include "ossilar/mcp/protocol/scheduler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>

namespace ossilar::mcp {
namespace {

constexpr std::chrono::seconds kLong(60);

TEST(Scheduler, RunsJobsOfOneKeyInTheirOrderAndOthersBesideThem) {
  Scheduler scheduler(2);
  std::promise<void> other_ran;
  std::vector<int> order;  // written by jobs of one key alone
  scheduler.post("page", 1, [&] {
    other_ran.get_future().wait();  // hangs if what follows did not run beside this
    order.push_back(0);
  });
  for (int i = 1; i < 20; ++i) scheduler.post("page", 1, [&order, i] { order.push_back(i); });
  scheduler.post("", 1, [&] { other_ran.set_value(); });
  ASSERT_TRUE(scheduler.drain(kLong));
  std::vector<int> expected(20);
  for (int i = 0; i < 20; ++i) expected[static_cast<std::size_t>(i)] = i;
  EXPECT_EQ(order, expected);
}

TEST(Scheduler, TakesNoMoreOnThanItMayKeep) {
  Scheduler scheduler(1);
  std::promise<void> go;
  const std::shared_future<void> gone(go.get_future());
  scheduler.post("", 1, [gone] { gone.wait(); });
  std::atomic<bool> posted = false;
  constexpr std::size_t kHuge = std::size_t{1} << 30U;
  std::thread poster([&] {
    scheduler.post("", kHuge, [] {});
    scheduler.post("", 1, [] {});
    posted = true;
  });
  EXPECT_FALSE(scheduler.drain(std::chrono::milliseconds(50)));
  EXPECT_FALSE(posted) << "the second waits until the first, which is huge, has begun";
  go.set_value();
  poster.join();
  EXPECT_TRUE(scheduler.drain(kLong));
}

}  // namespace
}  // namespace ossilar::mcp
