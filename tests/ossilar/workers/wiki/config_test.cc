#include "ossilar/workers/wiki/config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/rows.h"
#include "support/temp_dir.h"

namespace ossilar::workers::wiki {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

std::string refusal(const std::string& text) {
  try {
    parse_config(text, "ossilar.toml");
    return "";
  } catch (const utils::ConfigError& error) {
    return error.what();
  }
}

TEST(Config, ReadsEveryKey) {
  const WikiConfig config = parse_config(
      "steering = 'Plain words.'\n"
      "[wiki]\ndir = 'docs/wiki/'\ndiagrams = false\nmin_citations_per_page = 0\nlock_timeout_s = 0.25\n"
      "[history]\nversions = 1000\n"
      "[embedding]\nprovider = 'http'\nurl = 'https://e/v1'\nmodel = 'm'\napi_key_env = 'KEY_1'\n"
      "[[page]]\nid = 'a/b'\ntitle = ' T '\ndescription = \"\"\"two\n  lines\"\"\"\ntype = 'topic'\n"
      "importance = 'low'\nparent = ''\nsources = ['src/*.c', 'lib']\nrelated = ['x', 'y', 'x']\nsteering = "
      "'s'\n"
      "[[page]]\nid = 'c'\n",
      "ossilar.toml");
  EXPECT_EQ(config.steering, "Plain words.");
  EXPECT_EQ(config.dir, "docs/wiki");
  EXPECT_FALSE(config.diagrams);
  EXPECT_EQ(config.min_citations_per_page, 0);
  EXPECT_EQ(config.lock_timeout, std::chrono::milliseconds(250));
  EXPECT_EQ(config.history_versions, 1000U);
  EXPECT_EQ(config.embedding_provider + config.embedding_url + config.embedding_model +
                config.embedding_api_key_env,
            "httphttps://e/v1mKEY_1");
  ASSERT_EQ(config.pages.size(), 2U);
  const PageEntry& page = config.pages[0];
  EXPECT_EQ(page.id, "a/b");
  EXPECT_EQ(page.title, "T");
  EXPECT_EQ(page.description, "two lines");
  EXPECT_EQ(page.type, "topic");
  EXPECT_EQ(page.importance, "low");
  EXPECT_EQ(page.parent, "");
  EXPECT_THAT(*page.sources, ElementsAre("src/*.c", "lib"));
  EXPECT_THAT(*page.related, ElementsAre("x", "y"));
  EXPECT_EQ(page.steering, "s");
  EXPECT_EQ(config.pages[1].title, std::nullopt) << "what is absent stays as derived";
  EXPECT_EQ(parse_config("[steering]\ntext = 'Long.'\r\n", "f").steering, "Long.");
}

TEST(Config, RefusesNamingFileLineAndKey) {
  for (const Map& row : testing::rows_of("wiki/config_refusals.txt")) {
    EXPECT_THAT(refusal(row[0]), HasSubstr(row[1].get<std::string>())) << row[0];
  }
  EXPECT_THAT(refusal("steering = '''\xC3\x28'''"), HasSubstr("not UTF-8: byte 0xC3 at offset 14"));
  EXPECT_THAT(refusal("[[page]]\nid='a'\ntitle='" + std::string(201, 'x') + "'"),
              HasSubstr("it is longer than 200 characters"));
  EXPECT_THAT(refusal("[embedding]\napi_key_env = 'sk-secret'"), Not(HasSubstr("secret")))
      << "a key is not shown";
  EXPECT_EQ(refusal("[[page]]\nid='a'\ntitle='" + std::string(100, 'x') + "\u00e9\u00e9'"), "")
      << "characters, not bytes";
}

TEST(Config, WikiFolderStaysInTheRepository) {
  for (const char* dir : {"", ".", "..", "/abs", "a/../b", "a//b", "./a", ".git", ".GIT/x", "a/.git",
                          ".ossilar", ".ossilar/w", "a\\\\b", "a\\nb"}) {
    EXPECT_NE(refusal("[wiki]\ndir = \"" + std::string(dir) + "\""), "") << dir;
  }
  for (const char* dir : {"w", "docs/w/", ".github/wiki", "a.b", "..."}) {
    EXPECT_EQ(refusal("[wiki]\ndir = '" + std::string(dir) + "'"), "") << dir;
  }
}

TEST(Config, HostileTextIsRefusedInBoundedDepth) {
  std::string deep;
  for (int i = 0; i < 200000; ++i) deep += "a.";
  for (const std::string& text :
       {deep + "a = 1", "[" + deep + "a]", "x = {" + deep + "a = 1}", "s = '#'\n" + deep + "a=1",
        // A block string may end in a quote or two of its own before its three.
        "x = {s = \"\"\"a\"\"\"\", " + deep + "a = 1}", "x = {s = \'\'\'a\'\'\'\'\', " + deep + "a = 1}"}) {
    EXPECT_THAT(refusal(text), HasSubstr("more than 16 parts")) << text.substr(0, 10);
  }
  EXPECT_THAT(refusal("a = " + std::string(100000, '[')), HasSubstr("not TOML"));
  EXPECT_THAT(refusal(std::string((1 << 20) + 1, '#')), HasSubstr("larger than 1 MiB"));
  EXPECT_EQ(refusal("steering = '''" + deep + "'''\n# " + deep), "")
      << "dots in text and comments are no keys";
  EXPECT_EQ(refusal("steering = \"\\\"" + deep + "\""), "") << "an escaped quote ends no string";
}

TEST(Config, LoadsFromAFile) {
  const testing::TempDir dir;
  EXPECT_EQ(load_config(dir / "ossilar.toml").dir, "wiki") << "a missing file means defaults";
  dir.write("ossilar.toml", "[wiki]\r\ndir = 'w'\r\n");
  EXPECT_EQ(load_config(dir / "ossilar.toml").dir, "w");
  dir.write("bad/ossilar.toml", "# \xFF");
  dir.write("large/ossilar.toml", std::string((1 << 20) + 1, '\n'));
  dir.write("folder/ossilar.toml/x", "");
  std::filesystem::create_directory(dir / "link");
  std::filesystem::create_symlink(dir / "ossilar.toml", dir / "link/ossilar.toml");
  for (const char* where : {"bad", "large", "folder", "link"}) {
    EXPECT_THROW(load_config(dir / where / "ossilar.toml"), utils::ConfigError) << where;
  }
}

TEST(PageId, IsASlug) {
  for (const char* id : {"a", "a-b/c_d.e", "0", "...", ".a", "a/b/c"}) EXPECT_TRUE(is_page_id(id)) << id;
  for (const char* id : {"", "A", "a/", "/a", "a//b", ".", "..", "a/../b", "a/.", "a b", "\u00e9", "a\\b"}) {
    EXPECT_FALSE(is_page_id(id)) << id;
  }
  EXPECT_TRUE(is_page_id(std::string(200, 'a')));
  EXPECT_FALSE(is_page_id(std::string(201, 'a')));
}

}  // namespace
}  // namespace ossilar::workers::wiki
