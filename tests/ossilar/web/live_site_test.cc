#include "ossilar/web/live_site.h"

#include <gtest/gtest.h>

#include <future>

#include "support/wiki_repo.h"

namespace ossilar::web {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

class LiveSiteTest : public ::testing::Test {
 protected:
  // Waits for the next change that the site tells.
  bool changes() {
    std::unique_lock lock(mutex);
    const bool came = told.wait_for(lock, seconds(30), [this] { return count > seen; });
    seen = count;
    return came;
  }

  void tell() {
    const std::lock_guard lock(mutex);
    ++count;
    told.notify_all();
  }

  testing::WikiRepo repo;
  std::mutex mutex;
  std::condition_variable told;
  int count = 0, seen = 0;
};

TEST_F(LiveSiteTest, TellsSavesOfOthersAndChangedSources) {
  workers::wiki::WikiProvider provider(repo.dir.path(), "test");
  LiveSite live(provider, milliseconds(5), [this] { tell(); });
  const auto first = live.site();
  EXPECT_FALSE(Site::is_written(*first->page("alpha")));

  const auto other = repo.open();
  ASSERT_TRUE(testing::is_saved(testing::save(*other, "alpha", testing::WikiRepo::text_about("alpha"))));
  ASSERT_TRUE(changes());
  EXPECT_TRUE(Site::is_written(*live.site()->page("alpha")));
  EXPECT_EQ(live.site()->cited().count("src/alpha.cpp"), 1U);
  EXPECT_FALSE(Site::is_written(*first->page("alpha"))) << "a site never changes";

  repo.dir.write("src/alpha.cpp", "int other();\n");
  while (live.site()->page("alpha")->condition != workers::wiki::PageCondition::stale) ASSERT_TRUE(changes());
}

TEST_F(LiveSiteTest, OpensNothingWhereThereIsNoWiki) {
  const testing::TempDir empty;
  empty.write("a.cpp", "int a();\n");
  workers::wiki::WikiProvider provider(empty.path(), "test");
  EXPECT_THROW(LiveSite(provider, milliseconds(5), [] {}), utils::ConfigError);
}

}  // namespace
}  // namespace ossilar::web
