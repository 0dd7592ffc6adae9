// Index and manifest: what they say, how they are divided, and what is read back of them.
#include "ossilar/workers/wiki/pages/list_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <set>

#include "ossilar/workers/wiki/repo_facts.h"
#include "support/temp_dir.h"

namespace ossilar::workers::wiki {
namespace {

namespace fs = std::filesystem;
using ossilar::testing::TempDir;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

Map row_of(const std::string& id, const std::string& hash = "h", const std::string& parent = "") {
  return {{"title", "Title of " + id}, {"page_type", "module"},    {"level", 1},
          {"importance", "medium"},    {"parent_section", parent}, {"rel_path", "pages/" + id + ".md"},
          {"summary", "About " + id},  {"content_hash", hash},     {"source_files", "[\"a.c\"]"},
          {"build_cache", "{}"}};
}

store::StoredRows rows_of(const std::vector<std::string>& ids) {
  store::StoredRows rows;
  for (const std::string& id : ids) rows.set(id, row_of(id));
  return rows;
}

std::vector<std::string> many(const std::string& start, int count) {
  std::vector<std::string> ids;
  for (int i = 0; i < count; ++i) ids.push_back(start + std::to_string(i));
  return ids;
}

class WikiListsTest : public ::testing::Test {
 protected:
  std::string file(const std::string& name) const { return dir_.read("wiki/" + name); }
  std::set<std::string> files() const {
    std::set<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(dir_ / "wiki"))
      if (entry.is_regular_file()) names.insert(entry.path().lexically_relative(dir_ / "wiki").string());
    return names;
  }

