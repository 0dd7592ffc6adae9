#include "ossilar/workers/wiki/passages/wiki_search.h"
#include "ossilar/workers/wiki/asking/wiki_reader.h"

#include <SQLiteCpp/Database.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "ossilar/store/sqlite/sqlite_store.h"
#include "support/retrieval.h"
#include "support/wiki_repo.h"

namespace ossilar::workers::wiki {
namespace {

using ::ossilar::testing::WikiRepo;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

TEST(Retrieval, FindsTheAnswerAmongTheFirstThreeForNineInTen) {
  const ossilar::testing::RetrievalWiki wiki;
  const auto questions = ossilar::testing::retrieval_questions();
  ASSERT_GE(questions.size(), 40U);
  const auto score = ossilar::testing::score_of(questions, [&](const std::string& query) {
    return std::get<SearchResult>(WikiReader(*wiki.wiki).search({.query = query, .limit = 10}, {})).hits;
  });
  EXPECT_GE(score.hits_within(3), 0.9);
}

class Search : public ::testing::Test {
 protected:
  void save(const std::string& page_id, const std::string& text,
            const std::optional<std::string>& title = {}) {
    const std::string cites = "\n\nCited [src/" + page_id + ".cpp:L1] [src/" + page_id + ".cpp:L2].\n";
    const Answer answer = ossilar::testing::save(*wiki_, page_id, text + cites, {}, title);
    ASSERT_TRUE(answer.contains("saved")) << answer;
  }
  std::vector<std::string> places(const SearchRequest& request) {
    const auto result = WikiReader(*wiki_).search(request, {});
    std::vector<std::string> found;
    for (const SearchHit& hit : std::get<SearchResult>(result).hits)
      found.push_back(hit.page_id + "#" + hit.section);
    return found;
  }

