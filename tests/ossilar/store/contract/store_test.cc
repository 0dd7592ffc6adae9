#include <atomic>
#include <limits>
#include <vector>

#include "ossilar/store/contract/store_fixture.h"
#include "support/threads.h"

namespace ossilar::store {
namespace {

using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::StartsWith;

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
  const char* const kWhole =
      R"({"prose": "p", "diagrams": ["d"], "outline": ["o"], "sections": [], "versions": [], "é": 1})";
  for (const auto& [given, in_row] : std::vector<std::pair<std::string, std::string>>{
           {kWhole, R"({"outline":["o"],"é":1})"}, {"", ""}, {"{\"prose\": ", "{\"prose\": "}}) {
    store.upsert_wiki_page("main", "a", "A", {.build_cache = given});
    EXPECT_EQ(utils::string_member(*store.get_wiki_pages("main").find("a"), "build_cache"), in_row);
    EXPECT_EQ(store.build_cache("main", "a"), given);
  }
  EXPECT_EQ(store.build_cache("release", "a"), std::nullopt);
}

// A store may keep it beside the rows, so each way to change a row is tried.
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
}

TEST_F(StoreTest, ReadsOnlyWhatAnotherStoreChanged) {
  const auto other = database->open();
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
                StartsWith(database->name() + ": cannot store the page a: "));
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
  const auto other = database->open();
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
  const auto fresh = make_database();
  std::atomic<int> unseen = 0;
  const auto save_pages = [&](std::size_t writer) {
    const auto own = fresh->open();
    for (int i = 0; i < 8; ++i) {
      WikiStore& mine = i % 2 == 0 ? *own : store;
      const std::string page = std::to_string(writer) + "/" + std::to_string(i);
      mine.store_chunks(mine.upsert_wiki_page("main", page, "A", {}), {chunk(0, "shared")}, {});
      unseen += mine.get_wiki_pages("main").find(page) == nullptr || mine.chunks("main", page).size() != 1;
    }
  };
  testing::in_threads(kWriters, [&](std::size_t i) { EXPECT_EQ(refusal([&] { save_pages(i); }), ""); });
  EXPECT_EQ(unseen, 0);
  EXPECT_EQ(fresh->open()->get_wiki_pages("main").size(), kWriters * 4);
  EXPECT_EQ(store.get_wiki_pages("main").size(), kWriters * 4);
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

TEST_F(StoreTest, WordsAreFoundByTheirStemsAndPartsTheBestFirst) {
  const auto put = [this](const char* branch, const char* page, const char* title, const char* type,
                          const std::vector<std::string>& texts) {
    std::vector<Map> chunks;
    for (const std::string& text : texts) {
      chunks.push_back(chunk(static_cast<int>(chunks.size()), text));
      chunks.back()["citations"] = Map::array({{{"path", std::string("src/") + page + "/x.cc"}}});
    }
    const PageFields fields{.source_files = {"lib/b.cc"}, .page_type = type};
    store.store_chunks(store.upsert_wiki_page(branch, page, title, fields), chunks, {});
  };
  const auto found = [this](const std::string& words, const PassageFilter& filter = {},
                            std::size_t limit = 9) {
    std::vector<std::string> hashes;
    for (const FoundPassage& passage : store.match_words("main", words, filter, limit))
      hashes.push_back(passage.hash);
    return hashes;
  };
  put("main", "a", "Harbours", "module", {"parseHTTPHeader not", "shared boats", "a quiet place"});
  put("main", "b", "Ships", "topic",
      {"shared boats", "sailing and sailing of ships", "an island and its port"});
  put("release", "c", "Ships", "topic", {"ships elsewhere"});
  EXPECT_THAT(found("http"), ElementsAre("parseHTTPHeader not"));
  EXPECT_THAT(found("parse_http_header"), ElementsAre("parseHTTPHeader not"));
  EXPECT_THAT(found("\"quiet' & NOT :* | !"), ElementsAre("a quiet place", "parseHTTPHeader not"));
  EXPECT_THAT(found("sailed"), ElementsAre("sailing and sailing of ships")) << "by its stem";
  EXPECT_THAT(found("boat"), ElementsAre("shared boats")) << "once, although two pages hold it";
  EXPECT_THAT(found("ship").front(), "sailing and sailing of ships") << "all of the page match by its title";
  EXPECT_EQ(found("ship").size(), 3);
  EXPECT_EQ(found("ship", {}, 2).size(), 2);
  EXPECT_THAT(found("boats", {.page_type = "topic"}), ElementsAre("shared boats"));
  EXPECT_THAT(found("quiet", {.page_type = "topic"}), IsEmpty());
  EXPECT_THAT(found("quiet", {.path = "src/a"}), ElementsAre("a quiet place"));
  EXPECT_THAT(found("quiet", {.path = "lib/b.cc"}), ElementsAre("a quiet place"));
  EXPECT_THAT(found("quiet", {.path = "src/_"}), IsEmpty());
  EXPECT_THAT(found(" -- "), IsEmpty());
  put("main", "a", "Harbours", "module", {"nothing of it"});
  EXPECT_THAT(found("quiet http"), IsEmpty()) << "the page has other words now";
}

