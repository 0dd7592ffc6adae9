// What SQLite alone has: a full disk, a journal, words that wait.
#include <sqlite3.h>

#include <limits>
#include <optional>
#include <random>
#include <string_view>
#include <vector>

#include "ossilar/store/sqlite/passages.h"
#include "ossilar/store/sqlite/schema.h"
#include "sqlite_fixture.h"
#include "support/file_size_limit.h"

namespace ossilar::store {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// SQLite refuses a write whose transaction read before another's commit, at once and without waiting.
TEST_F(SqliteTest, AWriteThatReadsFirstComesAfterAnothersCommit) {
  const std::int64_t key = store.upsert_wiki_page("main", "p", "P", {});
  expect_to_come_after_anothers_commit([&] { store.store_chunks(key, {chunk(0, "x")}, {}); });
}

// One statement per passage would take quadratic time: each cascade walks through all changes of the
// savepoint.
TEST_F(SqliteTest, AllPassagesOfAPageAreDeletedInOneStatement) {
  const auto count_deletions = [](unsigned, void* count, void* ended, void*) {
    const std::string_view text(sqlite3_sql(static_cast<sqlite3_stmt*>(ended)));
    *static_cast<int*>(count) += text.starts_with("DELETE FROM passages") ? 1 : 0;
    return 0;
  };
  std::vector<std::string> many;
  for (int i = 0; i < 30; ++i) many.push_back("passage " + std::to_string(i));
  std::vector<Map> chunks;
  for (const std::string& hash : many) chunks.push_back(chunk(static_cast<int>(chunks.size()), hash));
  const auto key = store.upsert_wiki_page("main", "a", "A", {});
  store.store_chunks(key, chunks, {});
  store.store_chunks(store.upsert_wiki_page("main", "b", "B", {}), {chunk(0, many[7])}, {});
  Connection connection = open_database(file);
  int deletions = 0;
  sqlite3_trace_v2(connection.database().getHandle(), SQLITE_TRACE_PROFILE, count_deletions, &deletions);
  replace_chunks(connection, key, {}, {});
  EXPECT_EQ(deletions, 1);
  EXPECT_EQ(stored("SELECT count(*) FROM passages"), 1);
  EXPECT_EQ(stored("SELECT count(*) FROM vectors"), 1);
}

// A search without a filter first looks at the best of all branches. It must find what a search finds that
// goes through the pages of its branch, as one with a filter does: here one that all pages pass. The small
// branch has too little among the best of all, passages are shared within and across branches, and many score
// the same.
TEST_F(SqliteTest, ASearchOfEverythingFindsWhatAFilterThatAllPassFinds) {
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

TEST_F(SqliteTest, APageWhoseIndexingFailedIsNotFoundByItsFormerWords) {
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

TEST_F(SqliteTest, WriteOnAFullDiskLeavesTheOldRowAndAUsableStore) {
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

// SQLite rolls back a transaction whose log it cannot write, with everything written before.
TEST_F(SqliteTest, AFailureThatRolledEverythingBackIsReported) {
  put(store, "before");
  {
    const auto group = store.begin("store the page a");
    put(*group, "a");
    std::string failure;
    std::optional<testing::FileSizeLimit> full_disk(std::in_place, std::size_t{256} * 1024);
    for (int i = 0; i < 50 && failure.empty(); ++i)
      failure = refusal([&] { put(*group, "big" + std::to_string(i), std::string(200'000, 'x')); });
    full_disk.reset();
    EXPECT_NE(failure, "") << "more than the cache holds goes to the log";
    EXPECT_THAT(refusal([&] { put(*group, "c"); }), HasSubstr("rolled this transaction back"));
    EXPECT_THAT(refusal([&] { group->commit(); }), HasSubstr("rolled this transaction back"));
  }
  EXPECT_EQ(store.get_wiki_pages("main").size(), 1);
  put(store, "d");
  EXPECT_EQ(open_sqlite_store(file)->get_wiki_pages("main").size(), 2);
}

TEST_F(SqliteTest, ATransactionThatReadsFirstComesAfterAnothersCommit) {
  expect_to_come_after_anothers_commit([&] {
    const auto group = store.begin("store a page");
    group->get_wiki_pages("main");
    std::this_thread::yield();
    put(*group, "a");
    group->commit();
  });
}

// A reader must not wait for a writer that hangs, so its source records are dropped.
TEST_F(SqliteTest, SourceRecordsAreNotStoredWhileAnotherProcessWrites) {
  Connection other(file, SQLite::OPEN_READWRITE);
  other.database().exec("BEGIN IMMEDIATE");
  store.update_source_records({{"a", "1"}});
  other.database().exec("COMMIT");
  EXPECT_THAT(source_records(store), IsEmpty());
  store.update_source_records({{"a", "1"}});
  EXPECT_THAT(source_records(store), SizeIs(1));
}

}  // namespace
}  // namespace ossilar::store
