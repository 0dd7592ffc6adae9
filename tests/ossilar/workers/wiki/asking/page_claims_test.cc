#include "ossilar/workers/wiki/asking/page_claims.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <utility>

#include "ossilar/store/forwarding_store.h"
#include "support/wiki_repo.h"

namespace ossilar::workers::wiki {
namespace {

using ossilar::testing::is_saved;
using ossilar::testing::save;
using ossilar::testing::WikiRepo;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::int64_t kMinute = 60;

// Lets others act between the look at the states and the claim.
class BeforeClaim final : public store::ForwardingStore {
 public:
  BeforeClaim(store::WikiStore& target, std::function<void()> act)
      : ForwardingStore(target), act_(std::move(act)) {}
  store::PageClaim claim_page(const std::string& branch, const store::PageClaim& claim,
                              std::int64_t now) override {
    if (act_) std::exchange(act_, nullptr)();
    return ForwardingStore::claim_page(branch, claim, now);
  }

 private:
  std::function<void()> act_;
};

// A wiki without the modules alpha and beta, and without what sums up: overview and architecture.
class PageClaimsTest : public ::testing::Test {
 protected:
  PageClaimsTest() { EXPECT_TRUE(is_saved(save(*wiki_, "src", WikiRepo::text_about("beta")))); }

  // The page that `holder` gets for a minute, "-" if it gets none.
  static std::string claim(Wiki& wiki, const std::string& holder, std::int64_t now,
                           const std::optional<std::string>& page_id = {}) {
    const auto found = claim_page(
        wiki, {.page_id = page_id, .holder = holder, .client = "agent", .now = now, .until = now + kMinute});
    if (std::holds_alternative<Answer>(found)) return "refused";
    const auto& outcome = std::get<ClaimOutcome>(found);
    if (!outcome.claim || outcome.claim->holder != holder) return "-";
    return outcome.page->page_id;
  }
  std::vector<std::string> held(std::int64_t now) {
    std::vector<std::string> pages;
    for (const auto& each : wiki_->store().page_claims(wiki_->branch(), now))
      pages.push_back(each.page_id + " " + each.holder);
    return pages;
  }
  void write(const std::string& page_id) {
    EXPECT_TRUE(is_saved(save(*wiki_, page_id, WikiRepo::text_about(page_id, "Text."))));
  }

  const WikiRepo repo_;
  const std::unique_ptr<Wiki> wiki_ = repo_.open();
};

TEST_F(PageClaimsTest, AnEndedClaimIsFreeForTheNext) {
  EXPECT_EQ(claim(*wiki_, "one", 0), "alpha");
  EXPECT_EQ(claim(*wiki_, "one", 0), "beta") << "not the one that it has";
  EXPECT_EQ(claim(*wiki_, "one", 0), "-");
  EXPECT_EQ(claim(*wiki_, "two", kMinute - 1, "beta"), "-");
  EXPECT_EQ(claim(*wiki_, "two", kMinute), "alpha");
  EXPECT_EQ(claim(*wiki_, "one", kMinute, "alpha"), "-") << "it came too late";
  EXPECT_EQ(claim(*wiki_, "one", kMinute, "nope"), "refused");
}

// Otherwise they would be stale as soon as the last of what they build on is saved, and be written twice.
TEST_F(PageClaimsTest, PagesThatSumUpComeOnceAllThatTheyBuildOnAreWritten) {
  EXPECT_EQ(claim(*wiki_, "one", 0), "alpha");
  write("beta");
  EXPECT_EQ(claim(*wiki_, "two", 0), "-") << "alpha is claimed and not written";
  EXPECT_EQ(claim(*wiki_, "two", 0, "overview"), "overview") << "by its id it can be had";
  write("alpha");
  EXPECT_EQ(claim(*wiki_, "one", 0), "architecture");
}

TEST_F(PageClaimsTest, StalePagesAreGivenAndWrittenOnesOnlyByTheirId) {
  write("alpha");
  EXPECT_EQ(claim(*wiki_, "one", 0), "beta");
  EXPECT_EQ(claim(*wiki_, "two", 0, "alpha"), "alpha");
  release_pages(*wiki_, {}, "two", 0);
  repo_.dir.write("src/alpha.cpp", "void other();\n");
  EXPECT_EQ(claim(*wiki_, "two", 0), "alpha");
}

TEST_F(PageClaimsTest, APageThatWasSavedMeanwhileIsPassedOver) {
  const auto real = store::open_sqlite_store(wiki_->paths().database());
  const auto other = repo_.open_with(std::make_unique<BeforeClaim>(*real, [this] { write("alpha"); }));
  EXPECT_EQ(claim(*other, "one", 0), "beta");
  EXPECT_THAT(held(0), ElementsAre("beta one")) << "alpha is not kept";
}

TEST_F(PageClaimsTest, OthersAreToldApartFromTheHolder) {
  claim(*wiki_, "one", 0, "alpha");
  EXPECT_EQ(standing_claim(*wiki_, "alpha", 0).value().holder, "one");
  EXPECT_FALSE(standing_claim(*wiki_, "alpha", kMinute)) << "it has ended";
  EXPECT_FALSE(standing_claim(*wiki_, "beta", 0));
  EXPECT_THAT(release_pages(*wiki_, "alpha", "two", 0), IsEmpty());
  EXPECT_THAT(release_pages(*wiki_, "alpha", "one", 0), ElementsAre("alpha"));
  EXPECT_THAT(held(0), IsEmpty());
}

}  // namespace
}  // namespace ossilar::workers::wiki
