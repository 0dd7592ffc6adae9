#include "ossilar/utils/logging.h"

#include <gmock/gmock.h>

#include <thread>

#include "ossilar/utils/best_effort.h"
#include "ossilar/utils/error.h"

namespace ossilar::utils {
namespace {

TEST(Failure, ShowsTheChainOfCausesWithTheirPlaces) {
  Failure failure;
  const int line = __LINE__ + 3;
  try {
    try {
      throw IoError("cannot write x", EACCES);
    } catch (...) {
      std::throw_with_nested(std::runtime_error("save failed"));
    }
  } catch (const std::exception& error) {
    failure = describe_failure(error);
  }
  EXPECT_EQ(failure.message, "save failed");
  ASSERT_EQ(failure.trace.size(), 2);
  EXPECT_EQ(failure.trace[1].type, "ossilar::utils::IoError");
  EXPECT_EQ(failure.trace[1].message, "cannot write x: Permission denied");
  EXPECT_THAT(failure.trace[1].place, ::testing::EndsWith("logging_test.cc:" + std::to_string(line)));
}

TEST(DegradedSteps, AreNotedOnceInTheInnermostScopeOfTheThread) {
  degraded("lost", "no scope");
  const DegradedScope outer = degraded_steps();
  degraded("symbols", "no tool");
  {
    const DegradedScope inner = degraded_steps();
    degraded("vectors", "offline");
    degraded("vectors", "again");
    std::thread([] { degraded("elsewhere", "another thread"); }).join();
    EXPECT_EQ(*inner.entered(), Map::parse(R"([{"step": "vectors", "reason": "offline"}])"));
  }
  degraded("diagrams", "too large");
  EXPECT_EQ(*outer.entered(), Map::parse(R"([{"step": "symbols", "reason": "no tool"},
                                             {"step": "diagrams", "reason": "too large"}])"));
}

}  // namespace
}  // namespace ossilar::utils
