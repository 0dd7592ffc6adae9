#include "ossilar/store/sqlite/sqlite_store.h"

#include <sqlite3.h>

#include <atomic>
#include <limits>
#include <random>
#include <string_view>
#include <vector>

#include "ossilar/store/sqlite/passages.h"
#include "ossilar/store/sqlite/schema.h"
#include "store_fixture.h"
#include "support/file_size_limit.h"
#include "support/threads.h"

namespace ossilar::store {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::StartsWith;

std::string title(const StoredRows& rows, const char* page) {
  return utils::string_member(*rows.find(page), "title");
}

TEST_F(StoreTest, RowComesBackInOrderWithEveryFieldButSymbols) {
  const std::string text =
      R"({"page_id": "core/io", "title": "a\u0000b'\";--\r\n\\u0000 😀", "description": "d", )"
      R"("importance": "high", "level": -2, "parent_section": "core", "rel_path": "io.md", )"
      R"("source_files": ["z.cc", "a.cc"], "source_hashes": {"z.cc": "1f"}, )"
      R"("symbols": [{"name": "\u0000", "line": 3}], "related_pages": ["a"], )"
      R"("citations": [{"path": "a.cc", "first": 1}], "content_hash": "c0", "model": "m", )"
      R"("status": "ok", "summary": "s", "build_cache": "[1]", "page_type": "module"})";
  Map row = utils::parse_json(text, "row");
  const PageFields fields = {
      row["description"],   row["importance"],   row["level"],         row["parent_section"],
      row["rel_path"],      row["source_files"], row["source_hashes"], row["symbols"],
      row["related_pages"], row["citations"],    row["content_hash"],  row["model"],
      row["status"],        row["summary"],      row["build_cache"],   row["page_type"]};
  store.upsert_wiki_page("main", "core/io", row["title"], fields);
  row.erase("symbols");
  for (const char* key : {"source_files", "source_hashes", "related_pages", "citations"})
    row[key] = utils::json_text(row[key]);
  EXPECT_EQ(utils::json_text(*store.get_wiki_pages("main").find("core/io")), utils::json_text(row));
}

TEST_F(StoreTest, RowsLeaveOutTheTextsOfTheBuildCache) {
  const char* const kWhole = R"({"prose": "p", "diagrams": ["d"], "outline": ["o"], "sections": [], "é": 1})";
  for (const auto& [given, in_row] : std::vector<std::pair<std::string, std::string>>{
           {kWhole, R"({"outline":["o"],"é":1})"}, {"", ""}, {"{\"prose\": ", "{\"prose\": "}}) {
    store.upsert_wiki_page("main", "a", "A", {.build_cache = given});
    EXPECT_EQ(utils::string_member(*store.get_wiki_pages("main").find("a"), "build_cache"), in_row);
    EXPECT_EQ(store.build_cache("main", "a"), given);
  }
  EXPECT_EQ(store.build_cache("release", "a"), std::nullopt);
}

TEST_F(StoreTest, ReadsOnlyWhatAnotherStoreChanged) {
  const auto other = open_sqlite_store(file);
  const auto key = store.upsert_wiki_page("main", "a", "A", {});
  store.upsert_wiki_page("main", "b", "B", {});
  const StoredRows before = other->get_wiki_pages("main");
  EXPECT_EQ(store.upsert_wiki_page("main", "a", "A2", {}), key);
  EXPECT_NE(store.upsert_wiki_page("release", "a", "R", {}), key);

  const StoredRows after = other->get_wiki_pages("main");
  EXPECT_THAT(after.keys(), ElementsAre("a", "b"));
  EXPECT_EQ(before.share("b"), after.share("b"));
  EXPECT_EQ(title(before, "a"), "A");
  EXPECT_EQ(title(after, "a"), "A2");
  EXPECT_EQ(other->get_wiki_pages("main").share("a"), after.share("a"));
  EXPECT_EQ(title(other->get_wiki_pages("release"), "a"), "R");
}

TEST_F(StoreTest, RefusesWhatCouldNotBeReadBack) {
  Map deep = "x";
  for (int depth = 0; depth < 70; ++depth) deep = Map::array({std::move(deep)});
  const auto expect_refused = [&](const char* branch, const char* title, const PageFields& fields) {
    EXPECT_THAT(refusal([&] { store.upsert_wiki_page(branch, "a", title, fields); }),
                StartsWith(file.string() + ": cannot store the page a: "));
  };
  expect_refused("\xff", "A", {});  // this and the next three are not UTF-8
  expect_refused("main", "\xed\xa0\x80", {});
  expect_refused("main", "A", {.source_files = {"\xc3"}});
  expect_refused("main", "A", {.source_hashes = {{"\xff", ""}}});
  expect_refused("main", "A", {.symbols = {deep}});  // deeper than can be parsed
  EXPECT_EQ(stored("SELECT count(*) FROM pages"), 0);
}

TEST_F(StoreTest, CitedTextsStayWhileAPageCitesThem) {
  const auto first = store.upsert_wiki_page("main", "a", "A", {});
  const auto second = store.upsert_wiki_page("main", "b", "B", {});
  const std::string bytes("caf\xe9\0\n", 6);  // sources need not be UTF-8
  store.keep_cited_texts(first, {"one", "two", "unknown"}, {{"one", bytes}, {"two", "2"}, {"other", "x"}});
  store.keep_cited_texts(second, {"two"}, {});
  EXPECT_EQ(store.cited_text("one"), bytes);
  EXPECT_EQ(store.cited_text("unknown"), std::nullopt);
  EXPECT_EQ(store.cited_text("other"), std::nullopt) << "nobody cites it";
  store.keep_cited_texts(first, {"unknown"}, {{"unknown", "3"}});
  EXPECT_EQ(store.cited_text("one"), std::nullopt);
  EXPECT_EQ(store.cited_text("two"), "2") << "the other page cites it";
  EXPECT_EQ(store.cited_text("unknown"), "3");
  store.remove_page("main", "b");
  EXPECT_EQ(store.cited_text("two"), std::nullopt);
}

// Which pages rest on a file is kept by triggers, so each way to change a row is tried.
TEST_F(StoreTest, TellsWhichPagesRestOnAFile) {
  const auto resting_on = [&](const std::set<std::string>& paths) {
    return store.pages_resting_on("main", paths).keys();
  };
  const auto cites = [](const char* path) {
    return std::vector<Map>{{{"path", path}, {"first", 1}, {"last", 2}}};
  };
  store.upsert_wiki_page("main", "a", "A",
                         {.source_hashes = {{"src", "1"}, {"both", "2"}}, .citations = cites("both")});
  store.upsert_wiki_page("main", "b", "B",
                         {.citations = cites("cited"), .build_cache = R"({"lost": [{"path": "lost"}]})"});
  store.upsert_wiki_page("release", "c", "C", {.citations = cites("cited")});
  EXPECT_THAT(resting_on({"src", "both"}), ElementsAre("a"));
  EXPECT_THAT(resting_on({"lost", "cited", "src"}), ElementsAre("a", "b")) << "of this branch alone";
  EXPECT_THAT(resting_on({"src/", "", "lost2"}), ElementsAre());
  EXPECT_EQ(*store.pages_resting_on("main", {"src"}).find("a"), *store.get_wiki_pages("main").find("a"));

  const std::vector<Map> twice{{{"path", "other"}, {"first", 1}}, {{"path", "other"}, {"first", 5}}};
  store.upsert_wiki_page("main", "a", "A", {.source_hashes = {{"other", "1"}}, .citations = twice});
  store.restate_page("main", "b", "hash", cites("moved"));
  EXPECT_THAT(resting_on({"src", "both", "cited"}), ElementsAre());
  EXPECT_THAT(resting_on({"other", "moved"}), ElementsAre("a", "b"));
  store.remove_page("main", "a");
  EXPECT_THAT(resting_on({"other", "moved"}), ElementsAre("b"));
  EXPECT_EQ(stored("SELECT count(*) FROM rests_on"), 3) << "nothing is left of the page";
}

TEST_F(StoreTest, StaleMarksBelongToRowsAndGoWithTheNextUpsert) {
  for (const char* page : {"a", "b"}) store.upsert_wiki_page("main", page, page, {});
  store.mark_stale("main", {{"a", "old reason"}, {"b", "sources changed"}, {"no row", "?"}});
  store.mark_stale("main", {{"a", "new reason"}});
  EXPECT_THAT(store.stale_marks("main"), ElementsAre(Pair("a", "new reason"), Pair("b", "sources changed")));
  store.upsert_wiki_page("release", "a", "A", {});
  store.upsert_wiki_page("main", "b", "B", {});
  EXPECT_THAT(store.stale_marks("main"), ElementsAre(Pair("a", "new reason")));
}

TEST_F(StoreTest, OnlyChangedDigestsAreWrittenAndReadAgain) {
  const auto other = open_sqlite_store(file);
  PageDigests digests{{"a", {{"topics", {"x"}}}}, {"b", 1}, {"c", nullptr}};
  store.persist_digests("main", digests, {});
  const PageDigests before = other->load_digests("main");
  digests.set("a", Map(*digests.find("a")));  // the same again in another object is no difference
  digests.set("b", Map(2));
  digests.erase("c");
  for (int round = 0; round < 2; ++round) store.persist_digests("main", digests, {});
  EXPECT_EQ(stored("SELECT count(*) FROM digests JOIN counter USING (revision) WHERE revision = 2"), 2);
  const PageDigests after = other->load_digests("main");
  EXPECT_THAT(after.keys(), ElementsAre("a", "b"));
  EXPECT_EQ(after.share("a"), before.share("a"));
  EXPECT_EQ(*after.find("a"), *digests.find("a"));
  EXPECT_EQ(*after.find("b"), 2);
  EXPECT_TRUE(other->load_digests("release").empty());
}

TEST_F(StoreTest, KeepsStateAndSourceRecords) {
  EXPECT_FALSE(store.wiki_state("main"));
  store.upsert_wiki_state("main", {});
  store.upsert_wiki_state("main", {"2026-01-02T03:04:05Z", "abc", 7, "m", std::int64_t{1} << 40, "ff"});
  const auto [built, commit, changed, model, pages, manifest] = store.wiki_state("main").value();
  EXPECT_THAT((std::vector{built, commit, model, manifest}),
              ElementsAre("2026-01-02T03:04:05Z", "abc", "m", "ff"));
  EXPECT_THAT((std::vector{changed, pages}), ElementsAre(7, std::int64_t{1} << 40));

  store.update_source_records({{"a", "1"}, {"b", "2"}, {"c", ""}});
  store.update_source_records({{"a", std::nullopt}, {"b", "3"}, {"never", std::nullopt}});
  EXPECT_NE(refusal([&] { store.update_source_records({{"b", std::nullopt}, {"d", "\xff"}}); }), "");
  EXPECT_THAT(source_records(store), ElementsAre(Pair("b", "3"), Pair("c", "")));
}

TEST_F(StoreTest, ConcurrentWritersLoseNothingAndReadTheirOwnWrites) {
  constexpr std::size_t kWriters = 6;
  const std::filesystem::path fresh = dir / "new.db";
  std::atomic<int> unseen = 0;
  const auto save_pages = [&](std::size_t writer) {
    const auto own = open_sqlite_store(fresh);
    for (int i = 0; i < 8; ++i) {
      WikiStore& mine = i % 2 == 0 ? *own : store;
      const std::string page = std::to_string(writer) + "/" + std::to_string(i);
      mine.store_chunks(mine.upsert_wiki_page("main", page, "A", {}), {chunk(0, "shared")}, {});
      unseen += mine.get_wiki_pages("main").find(page) == nullptr || mine.chunks("main", page).size() != 1;
    }
  };
  testing::in_threads(kWriters, [&](std::size_t i) { EXPECT_EQ(refusal([&] { save_pages(i); }), ""); });
  EXPECT_EQ(unseen, 0);
  EXPECT_EQ(open_sqlite_store(fresh)->get_wiki_pages("main").size(), kWriters * 4);
  EXPECT_EQ(store.get_wiki_pages("main").size(), kWriters * 4);
}

// SQLite refuses a write whose transaction read before another's commit, at once and without waiting.
TEST_F(StoreTest, AWriteThatReadsFirstComesAfterAnothersCommit) {
  const std::int64_t key = store.upsert_wiki_page("main", "p", "P", {});
  expect_to_come_after_anothers_commit([&] { store.store_chunks(key, {chunk(0, "x")}, {}); });
}

class PassagesTest : public StoreTest {
 protected:
  // Stores a page of these passages, in a branch of the same name as the page.
  std::int64_t put(const std::string& page, const std::vector<std::string>& hashes,
                   const PassageHashes& shared_before = {}) {
    std::vector<Map> chunks(hashes.size());
    for (std::size_t i = 0; i < hashes.size(); ++i) chunks[i] = chunk(static_cast<int>(i), hashes[i]);
    const std::int64_t key = store.upsert_wiki_page(page, page, page, {});
    store.store_chunks(key, chunks, shared_before);
    return key;
  }

