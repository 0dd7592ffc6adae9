// Processes that save sections of one page at the same time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "ossilar/utils/process.h"
#include "ossilar/utils/text.h"
#include "support/wiki_repo.h"

namespace ossilar::workers::wiki {
namespace {

TEST(TwoProcesses, EveryAcknowledgedSaveOfTwoSectionsIsInTheFinalPage) {
  const testing::WikiRepo repo;
  ASSERT_TRUE(testing::save(*repo.open(), "alpha", testing::WikiRepo::text_about("alpha")).contains("saved"));
  utils::ProcessResult one;
  utils::ProcessResult two;
  const auto write = [&](const char* section, utils::ProcessResult& result) {
    std::vector<std::string> command{OSSILAR_SECTION_WRITER, repo.dir.path(), "alpha", section, "100"};
    result = utils::run_process(command, "");
  };
  std::thread first([&] { write("One", one); });
  std::thread second([&] { write("Two", two); });
  first.join();
  second.join();

  const std::string page = repo.page("alpha");
  int saved = 0;
  int refused = 0;
  for (const utils::ProcessResult* result : {&one, &two}) {
    ASSERT_EQ(result->exit_code, 0) << result->errors;
    for (const std::string_view line : utils::split_lines(result->output)) {
      if (line.substr(0, 6) == "saved ") {
        ++saved;
        EXPECT_NE(page.find(std::string(line.substr(6)) + "\n"), std::string::npos) << "lost: " << line;
      } else if (line.substr(0, 8) == "refused ") {
        ++refused;
      }
    }
  }
  EXPECT_EQ(saved + refused, 200);
  EXPECT_GT(saved, 0);
  std::cout << "[          ] saves: " << saved << " acknowledged, " << refused << " answered with an error\n";
}

}  // namespace
}  // namespace ossilar::workers::wiki
