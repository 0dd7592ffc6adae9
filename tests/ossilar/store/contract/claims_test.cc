#include <string>
#include <vector>

#include "ossilar/store/contract/store_fixture.h"
#include "support/threads.h"

namespace ossilar::store {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ClaimsTest : public StoreTest {
 protected:
  // Claims the page for ten seconds and gives who holds it then, and until when.
  std::string claim(const std::string& page, const std::string& holder, std::int64_t now,
                    const std::string& branch = "main") {
    const PageClaim found = store.claim_page(
        branch, {.page_id = page, .holder = holder, .client = "agent of " + holder, .until = now + 10}, now);
    EXPECT_EQ(found.page_id, page);
    return shown(found);
  }
  static std::string shown(const PageClaim& claim) {
    EXPECT_EQ(claim.client, "agent of " + claim.holder);
    return claim.holder + " until " + std::to_string(claim.until);
  }
  std::vector<std::string> held(std::int64_t now, const std::string& branch = "main") {
    std::vector<std::string> lines;
    for (const PageClaim& each : store.page_claims(branch, now))
      lines.push_back(each.page_id + ": " + shown(each));
    return lines;
  }
};

TEST_F(ClaimsTest, APageHasOneHolderUntilItsTimeEnds) {
  EXPECT_EQ(claim("b", "one", 100), "one until 110");
  EXPECT_EQ(claim("b", "two", 101), "one until 110") << "another holds it";
  EXPECT_EQ(claim("a", "two", 101), "two until 111");
  EXPECT_EQ(claim("b", "two", 101, "release"), "two until 111") << "branches have claims of their own";
  EXPECT_THAT(held(109), ElementsAre("a: two until 111", "b: one until 110"));
  EXPECT_EQ(claim("b", "one", 105), "one until 115") << "its holder prolongs it";
  EXPECT_THAT(held(111), ElementsAre("b: one until 115")) << "one that has ended is not told";
  EXPECT_EQ(claim("b", "two", 115), "two until 125") << "free from the very second";
  EXPECT_EQ(stored("SELECT count(*) FROM page_claims WHERE branch = 'main'"), 1) << "ended ones are dropped";
  EXPECT_THAT(held(105, "release"), ElementsAre("b: two until 111"));
}

TEST_F(ClaimsTest, OnlyItsHolderReleasesAPage) {
  claim("a", "one", 100);
  claim("b", "one", 100);
  store.release_page("main", "a", "two");
  store.release_page("release", "a", "one");
  store.release_page("main", "none", "one");
  EXPECT_THAT(held(100), ElementsAre("a: one until 110", "b: one until 110"));
  store.release_page("main", "a", "one");
  EXPECT_THAT(held(100), ElementsAre("b: one until 110"));
  EXPECT_EQ(claim("a", "two", 101), "two until 111");
}

TEST_F(ClaimsTest, OfManyAtOnceOneGetsThePage) {
  constexpr std::size_t kClaimers = 8;
  std::vector<std::string> told(kClaimers);
  testing::in_threads(kClaimers, [&](std::size_t i) {
    told[i] = store.claim_page("main", {.page_id = "a", .holder = std::to_string(i), .until = 10}, 0).holder;
  });
  for (const std::string& holder : told) EXPECT_EQ(holder, told[0]);
}

TEST_F(ClaimsTest, AClaimIsPartOfTheTransactionThatMakesIt) {
  { store.begin("claim a page")->claim_page("main", {.page_id = "a", .holder = "one", .until = 10}, 0); }
  EXPECT_THAT(held(0), IsEmpty()) << "taken back without a commit";
}

}  // namespace
}  // namespace ossilar::store
