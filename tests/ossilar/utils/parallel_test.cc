#include "ossilar/utils/parallel.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <vector>

namespace ossilar::utils {
namespace {

TEST(InParallel, DoesEachPartOnce) {
  for (const std::size_t count : {0U, 1U, 2U, 1000U}) {
    std::vector<std::atomic<int>> done(count);
    in_parallel(count, [&](std::size_t i) { ++done.at(i); });
    for (std::size_t i = 0; i < count; ++i) EXPECT_EQ(done[i], 1) << i << " of " << count;
  }
}

TEST(InParallel, AFailureEndsItAndIsThrown) {
  std::atomic<std::size_t> begun = 0;
  const auto work = [&](std::size_t i) {
    ++begun;
    if (i == 3) throw std::runtime_error("part 3");
  };
  try {
    in_parallel(10'000'000, work);
    FAIL() << "nothing was thrown";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "part 3");
  }
  EXPECT_LT(begun, 10'000'000U) << "no part is begun after it";
}

}  // namespace
}  // namespace ossilar::utils
