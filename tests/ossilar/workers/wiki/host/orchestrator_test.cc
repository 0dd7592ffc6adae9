#include "ossilar/workers/wiki/orchestrator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>

#include "ossilar/store/sqlite/sqlite_store.h"
#include "ossilar/workers/wiki/sections.h"
#include "support/hooked_store.h"
#include "support/threads.h"
#include "support/wiki_repo.h"

namespace ossilar::workers::wiki {
namespace {

using ossilar::testing::error_of;
using ossilar::testing::is_saved;
using ossilar::testing::save;
using ossilar::testing::state_of;
using ossilar::testing::WikiRepo;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

TEST(Host, ASavedPageReadsBackAndARefusedOneIsNotStored) {
  const WikiRepo repo;
  const auto wiki = repo.open();
  const Answer refused = save(*wiki, "alpha", "No sources [src/alpha.cpp:L1-L99].");
  EXPECT_THAT(error_of(refused), HasSubstr("page has 0 valid citation(s); at least 2 required."));
  EXPECT_FALSE(std::filesystem::exists(repo.dir / "wiki/pages/alpha.md"));
  EXPECT_EQ(state_of(*wiki, "alpha").condition, PageCondition::missing);

  const Answer saved = save(*wiki, "alpha", WikiRepo::text_about("alpha"));
  ASSERT_TRUE(is_saved(saved)) << saved;
  EXPECT_EQ(saved.at("rel_path"), "pages/alpha.md");
  EXPECT_EQ(saved.at("citations"), 2);
  const Answer section = save(*wiki, "alpha", "Other [src/alpha.cpp:L5].", "## two ##");
  ASSERT_TRUE(is_saved(section)) << section;

  const auto text = std::get<StoredPage>(WikiReader(*wiki).read_page("alpha")).text;
  EXPECT_EQ(
      split_authored(text, "").text(),
      "About alpha.\n\n## One\n\nFirst. [src/alpha.cpp:L1-L3]\n\n## Two\n\nOther [src/alpha.cpp:L5].\n");
  EXPECT_THAT(text, HasSubstr("[src/alpha.cpp:L5]: ../../src/alpha.cpp#L5\n"));
  EXPECT_EQ(state_of(*wiki, "alpha").condition, PageCondition::ok);
  EXPECT_THAT(repo.dir.read("wiki/index.md"), HasSubstr("[Alpha](pages/alpha.md): About alpha."));
  EXPECT_EQ(WikiReader(*wiki).status().last_write->page_count, 1);
}

TEST(Host, ADryRunAnswersAndWritesNothing) {
  const WikiRepo repo;
  const auto wiki = repo.open();
  const Answer answer = preview_page(*wiki, {"alpha", WikiRepo::text_about("alpha"), {}, {}});
  EXPECT_EQ(answer.at("saved"), false);
  EXPECT_EQ(answer.at("citations"), 2);
  EXPECT_FALSE(std::filesystem::exists(repo.dir / "wiki/pages/alpha.md"));
  EXPECT_EQ(state_of(*wiki, "alpha").condition, PageCondition::missing);
  EXPECT_EQ(error_of(preview_page(*wiki, {"alpha", " \n", {}, {}})), "content is required");
}

TEST(Host, ALinkUnderAFormerTitleStillLeadsToThePage) {
  const WikiRepo repo;
  const auto wiki = repo.open();
  ASSERT_TRUE(is_saved(save(*wiki, "alpha", WikiRepo::text_about("alpha"), {}, "The First")));
  EXPECT_THAT(error_of(save(*wiki, "beta", WikiRepo::text_about("beta"), {}, "the  FIRST")),
              HasSubstr("is the title of page 'alpha'"));
  ASSERT_TRUE(is_saved(save(*wiki, "alpha", WikiRepo::text_about("alpha", "Again."))));
  EXPECT_THAT(repo.page("alpha"), ::testing::StartsWith("# The First\n"));

  ASSERT_TRUE(is_saved(save(*wiki, "beta", WikiRepo::text_about("beta", "See [The first] and [Alpha]."))));
  EXPECT_THAT(repo.page("beta"), HasSubstr("[The first]: alpha.md\n[Alpha]: alpha.md\n"));
}

TEST(Host, APageGoesStaleWithItsSourcesAndWithWhatItBuildsOn) {
  const WikiRepo repo("[wiki]\nmin_citations_per_page = 0\n");
  const auto wiki = repo.open();
  ASSERT_TRUE(is_saved(save(*wiki, "alpha", WikiRepo::text_about("alpha"))));
  ASSERT_TRUE(is_saved(save(*wiki, "overview", "All of it.\n")));
  ASSERT_TRUE(is_saved(save(*wiki, "alpha", WikiRepo::text_about("alpha", "First."))));
  EXPECT_EQ(state_of(*wiki, "overview").condition, PageCondition::ok) << "the abstract is the same";

  ASSERT_TRUE(is_saved(save(*wiki, "alpha", WikiRepo::text_about("alpha", "Another opening."))));
  EXPECT_EQ(state_of(*wiki, "overview").reason, "pages it builds on changed: alpha");
  ASSERT_TRUE(is_saved(save(*wiki, "overview", "All of it, seen again.\n")));
  EXPECT_EQ(state_of(*wiki, "overview").condition, PageCondition::ok);

  repo.dir.write("src/alpha.cpp", WikiRepo::ten_lines("altered"));
  EXPECT_THAT(state_of(*wiki, "alpha").reason, HasSubstr("[src/alpha.cpp:L1-L3] changed"));
  EXPECT_EQ(state_of(*wiki, "alpha").condition, PageCondition::stale);
  std::filesystem::remove(repo.dir / "src/alpha.cpp");
  EXPECT_THAT(state_of(*wiki, "alpha").reason, HasSubstr("[src/alpha.cpp:L4] is gone in 'Two'"));
}

// Counts the calls of the embedder and runs a hook once, in the middle of the next draft.
class WatchedEmbedder final : public search::Embedder {
 public:
  std::string model() const override { return inner_->model(); }
  std::size_t dimensions() const override { return inner_->dimensions(); }
  std::vector<std::vector<float>> embed(const std::vector<std::string>& texts,
                                        const utils::Task& task) override {
    ++calls;
    if (auto run = std::exchange(hook, {})) run();
    return inner_->embed(texts, task);
  }
  std::function<void()> hook;
  int calls = 0;