  WikiRepo repo_;
  std::unique_ptr<Wiki> wiki_ = repo_.open();
};

TEST_F(Search, FindsIdentifiersInAnySpelling) {
  save("alpha",
       "Alpha.\n\n## Names\n\nIt calls `parseHTTPHeader` and `write_all_rows`.\n\n## Other\n\nNothing of the "
       "kind.");
  save("beta", "Beta.\n\n## Files\n\nAll of it is in `src/net/http2-frame.cc`.");
  for (const char* query :
       {"parseHTTPHeader", "parse_http_header", "ParseHttpHeader", "http header parsing", "writeAllRows",
        "WRITE_ALL_ROWS", "\"parse\" AND (http* OR NOT header) NEAR/2 -x:y ^"}) {
    EXPECT_EQ(places({.query = query, .limit = 1}), std::vector<std::string>{"alpha#Names"}) << query;
  }
  EXPECT_THAT(places({.query = "http2_frame", .limit = 1}), ElementsAre("beta#Files"));
  EXPECT_THAT(places({.query = "zzzqqq"}), IsEmpty());
}

TEST_F(Search, SaysHowSureItIs) {
  save("alpha", "Alpha.\n\n## Holding\n\nThe lock is released when the process that holds it dies.");
  save("beta", "Beta.\n\n## Pictures\n\nImages are resized before they are uploaded to the bucket.");
  const struct {
    const char *query, *place;
    double least, most;
    bool is_sure;
  } cases[] = {
      {"when is the lock released", "alpha#Holding", 0.5, 1, true},
      {"mutex ownership in threads", "alpha#Holding", 0.15, 0.5, true},
      {"shrinking pictures", "beta#Pictures", 0.15, 1, true},
      {"currency of the shopping cart and its bucket", "beta#Pictures", 0, 0.15, false},
  };
  for (const auto& each : cases) {
    const auto found = WikiReader(*wiki_).search({.query = each.query}, {});
    const auto& result = std::get<SearchResult>(found);
    ASSERT_FALSE(result.hits.empty()) << each.query;
    EXPECT_EQ(result.hits[0].page_id + "#" + result.hits[0].section, each.place) << each.query;
    EXPECT_GE(result.hits[0].score, each.least) << each.query;
    EXPECT_LE(result.hits[0].score, each.most) << each.query;
    EXPECT_EQ(result.warning.empty(), each.is_sure) << each.query << ": " << result.warning;
  }
}

TEST_F(Search, FindsTheTextAndTitleOfTheLastSave) {
  save("alpha", "Alpha.\n\n## Old\n\nAbout gardening.");
  save("alpha", "Alpha.\n\n## New\n\nAbout sailing.", "Seafaring");
  EXPECT_THAT(places({.query = "gardening"}), IsEmpty());
  EXPECT_THAT(places({.query = "sailing", .limit = 1}), ElementsAre("alpha#New"));
  EXPECT_THAT(places({.query = "seafaring"}), Not(IsEmpty())) << "by the page's new title";
}

TEST_F(Search, ListsAPassageOfTwoPagesOnce) {
  const std::string shared =
      "\n\n## Shared\n\nExactly the same words about marmalade.\n\n## End\n\nOwn words";
  save("alpha", "Alpha." + shared + " of alpha.");
  save("beta", "Beta." + shared + " of beta.");
  EXPECT_EQ(places({.query = "marmalade"}).size(), 1U);
  save("alpha", "Alpha.\n\n## Other\n\nNo longer.");
  EXPECT_THAT(places({.query = "marmalade"}), ElementsAre("beta#Shared")) << "and loses none";
}

TEST_F(Search, KeepsToTypesAndPaths) {
  save("alpha", "Alpha.\n\n## One\n\nA word: tangerine.");
  save("beta", "Beta.\n\n## Two\n\nA word: tangerine.");
  struct Case {
    const char *path, *page_type;
    std::vector<std::string> pages;
  };
  for (const Case& each :
       {Case{"src/alpha.cpp", "", {"alpha#One"}}, Case{"./src//", "", {"alpha#One", "beta#Two"}},
        Case{"src/alpha", "", {}}, Case{"", "module", {"alpha#One", "beta#Two"}}, Case{"", "topic", {}},
        Case{".", "", {"alpha#One", "beta#Two"}}}) {
    std::vector<std::string> found;
    for (const std::string& place :
         places({.query = "tangerine", .page_type = each.page_type, .path = each.path})) {
      if (place.find('#') + 1 < place.size()) found.push_back(place);
    }
    EXPECT_THAT(found, ::testing::UnorderedElementsAreArray(each.pages))
        << each.path << " " << each.page_type;
  }
}

TEST_F(Search, CutsTheExcerptAroundWhatWasAskedFor) {
  for (const std::string between : {" ", "\n"}) {
    std::string filler;
    for (int i = 0; i < 40; ++i) filler += "Füllung ohne Belang." + between;
    save("alpha", "Alpha.\n\n## Long\n\nA kumquat." + between + filler + "Here is the ripe kumquat." +
                      between + filler);
    const auto found = WikiReader(*wiki_).search({.query = "ripe kumquat"}, {});
    const auto hit = std::get<SearchResult>(found).hits.at(0);
    EXPECT_THAT(hit.excerpt,
                AllOf(HasSubstr("Here is the ripe kumquat."), Not(HasSubstr("\n")), Not(HasSubstr("##"))));
    EXPECT_LE(hit.excerpt.size(), 320U);
  }
}

TEST_F(Search, RefusesBadQueriesAndLimits) {
  struct Case {
    SearchRequest request;
    const char* says;
  };
  for (const Case& each :
       {Case{{.query = " \n"}, "empty"}, Case{{.query = std::string(3000, 'x')}, "at most 2000"},
        Case{{.query = "x", .limit = 0}, "from 1 to 50"}, Case{{.query = "x", .limit = 51}, "from 1 to 50"},
        Case{{.query = "x", .page_type = "poem"}, "unknown page type 'poem'"}}) {
    const auto found = WikiReader(*wiki_).search(each.request, {});
    ASSERT_TRUE(std::holds_alternative<Answer>(found)) << each.says;
    EXPECT_THAT(std::get<Answer>(found).at("error").get<std::string>(), HasSubstr(each.says));
  }
}

TEST_F(Search, FindsInADatabaseOfAFormerVersion) {
  const struct {
    const char* why;
    bool words_are_indexed;
    const char* further;
  } cases[] = {
      {"words by chunks", true, ""},
      {"no words yet", false,
       "DROP TABLE words; DROP INDEX chunks_by_model; DROP TABLE removed_pages; PRAGMA user_version = 1"},
  };
  std::ifstream script(OSSILAR_TEST_DATA "/wiki/former_tables.sql");
  const std::string former_tables{std::istreambuf_iterator<char>(script), {}};
  ASSERT_NE(former_tables, "");
  save("alpha", "Alpha.\n\n## Names\n\nIt calls `parseHTTPHeader`.");
  for (const auto& each : cases) {
    if (each.words_are_indexed) WikiReader(*wiki_).search({.query = "names"}, {});
    wiki_.reset();
    SQLite::Database database(repo_.dir / ".ossilar/index.db", SQLite::OPEN_READWRITE);
    database.exec(former_tables);
    database.exec(each.further);
    wiki_ = repo_.open();
    EXPECT_THAT(places({.query = "parse_http_header", .limit = 1}), ElementsAre("alpha#Names")) << each.why;
    EXPECT_FALSE(store::open_sqlite_store(repo_.dir / ".ossilar/index.db")->damage()) << each.why;
    const auto held = [&](const char* sql) { return database.execAndGet(sql).getInt(); };
    EXPECT_EQ(held("SELECT count(*) FROM due_words"), 0) << each.why;
    EXPECT_EQ(held("SELECT count(*) FROM vectors"), held("SELECT count(DISTINCT passage_key) FROM chunks"));
  }
}

TEST_F(Search, AnExcerptOfOneEndlessWordIsFoundInOnePass) {
  std::string code = "```\n";
  for (int i = 0; i < 200'000; ++i) code += "a_";
  save("alpha", "Alpha.\n\n## Code\n\n" + code + "\n```");
  EXPECT_THAT(places({.query = "a", .limit = 1}), ElementsAre("alpha#Code"));
}

TEST_F(Search, AnExcerptHoldsItsMatchWhateverStandsBetweenTheWords) {
  std::string words;
  for (int i = 0; i < 100; ++i) words += "filler\t";
  save("alpha", "Alpha.\n\n## Tabs\n\n```\n" + words + "kumquat\t" + words + "\n```");
  const auto found = WikiReader(*wiki_).search({.query = "kumquat", .limit = 1}, {});
  EXPECT_THAT(std::get<SearchResult>(found).hits.at(0).excerpt, HasSubstr("kumquat"));
}

}  // namespace
}  // namespace ossilar::workers::wiki
