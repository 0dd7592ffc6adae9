// What a copy asks a store for, and a copy between two databases. The pages have what is hard to carry over:
// numbers with gaps, a page that was removed, a mark, shared passages, any bytes.
#include "ossilar/store/store_copy.h"

#include <stdexcept>
#include <string>
#include <vector>

#include "ossilar/store/contract/store_fixture.h"
#include "ossilar/utils/hash.h"

namespace ossilar::store {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const utils::Progress kSilent = [](std::size_t /*done*/, std::size_t /*total*/) {};

PageFields whole_fields() {
  return {.description = "d\x01",
          .importance = "high",
          .level = 3,
          .parent_section = "p",
          .rel_path = "a.md",
          .source_files = {"b.cc", "a.cc"},
          .source_hashes = {{"a.cc", "1"}, {"b.cc", "2"}},
          .symbols = {{{"name", "run"}, {"line", 3}}},
          .related_pages = {"b"},
          .citations = {{{"path", "a.cc"}, {"first", 1}, {"last", 2}}},
          .content_hash = "c0",
          .model = "agent-session",
          .status = "ok",
          .summary = "s 😀",
          .build_cache = R"({"prose":"long","words":12})",
          .page_type = "module"};
}

PageVersion moment(std::int64_t number, const std::string& name) {
  return {.number = number,
          .version = name,
          .at = "2026-01-02T03:04:05Z",
          .commit = "c",
          .client = "an agent",
          .action = "saved",
          .text = "text of " + name};
}

class CopyTest : public StoreTest {
 protected:
  // A page with all that belongs to one.
  void put(const std::string& branch, const std::string& page, const std::string& version = "one") {
    const std::int64_t key = store.upsert_wiki_page(branch, page, "Title of " + page, whole_fields());
    store.store_chunks(key, {chunk(0, "shared"), chunk(1, "own of " + page)}, {});
    store.keep_cited_texts(key, {"v1", "v2"}, {{"v1", std::string("\0\xff text", 7)}});
    store.keep_versions(branch, page, {moment(0, version)}, 2);
  }
  void put_wiki(int pages) {
    for (int i = 0; i < pages; ++i) put("main", "p" + std::to_string(i));
    put("other", "a");
    store.mark_stale("main", {{"p1", "the steering changed"}});
    store.keep_versions("main", "p2", {moment(0, "two"), moment(0, "three"), moment(0, "four")}, 2);
    put("main", "gone");
    store.remove_page("main", "gone");
    PageDigests digests;
    digests.set("p1", Map{{"title", "P"}});
    store.persist_digests("main", digests, {});
    store.upsert_wiki_state("main", {.last_built_at = "t", .last_commit = "c", .page_count = 3});
  }
  CopyCounts copy(const std::string& branch = "main", const utils::Progress& progress = kSilent) {
    return copy_branch(store, copied, branch, progress);
  }
  std::string why_refused() {
    try {
      require_same_wiki(store, copied, "main");
    } catch (const CopyRefused& refused) {
      return refused.what();
    }
    return "";
  }