 private:
  std::unique_ptr<search::Embedder> inner_ = search::make_local_embedder();
};

struct WatchedWiki {
  explicit WatchedWiki(const WikiRepo& repo, std::unique_ptr<store::WikiStore> with = nullptr) {
    auto owned = std::make_unique<WatchedEmbedder>();
    embedder = owned.get();
    wiki = repo.open_with(std::move(with), std::move(owned));
  }
  WatchedEmbedder* embedder = nullptr;
  std::unique_ptr<Wiki> wiki;
};

TEST(Host, ASaveOfAnotherPageInBetweenCostsNoSecondEmbedding) {
  const WikiRepo repo;
  WatchedWiki watched(repo);
  const auto other = repo.open();
  watched.embedder->hook = [&] { EXPECT_TRUE(is_saved(save(*other, "beta", WikiRepo::text_about("beta")))); };
  ASSERT_TRUE(is_saved(save(*watched.wiki, "alpha", WikiRepo::text_about("alpha"))));
  EXPECT_EQ(watched.embedder->calls, 1);
  ASSERT_TRUE(is_saved(save(*watched.wiki, "alpha", WikiRepo::text_about("alpha"))));
  EXPECT_EQ(watched.embedder->calls, 1) << "a passage is embedded once";
}

TEST(Host, ALostRaceIsDraftedAgainFromWhatTheOtherSaved) {
  const WikiRepo repo;
  WatchedWiki watched(repo);
  ASSERT_TRUE(is_saved(save(*watched.wiki, "alpha", WikiRepo::text_about("alpha"))));
  const auto other = repo.open();
  watched.embedder->hook = [&] {
    EXPECT_TRUE(is_saved(save(*other, "alpha", "Theirs [src/alpha.cpp:L7].", "One", "Renamed")));
  };
  ASSERT_TRUE(is_saved(save(*watched.wiki, "alpha", "Ours [src/alpha.cpp:L8].", "Two")));
  EXPECT_THAT(repo.page("alpha"),
              ::testing::StartsWith("# Renamed\n\nAbout alpha.\n\n## One\n\nTheirs "
                                    "[src/alpha.cpp:L7].\n\n## Two\n\nOurs [src/alpha.cpp:L8].\n"));
}

TEST(Host, ThreadsOnOnePageAndOnManyLoseNothing) {
  const WikiRepo repo;
  const auto wiki = repo.open();
  ASSERT_TRUE(is_saved(save(*wiki, "alpha", WikiRepo::text_about("alpha"))));
  const std::array<std::pair<const char*, std::optional<std::string>>, 3> places{
      {{"alpha", "One"}, {"alpha", "Two"}, {"beta", std::nullopt}}};
  std::array<std::string, 3> last;
  testing::in_threads(places.size(), [&](std::size_t place) {
    const auto& [page, section] = places.at(place);
    for (int i = 0; i < 8; ++i) {
      const std::string text = std::to_string(place) + "/" + std::to_string(i);
      const std::string content = text + " [src/alpha.cpp:L7] [src/alpha.cpp:L9].";
      if (is_saved(save(*wiki, page, content, section))) last.at(place) = text;
    }
  });
  for (std::size_t place = 0; place < places.size(); ++place) {
    EXPECT_NE(last.at(place), "");
    EXPECT_THAT(repo.page(places.at(place).first), HasSubstr(last.at(place)));
  }
  EXPECT_EQ(state_of(*wiki, "alpha").condition, PageCondition::ok);
}

// A hook that fails at write number `fail_at` of a save.
testing::StoreHook failing_at(int fail_at) {
  const auto calls = std::make_shared<int>(0);  // the store and its transactions count together
  return [fail_at, calls](const std::string& operation) {
    if (operation != "get_wiki_pages" && operation != "commit" && ++*calls == fail_at)
      throw store::StorageError("disk full");
  };
}

TEST(Host, AStoreThatFailsAtAnyWriteLeavesThePageWholeAndTheNextSaveWorks) {
  int failures = 0;
  for (int fail_at = 1;; ++fail_at) {
    const WikiRepo repo("[wiki]\nmin_citations_per_page = 0\n");
    save(*repo.open(), "alpha", WikiRepo::text_about("alpha", "Before."));
    ASSERT_TRUE(is_saved(save(*repo.open(), "overview", "All of it.\n")));
    const auto real = store::open_sqlite_store(repo.dir / ".ossilar/index.db");
    const auto digest_of_alpha = [&] { return *real->load_digests("default").find("alpha"); };
    const Map digest_before = digest_of_alpha();
    WatchedWiki faulty(repo, std::make_unique<testing::HookedStore>(*real, failing_at(fail_at)));
    const std::string text = WikiRepo::text_about("alpha");
    bool failed = false;
    try {
      EXPECT_TRUE(is_saved(save(*faulty.wiki, "alpha", text)));
    } catch (const store::StorageError&) {
      failed = true;
    }
    EXPECT_EQ(split_authored(repo.page("alpha"), "").text(), text) << "write " << fail_at;
    const auto wiki = repo.open();
    EXPECT_EQ(real->stale_marks("default").contains("overview"), digest_of_alpha() != digest_before)
        << "what builds on the page is marked with the page's digest, or neither is; write " << fail_at;
    ASSERT_TRUE(is_saved(save(*wiki, "alpha", WikiRepo::text_about("alpha", "Next.")))) << fail_at;
    EXPECT_THAT(repo.page("alpha"), HasSubstr("Next."));
    if (!failed) break;
    ++failures;
  }
  EXPECT_EQ(failures, 4) << "row, chunks, digests, stale marks; a failed state is only logged";
}

TEST(Host, ALinkInAPagesPlaceIsNeitherWrittenNorReadThrough) {
  const WikiRepo repo;
  repo.dir.write("outside.txt", "precious\n");
  const auto wiki = repo.open();
  std::filesystem::create_symlink(repo.dir / "outside.txt", repo.dir / "wiki/pages/alpha.md");
  EXPECT_THROW(save(*wiki, "alpha", WikiRepo::text_about("alpha")), utils::Error);
  EXPECT_EQ(repo.dir.read("outside.txt"), "precious\n");
  EXPECT_THROW(WikiReader(*wiki).read_page("alpha"), utils::Error) << "nor read through";
}

}  // namespace
}  // namespace ossilar::workers::wiki
