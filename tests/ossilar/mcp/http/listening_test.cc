#include "ossilar/mcp/http/listening.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "ossilar/utils/error.h"
#include "support/temp_dir.h"

namespace ossilar::mcp::http {
namespace {

using ::testing::HasSubstr;

TEST(ListeningTest, ReadsAddressAndPort) {
  const struct {
    const char* given;
    const char* means;  // "" for a refusal
    bool is_loopback;
  } kRows[] = {{"", "127.0.0.1:8765", true},
               {"9000", "127.0.0.1:9000", true},
               {"0", "127.0.0.1:0", true},
               {"localhost:9000", "127.0.0.1:9000", true},
               {"127.1.2.3", "127.1.2.3:8765", true},
               {"0.0.0.0:80", "0.0.0.0:80", false},
               {"10.0.0.1", "10.0.0.1:8765", false},
               {"65536", "", false},
               {"1:2:3", "", false},
               {":80", "", false},
               {"127.0.0.1:", "", false},
               {"127.0.0.1:x", "", false},
               {"example.org:80", "", false},
               {"127.1:80", "", false},
               {"-1", "", false},
               {"[::1]:80", "", false}};
  for (const auto& row : kRows) {
    std::string text;
    try {
      const Listening listening = parse_listening(row.given);
      text = listening.text();
      EXPECT_EQ(listening.is_loopback(), row.is_loopback) << row.given;
    } catch (const utils::ConfigError& error) {
      EXPECT_THAT(error.what(), HasSubstr("--http takes ADDR:PORT"));
    }
    EXPECT_EQ(text, row.means) << row.given;
  }
}

TEST(ListeningTest, ATokenIsReadOnlyWhereItIsASecret) {
  const testing::TempDir dir;
  const struct {
    std::string text;
    mode_t mode;
    const char* says;  // "" for a token that is taken
  } kRows[] = {{"  0123456789abcdef\n", 0600, ""},
               {"0123456789abcdef", 0400, ""},
               {"0123456789abcdef", 0640, "chmod 600"},
               {"0123456789abcdef", 0604, "chmod 600"},
               {"0123456789abcde", 0600, "openssl rand"},
               {"0123456789abcdef\nsecond", 0600, "openssl rand"},
               {"0123456789 abcdef", 0600, "openssl rand"},
               {"0123456789abcd\xc3\xa9", 0600, "openssl rand"},
               {std::string(2000, 'x'), 0600, "openssl rand"},
               {"", 0600, "openssl rand"}};
  for (const auto& row : kRows) {
    dir.write("token", row.text);
    ASSERT_EQ(chmod((dir / "token").c_str(), row.mode), 0);
    std::string said;
    try {
      EXPECT_EQ(read_token(dir / "token"), "0123456789abcdef");
    } catch (const utils::ConfigError& error) {
      said = error.what();
    }
    EXPECT_THAT(said, HasSubstr(row.says)) << row.text;
    EXPECT_EQ(said.empty(), std::string(row.says).empty()) << row.text;
    ASSERT_EQ(chmod((dir / "token").c_str(), 0600), 0);
  }
  EXPECT_THROW(read_token(dir / "missing"), utils::ConfigError);
  EXPECT_THROW(read_token(dir.path()), utils::ConfigError);
}

}  // namespace
}  // namespace ossilar::mcp::http