  const std::unique_ptr<TestedDatabase> other_database = make_database();
  const std::unique_ptr<WikiStore> other_target = other_database->open();
  ForwardingStore copied{*other_target};
};

TEST_F(CopyTest, EverythingThatBelongsToAPageCanBeReadBack) {
  EXPECT_THAT(store.branches(), IsEmpty());
  put("main", "a");
  put("Main", "b");
  store.remove_page("Main", "b");
  store.upsert_wiki_state("état", {});
  EXPECT_THAT(store.branches(), ElementsAre("Main", "main", "état"));
  EXPECT_EQ(store.stored_page("main", "a"), (StoredPage{"Title of a", whole_fields()}));
  EXPECT_EQ(store.stored_page("main", "b"), std::nullopt);
  EXPECT_THAT(store.cited_versions(*store.page_key("main", "a")), ElementsAre("v1", "v2"));
  EXPECT_THAT(store.pages_with_history("Main"), ElementsAre("b"));
}

TEST_F(CopyTest, AHistoryIsReplacedUnderItsNumbers) {
  put("main", "a");
  store.replace_versions("main", "a", {moment(9, "nine"), moment(7, "seven")});
  const auto versions = store.page_versions("main", "a");
  ASSERT_EQ(versions.size(), 2);
  EXPECT_EQ(versions[0].number, 9);
  EXPECT_EQ(versions[1].number, 7);
  EXPECT_EQ(store.version_text("main", "a", 7), "text of seven");
  store.keep_versions("main", "a", {moment(0, "ten")}, 5);
  EXPECT_EQ(store.page_versions("main", "a").front().number, 10);
}

TEST_F(CopyTest, ACopyHoldsWhatTheOriginalHolds) {
  put_wiki(4);
  const CopyCounts counts = copy();
  EXPECT_EQ(counts.pages, 5) << "four, and the history of one that was removed";
  EXPECT_EQ(counts.versions, 6);
  EXPECT_EQ(counts.passages, 8);
  EXPECT_EQ(counts.texts, 4);
  EXPECT_EQ(counts.present, 0);
  EXPECT_EQ(copied.stored_page("main", "p1"), store.stored_page("main", "p1"));
  EXPECT_EQ(copied.stale_marks("main"), store.stale_marks("main"));
  EXPECT_EQ(copied.chunks("main", "p1"), store.chunks("main", "p1"));
  EXPECT_EQ(copied.vectors("m", {"shared", "own of p1"}), store.vectors("m", {"shared", "own of p1"}));
  EXPECT_EQ(copied.cited_text("v1"), std::string("\0\xff text", 7));
  EXPECT_EQ(copied.page_versions("main", "p2"), store.page_versions("main", "p2"));
  EXPECT_EQ(copied.wiki_state("main"), store.wiki_state("main"));
  EXPECT_EQ(copied.load_digests("main").size(), 1U);
  EXPECT_EQ(copied.match_words("main", "own p3", {}, 5).size(),
            store.match_words("main", "own p3", {}, 5).size());
  EXPECT_THAT(copied.branches(), ElementsAre("main")) << "one branch at a time";
}

TEST_F(CopyTest, OneThatIsCutShortIsContinued) {
  put_wiki(70);
  EXPECT_THROW(copy("main",
                    [](std::size_t done, std::size_t /*total*/) {
                      if (done == 50) throw std::runtime_error("killed");
                    }),
               std::runtime_error);
  const std::size_t held = copied.pages_with_history("main").size();
  EXPECT_GT(held, 0U);
  EXPECT_LT(held, 50U) << "of the transaction that was cut nothing is there";
  EXPECT_EQ(copy().present, held) << "what was there is not copied again";
  EXPECT_EQ(copy().present, 71U) << "nothing is left to copy";
}

TEST_F(CopyTest, OneThatIsBehindIsBroughtForward) {
  put_wiki(3);
  copy();
  put("main", "p0", "two");
  put("main", "new");
  store.remove_page("main", "p1");
  store.keep_versions("main", "p1", {moment(0, "-")}, 5);
  EXPECT_EQ(copy().present, 2U) << "p2 and the one that was gone";
  EXPECT_EQ(copied.page_key("main", "p1"), std::nullopt);
  EXPECT_EQ(copied.page_versions("main", "p0").size(), 2U);
}

TEST_F(CopyTest, AnotherWikiIsRefusedAndStays) {
  struct Case {
    const char* why;
    void (*arrange)(WikiStore& original, WikiStore& copy);
  };
  const Case cases[] = {
      {"a page of another history",
       [](WikiStore&, WikiStore& copy) { copy.keep_versions("main", "p0", {moment(0, "mine")}, 5); }},
      {"a page that the source has not",
       [](WikiStore&, WikiStore& copy) { copy.upsert_wiki_page("main", "mine", "T", {}); }},
      {"a save into the copy",
       [](WikiStore& original, WikiStore& copy) {
         copy_branch(original, copy, "main", kSilent);
         copy.keep_versions("main", "p0", {moment(0, "later")}, 5);
       }},
  };
  for (const Case& row : cases) {
    SCOPED_TRACE(row.why);
    const auto one = make_database();
    const auto two = make_database();
    const auto original = one->open();
    const auto copy = two->open();
    original->upsert_wiki_page("main", "p0", "T", whole_fields());
    original->keep_versions("main", "p0", {moment(0, "one")}, 5);
    row.arrange(*original, *copy);
    const StoredRows before = copy->get_wiki_pages("main");
    EXPECT_THROW(copy_branch(*original, *copy, "main", kSilent), CopyRefused);
    EXPECT_EQ(copy->get_wiki_pages("main").size(), before.size());
  }
}

// A store that loses a part of what it is given.
class Forgetful final : public ForwardingStore {
 public:
  using ForwardingStore::ForwardingStore;
  std::set<std::string> cited_versions(std::int64_t /*page_key*/) override { return {}; }
};

TEST_F(CopyTest, ACopyThatDiffersIsNamed) {
  put_wiki(2);
  Forgetful forgetful(copied);
  EXPECT_THAT(refusal([&] { copy_branch(store, forgetful, "main", kSilent); }),
              ::testing::HasSubstr("the page p0 of the branch main differs"));
}

}  // namespace
}  // namespace ossilar::store