  TempDir dir_;
  WikiLists lists_{dir_ / "wiki", dir_ / "wiki/pages"};
};

TEST_F(WikiListsTest, TheIndexListsPagesInReadingOrderUnderTheirParents) {
  store::StoredRows rows = rows_of({"zeta", "src"});
  rows.set("src/core", row_of("src/core", "h", "src"));
  Map overview = row_of("overview");
  overview["page_type"] = "overview";
  overview["summary"] = "Rests on [src] and <b> [a.c:L1] [a.c:L2]. See [Title of zeta].";
  rows.set("overview", overview);
  lists_.write_page(rows, {}, "zeta");
  EXPECT_THAT(file("index.md"),
              ::testing::EndsWith(
                  "\n- [Title of overview](pages/overview.md): Rests on src and \\<b\\>. See Title of zeta.\n"
                  "- [Title of src](pages/src.md): About src\n"
                  "  - [Title of src/core](pages/src/core.md): About src/core\n"
                  "- [Title of zeta](pages/zeta.md): About zeta\n"));
  const ManifestContent content = lists_.read_all();
  EXPECT_TRUE(content.describes("src/core", "h"));
  EXPECT_FALSE(content.describes("src/core", "other"));
  EXPECT_TRUE(Map::accept(file("manifest.json"))) << "programs read it as JSON";
}

TEST_F(WikiListsTest, APageStandsBelowItsOwnParentAlone) {
  // '-' comes before '/', so in the order of the ids src-gen lies between src and its part.
  store::StoredRows rows = rows_of({"src", "src-gen", "topic"});
  rows.set("src/core", row_of("src/core", "h", "src"));
  rows.set("elsewhere", row_of("elsewhere", "h", "topic"));  // whose id does not say where it belongs
  rows.set("one", row_of("one", "h", "other"));              // rows of different plans can form a circle
  rows.set("other", row_of("other", "h", "one"));
  lists_.write_page(rows, {}, "topic");
  const auto line = [](const std::string& id) {
    return "- [Title of " + id + "](pages/" + id + ".md): About " + id + "\n";
  };
  EXPECT_THAT(file("index.md"), ::testing::EndsWith("\n" + line("src") + "  " + line("src/core") +
                                                    line("src-gen") + line("topic") + "  " +
                                                    line("elsewhere") + line("one") + "  " + line("other")));
}

TEST_F(WikiListsTest, ASaveInALargeWikiRewritesOnlyThePartOfItsPage) {
  std::vector<std::string> ids = many("src/core/u", 200);
  for (const std::string& id : many("doc/d", 40)) ids.push_back(id);
  ids.emplace_back("overview");
  store::StoredRows rows = rows_of(ids);
  lists_.write_all(rows, {});
  EXPECT_EQ(files().count("lists/src+core+u1.json"), 1U) << ::testing::PrintToString(files());
  EXPECT_EQ(files().count("lists/doc+d.md"), 1U);
  EXPECT_THAT(file("index.md"), HasSubstr("[doc/d...](lists/doc+d.md)"));
  EXPECT_THAT(file("index.md"), HasSubstr("(pages/overview.md)")) << "few pages stay where they are";
  EXPECT_THAT(file("lists/doc+d.md"), HasSubstr("(../pages/doc/d7.md)"));

  std::map<std::string, fs::file_time_type> times;
  for (const std::string& name : files()) times[name] = fs::last_write_time(dir_ / "wiki" / name);
  rows.set("doc/d7", row_of("doc/d7", "new"));
  lists_.write_page(rows, {}, "doc/d7");
  for (const auto& [name, time] : times)
    EXPECT_EQ(fs::last_write_time(dir_ / "wiki" / name) == time, name != "lists/doc+d.json") << name;

  const std::set<std::string> before = files();
  for (const std::string& id : many("data/e", 12)) rows.set(id, row_of(id));
  lists_.write_page(rows, {}, "data/e3");
  EXPECT_NE(files(), before) << "another division";
  for (const ListFile& list : lists_.expected(rows, {})) EXPECT_EQ(file(list.name), list.text) << list.name;
  EXPECT_THAT(lists_.strays(rows), IsEmpty()) << "what the former division needed is gone";
}

// Whatever the ids are, every page is listed once, and no part is much longer than it may be.
TEST(ListParts, HoldEveryPageOnce) {
  std::mt19937 random(11);
  for (int round = 0; round < 20; ++round) {
    store::StoredRows rows;
    const std::size_t count = 1U << (random() % 12);
    for (std::size_t i = 0; i < count; ++i) {
      std::string id;
      for (unsigned part = 0; part <= random() % 3; ++part)
        id += (part == 0 ? "" : "/") + std::string(1 + random() % 3, static_cast<char>('a' + random() % 4));
      rows.set(id, Map());
    }
    std::vector<std::string> listed;
    for (const ListPart& part : all_parts(rows)) {
      listed.insert(listed.end(), part.pages.begin(), part.pages.end());
      EXPECT_LE(part.pages.size(), kMostTogether + 40 * kFewestApart);
      for (const std::string& page : part.pages)
        EXPECT_EQ(parts_to(rows, page).back().prefix, part.prefix) << page;
    }
    std::sort(listed.begin(), listed.end());
    EXPECT_EQ(listed, rows.keys());
  }
}

TEST_F(WikiListsTest, ALineOfAnothersManifestStaysUntilItsPageIsAdopted) {
  store::StoredRows rows = rows_of({"a", "b"});
  lists_.write_all(rows, {});
  dir_.write("wiki/pages/b.md", "theirs\n");
  dir_.write("wiki/pages/c.md", "new\n");
  const store::StoredRows theirs = {{"b", row_of("b", _text_hash("theirs\n"))},
                                    {"c", row_of("c", _text_hash("new\n"))},
                                    {"gone", row_of("gone", "x")}};
  dir_.write("wiki/manifest.json",
             render_manifest(list_part(theirs, ""), manifest_lines(list_part(theirs, ""), theirs), {}));
  rows.set("a", row_of("a", "again"));
  lists_.write_page(rows, {}, "a");
  const ManifestContent content = lists_.read_all();
  EXPECT_TRUE(content.describes("a", "again"));
  EXPECT_TRUE(content.describes("b", _text_hash("theirs\n"))) << "its file is theirs, and the row is ours";
  EXPECT_TRUE(content.describes("c", _text_hash("new\n")));
  EXPECT_EQ(content.described.count("gone"), 0U) << "it has neither row nor file";
  EXPECT_THAT(lists_.news(), Not(IsEmpty())) << "what waits is still to be adopted";
}

TEST_F(WikiListsTest, NoticeManifestsThatOthersWrote) {
  EXPECT_THAT(lists_.news(), IsEmpty());
  lists_.write_all(rows_of({"a"}), {});
  EXPECT_THAT(lists_.news(), IsEmpty()) << "its own";
  WikiLists(dir_ / "wiki", dir_ / "wiki/pages").write_all(rows_of({"a", "b"}), {});
  const auto news = lists_.news();
  ASSERT_EQ(news.size(), 1U);
  lists_.note(news, {{dir_ / "wiki/pages/b.md", {}}});
  EXPECT_THAT(lists_.news(), IsEmpty());
  dir_.write("wiki/pages/b.md", "it came");
  EXPECT_EQ(lists_.news().size(), 1U) << "a page that was awaited is there";
}

TEST_F(WikiListsTest, AreOwnOnlyIfAllAreAsTheyWereWritten) {
  const WikiLists::Own own = lists_.write_all(rows_of({"a"}), {});
  const auto are_own = [&] {
    const WikiLists anew(dir_ / "wiki", dir_ / "wiki/pages");
    return anew.are_own(anew.news(), own);
  };
  const std::string written = dir_.read("wiki/manifest.json");
  EXPECT_TRUE(are_own());
  for (const std::string& other : {written + " ", std::string(), std::string("[]")}) {
    dir_.write("wiki/manifest.json", other);
    EXPECT_FALSE(are_own()) << other;
  }
  dir_.write("wiki/manifest.json", written);
  dir_.write("wiki/lists/more-manifest.json", "{}");
  EXPECT_FALSE(are_own()) << "there is one more";
  std::filesystem::remove(dir_ / "wiki/lists/more-manifest.json");
  std::filesystem::remove(dir_ / "wiki/manifest.json");
  EXPECT_FALSE(are_own()) << "there is one less";
}

// The page ids and hashes that a manifest lists.
std::string told_by(const std::string& text) {
  std::string told;
  for (const auto& [id, hashes] : read_manifest(text).described) {
    told += id + "=";
    for (const std::string& hash : hashes) told += hash;
    told += " ";
  }
  return told;
}

TEST(Manifest, IsReadHoweverItsLinesWereMerged) {
  const std::string begin = "{\n\"format\": 2\n";
  const std::string a = ",\"pages/a.md\": {\"content_hash\": \"1\"}\n";
  const std::string a2 = ",\"pages/a.md\": {\"content_hash\": \"2\"}\n";
  const std::string b = ",\"pages/b.md\": {\"content_hash\": \"3\"}\n";
  const std::string former =
      "{\n\"format\": 1,\n\"lint\": null,\n\"pages\": [\n{\"page_id\": \"a\", \"content_hash\": \"1\"},\n"
      "{\"page_id\": \"b\", \"content_hash\": \"3\"}\n]\n}\n";
  const struct {
    const char* why;
    std::string text, told;
  } rows[] = {
      {"as it is written", begin + a + b + "}\n", "a=1 b=3 "},
      {"both sides changed a page", begin + a + a2 + b + "}\n", "a=12 b=3 "},
      {"marks of a conflict", begin + "<<<<<<< HEAD\n" + a + "=======\n" + a2 + ">>>>>>> x\n" + b + "}\n",
       "a=12 b=3 "},
      {"laid out anew", Map::parse(begin + a + b + "}").dump(2), "a=1 b=3 "},
      {"a line that was cut", begin + a.substr(0, 20) + "\n" + b + "}\n", "b=3 "},
      {"a page id that is none", begin + ",\"pages/../x.md\": {\"content_hash\": \"1\"}\n}\n", ""},
      {"of the format before", former, "a=1 b=3 "},
      {"of the format before, in conflict", "<<<<<<< HEAD\n" + former, "a=1 b=3 "},
      {"no manifest", "nothing", ""},
  };
  for (const auto& [why, text, told] : rows) EXPECT_EQ(told_by(text), told) << why;
  EXPECT_EQ(read_manifest(former).former_entries.size(), 2U);
  EXPECT_EQ(read_manifest(begin + ",\"lint\": {\"x\": 1}\n}\n").lint, (Map{{"x", 1}}));
}

}  // namespace
}  // namespace ossilar::workers::wiki