TEST_F(PassagesTest, TheNearestPassagesComeFirst) {
  const auto key = store.upsert_wiki_page("main", "p", "P", {});
  store.store_chunks(
      key, {chunk(0, "x", {1.0F, 0.0F}), chunk(1, "y", {0.0F, 1.0F}), chunk(2, "z", {0.6F, 0.8F})}, {});
  const auto found = store.nearest("main", "m", {0.0F, 1.0F}, {}, 2);
  ASSERT_EQ(found.size(), 2);
  EXPECT_EQ(found[0].hash, "y");
  EXPECT_EQ(found[1].hash, "z");
  EXPECT_FLOAT_EQ(static_cast<float>(found[1].score), 0.8F);
  EXPECT_THAT(store.nearest("main", "other", {0.0F, 1.0F}, {}, 2), IsEmpty());
}

TEST_F(PassagesTest, AModelIsChangedOnceEveryPassageHasItsVector) {
  put("a", {"x", "y"});
  EXPECT_EQ(store.other_model("m"), std::nullopt);
  EXPECT_EQ(store.other_model("n"), "m");
  EXPECT_EQ(store.count_without_vector("n"), 2);
  EXPECT_EQ(store.passages_without_vector("n", "x", 9).at(0).hash, "y");
  store.add_vectors("n", {{"x", {1.0F}}, {"gone", {1.0F}}});
  EXPECT_FALSE(store.keep_model("n"));
  store.add_vectors("n", {{"y", {2.0F}}});
  EXPECT_TRUE(store.keep_model("n"));
  EXPECT_EQ(store.other_model("n"), std::nullopt);
  EXPECT_THAT(embedded(), IsEmpty());
  EXPECT_EQ(store.vectors("n", {"x", "y"}).size(), 2);
}

TEST_F(PassagesTest, RefusedChunksChangeNothing) {
  const auto key = put("a", {"x"});
  const auto expect_refused = [&](std::int64_t page, const char* change, const auto& message) {
    Map record = chunk(0, "y");
    record.update(utils::parse_json(change, "change"));
    const std::vector<Map> chunks{chunk(1, "z"), record};
    EXPECT_THAT(refusal([&] { store.store_chunks(page, chunks, {}); }), message);
    EXPECT_THAT(embedded(), ElementsAre("x")) << change;
    EXPECT_EQ(store.chunks("a", "a").size(), 1U) << change;
  };
  expect_refused(key, R"({"embedding": null})", HasSubstr("the passage y has no vector of the model m any"));
  expect_refused(key, R"({"hash": "x", "model": "m2", "embedding": null})", HasSubstr("of the model m2"));
  expect_refused(key, R"({"embedding": ["x"]})", HasSubstr("must be number"));
  expect_refused(key, R"({"position": 1})", AnyOf(HasSubstr("UNIQUE"), HasSubstr("a second time")));
  expect_refused(key, R"({"text": null})", HasSubstr("no text"));
  expect_refused(key + 1, "{}", AnyOf(HasSubstr("FOREIGN KEY"), HasSubstr("foreign key")));
}

}  // namespace
}  // namespace ossilar::store