  std::vector<std::string> embedded() {
    std::vector<std::string> hashes;
    for (const auto& [hash, vector] : store.vectors("m", {"w", "x", "y", "z"})) hashes.push_back(hash);
    return hashes;
  }
};

TEST_F(PassagesTest, ChunksAndVectorsComeBack) {
  constexpr float kLeast = std::numeric_limits<float>::denorm_min();
  const auto key = put("a", {"x"});
  std::vector<Map> chunks = {chunk(1, "y", {0.1F, kLeast, -0.0F}), chunk(0, "x", nullptr)};
  store.store_chunks(key, chunks, {});
  for (Map& record : chunks) record.erase("embedding");
  EXPECT_THAT(store.chunks("a", "a"), ElementsAre(chunks[1], chunks[0]));
  EXPECT_THAT(store.vectors("m", {"y", "unknown", "x"}),
              ElementsAre(Pair("x", ElementsAre(0.5F, -1.0F)), Pair("y", ElementsAre(0.1F, kLeast, -0.0F))));
  EXPECT_THAT(store.vectors("other model", {"x"}), IsEmpty());
}

TEST_F(PassagesTest, APassageIsDeletedWithTheLastPageThatHoldsIt) {
  const struct {
    const char* why;
    const char* page;
    std::vector<std::string> hashes;
    PassageHashes shared_before;
    std::vector<std::string> kept;
  } steps[] = {
      {"new passages", "a", {"x", "y", "x"}, {}, {"x", "y"}},
      {"another branch holds one too", "b", {"y", "z"}, {}, {"x", "y", "z"}},
      {"a new one does not take the place of what another holds", "b", {"w", "z"}, {}, {"w", "x", "y", "z"}},
      {"one that is known takes no place", "b", {"y", "z"}, {}, {"x", "y", "z"}},
      {"its own goes, the shared one stays", "a", {"w"}, {"y"}, {"w", "y", "z"}},
      {"the last holder lets go", "b", {"z", "w"}, {}, {"w", "z"}},
      {"what was shared before is outdated and names too few", "b", {"z"}, {}, {"w", "z"}},
      {"nothing is left", "a", {}, {}, {"z"}},
  };
  for (const auto& step : steps) {
    put(step.page, step.hashes, step.shared_before);
    EXPECT_EQ(embedded(), step.kept) << step.why;
  }
  EXPECT_EQ(stored("SELECT count(*) FROM passages"), 1);
}

// One statement per passage would take quadratic time: each cascade walks through all changes of the
// savepoint.
TEST_F(PassagesTest, AllPassagesOfAPageAreDeletedInOneStatement) {
  const auto count_deletions = [](unsigned, void* count, void* ended, void*) {
    const std::string_view text(sqlite3_sql(static_cast<sqlite3_stmt*>(ended)));
    *static_cast<int*>(count) += text.starts_with("DELETE FROM passages") ? 1 : 0;
    return 0;
  };
  std::vector<std::string> many;
  for (int i = 0; i < 30; ++i) many.push_back("passage " + std::to_string(i));
  const auto key = put("a", many);
  put("b", {many[7]});
  Connection connection = open_database(file);
  int deletions = 0;
  sqlite3_trace_v2(connection.database().getHandle(), SQLITE_TRACE_PROFILE, count_deletions, &deletions);
  replace_chunks(connection, key, {}, {});
  EXPECT_EQ(deletions, 1);
  EXPECT_EQ(stored("SELECT count(*) FROM passages"), 1);
  EXPECT_EQ(stored("SELECT count(*) FROM vectors"), 1);
}

// A new passage may reuse the slot of a deleted one and must not inherit its vectors or text.
TEST_F(PassagesTest, ANewPassageInAReusedSlotInheritsNothing) {
  const auto key = put("a", {"x", "y"});
  store.add_vectors("m2", {{"x", {7}}, {"y", {8}}});
  const std::vector<Map> chunks{chunk(0, "z", {0.25F}), chunk(1, "y", nullptr), chunk(2, "w", {3.0F})};
  store.store_chunks(key, chunks, {});
  EXPECT_THAT(store.vectors("m", {"x", "y", "z", "w"}),
              ElementsAre(Pair("w", ElementsAre(3.0F)), Pair("y", ElementsAre(0.5F, -1.0F)),
                          Pair("z", ElementsAre(0.25F))));
  EXPECT_THAT(store.vectors("m2", {"x", "y", "z", "w"}), ElementsAre(Pair("y", ElementsAre(8.0F))));
  EXPECT_EQ(store.chunks("a", "a").at(0).at("text"), chunks[0].at("text"));
  EXPECT_EQ(stored("SELECT count(*) FROM passages"), 3);
}

TEST_F(PassagesTest, APassageIsSharedWhenAnotherPageHoldsIt) {
  put("a", {"x", "y", "z", "z"});
  put("b", {"y"});
  Map other_model = chunk(0, "x");
  other_model["model"] = "m2";
  store.store_chunks(put("c", {}), {other_model}, {});
  const SharedPassages shared = store.shared_passages("a", "a", "m2");
  EXPECT_THAT(shared.all, ElementsAre("x", "y"));
  EXPECT_THAT(shared.embedded, ElementsAre("x"));
}

// A search without a filter first looks at the best of all branches. It must find what a search finds that
// goes through the pages of its branch, as one with a filter does: here one that all pages pass. The small
// branch has too little among the best of all, passages are shared within and across branches, and many score
// the same.
TEST_F(StoreTest, ASearchOfEverythingFindsWhatAFilterThatAllPassFinds) {
  std::mt19937 random(7);
  const auto below = [&](unsigned end) { return static_cast<int>(random() % end); };
  for (int page = 0; page < 60; ++page) {
    const std::string branch = page % 10 == 0 ? "small" : page % 3 == 0 ? "main" : "large";
    const std::string id = "page" + std::to_string(100 + page);
    const auto key = store.upsert_wiki_page(branch, id, "A", {.page_type = "module"});
    std::vector<Map> chunks;
    for (int i = 0; i < 8; ++i) {
      const int text = below(150);
      const std::string words =
          std::string(text % 4 == 0 ? "harbour harbour " : "harbour ") + std::to_string(text);
      chunks.push_back(chunk(i, words, {0.1 * (text % 10), 1 - 0.1 * (text % 7), 0.01 * (text % 3)}));
    }
    store.store_chunks(key, chunks, {});
  }
  const auto places = [](const std::vector<FoundPassage>& found) {
    std::vector<std::string> texts;
    for (const FoundPassage& each : found)
      texts.push_back(each.page_id + " " + each.text + " " + std::to_string(each.score));
    return texts;
  };
  for (const char* branch : {"small", "main", "large", "none"}) {
    for (const std::size_t limit : {1U, 2U, 5U, 40U, 1000U}) {
      const PassageFilter all{.page_type = "module"};
      EXPECT_EQ(places(store.match_words(branch, "harbour", {}, limit)),
                places(store.match_words(branch, "harbour", all, limit)))
          << branch << " " << limit;
      EXPECT_EQ(places(store.nearest(branch, "m", {0.6F, 0.8F, 0}, {}, limit)),
                places(store.nearest(branch, "m", {0.6F, 0.8F, 0}, all, limit)))
          << branch << " " << limit;
    }
  }
  EXPECT_EQ(store.match_words("small", "harbour", {}, 5).size(), 5U);
  EXPECT_EQ(store.nearest("small", "m", {0.6F, 0.8F, 0}, {}, 5).size(), 5U);
}

TEST_F(StoreTest, APageWhoseIndexingFailedIsNotFoundByItsFormerWords) {
  const auto found = [this](const std::string& words) {
    std::vector<std::string> pages;
    for (const FoundPassage& passage : store.match_words("main", words, {}, 9))
      pages.push_back(passage.page_id);
    return pages;
  };
  const auto a = store.upsert_wiki_page("main", "a", "A", {});
  store.store_chunks(a, {chunk(0, "gardens")}, {});
  store.store_chunks(store.upsert_wiki_page("main", "b", "B", {}), {chunk(0, "harbours")}, {});
  EXPECT_THAT(found("gardens"), ElementsAre("a"));
  Connection other(file, SQLite::OPEN_READWRITE);
  other.database().exec(
      "CREATE TRIGGER fails BEFORE DELETE ON due_words BEGIN SELECT RAISE(ABORT, 'no'); END");
  store.store_chunks(a, {chunk(0, "sails")}, {});
  EXPECT_THAT(found("gardens"), IsEmpty());
  EXPECT_THAT(found("sails"), IsEmpty());
  EXPECT_THAT(found("harbours"), ElementsAre("b"));
  other.database().exec("DROP TRIGGER fails");
  EXPECT_THAT(found("sails"), ElementsAre("a"));
}

TEST_F(PassagesTest, RefusedChunksChangeNothing) {
  const auto key = put("a", {"x"});
  const auto expect_refused = [&](std::int64_t page, const char* change, const char* message) {
    Map record = chunk(0, "y");
    record.update(utils::parse_json(change, "change"));
    const std::vector<Map> chunks{chunk(1, "z"), record};
    EXPECT_THAT(refusal([&] { store.store_chunks(page, chunks, {}); }), HasSubstr(message));
    EXPECT_THAT(embedded(), ElementsAre("x")) << change;
    EXPECT_EQ(store.chunks("a", "a").size(), 1U) << change;
  };
  expect_refused(key, R"({"embedding": null})", "the passage y has no vector of the model m any");
  expect_refused(key, R"({"hash": "x", "model": "m2", "embedding": null})", "of the model m2");
  expect_refused(key, R"({"embedding": ["x"]})", "must be number");
  expect_refused(key, R"({"position": 1})", "UNIQUE");
  expect_refused(key, R"({"text": null})", "no text");
  expect_refused(key + 1, "{}", "FOREIGN KEY");
}

TEST_F(StoreTest, WriteOnAFullDiskLeavesTheOldRowAndAUsableStore) {
  const PageFields large{.summary = std::string(20'000, 'x')};
  store.upsert_wiki_page("main", "a", "old", {});
  {
    const testing::FileSizeLimit full_disk(std::filesystem::file_size(file.string() + "-wal") + 9'000);
    EXPECT_THAT(refusal([&] { store.upsert_wiki_page("main", "a", "new", large); }), HasSubstr("free space"));
  }
  EXPECT_EQ(title(store.get_wiki_pages("main"), "a"), "old");
  store.upsert_wiki_page("main", "a", "new", large);
  EXPECT_EQ(title(open_sqlite_store(file)->get_wiki_pages("main"), "a"), "new");
}

}  // namespace
}  // namespace ossilar::store
