#include "ossilar/cli/client_setup.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "ossilar/utils/error.h"
#include "support/rows.h"

namespace ossilar::cli {
namespace {

using ossilar::testing::rows_of;
using ::testing::HasSubstr;
using ::testing::StartsWith;

std::string outcome(const Client& client, const std::string& before) {
  try {
    return with_server(client, before);
  } catch (const utils::ConfigError& error) {
    return std::string("!") + error.what();
  }
}

TEST(ClientSetup, EntersTheServerAndChangesNothingElse) {
  for (const Map& row : rows_of("cli/client_setup.txt")) {
    SCOPED_TRACE(row.at(0));
    const Client& client = client_named(row.at(1));
    const std::string after = row.at(3);
    const std::string made = outcome(client, row.at(2));
    if (after.front() == '!') {
      EXPECT_THAT(made, StartsWith("!"));
      EXPECT_THAT(made, HasSubstr(after.substr(1)));
    } else {
      EXPECT_EQ(made, after);
      EXPECT_EQ(outcome(client, made), made) << "a second time";
    }
  }
}

TEST(ClientSetup, FilesThatAreSharedHoldNoPathOfThisMachine) {
  const Invocation here{.program = "/opt/bin/ossilar", .repository = "/home/u/a \"b\""};
  for (const Client& client : clients()) {
    SCOPED_TRACE(client.name);
    const std::string own = configuration(client, here);
    EXPECT_THAT(own, HasSubstr("\"/opt/bin/ossilar\""));
    EXPECT_THAT(own, HasSubstr("\"/home/u/a \\\"b\\\"\""));
    EXPECT_THAT(own, HasSubstr(client.table));
    EXPECT_EQ(outcome(client, "").find("\"/"), std::string::npos);
  }
}

}  // namespace
}  // namespace ossilar::cli
