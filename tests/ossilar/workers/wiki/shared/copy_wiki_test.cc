// A wiki moves from a machine's database to one that machines share, and back.
#include "ossilar/workers/wiki/host/copy_wiki.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "ossilar/store/file_lock.h"
#include "ossilar/store/postgresql/connection.h"
#include "ossilar/store/postgresql/postgresql_store.h"
#include "ossilar/store/sqlite/sqlite_store.h"
#include "ossilar/workers/wiki/check/arrivals.h"
#include "ossilar/workers/wiki/check/wiki_check.h"
#include "support/postgres_server.h"
#include "support/wiki_repo.h"

namespace ossilar::workers::wiki {
namespace {

using ossilar::testing::PostgresServer;
using ossilar::testing::WikiRepo;
using ::testing::HasSubstr;

const utils::Progress kUnwatched = [](std::size_t /*done*/, std::size_t /*total*/) {};

class CopyWikiTest : public ::testing::Test {
 protected:
  CopyWikiTest() {
    static int count = 0;
    const std::string database = "copied" + std::to_string(++count);
    store::postgresql::Connection({.url = PostgresServer::shared().url("postgres"), .program = "test"})
        .execute("CREATE DATABASE " + database);
    url_ = PostgresServer::shared().url(database);
  }

  static std::unique_ptr<Wiki> open(const WikiRepo& repo) {
    auto wiki = open_wiki(repo.dir.path(), "test");
    adopt_arrivals(*wiki, WhenBusy::wait);
    return wiki;
  }
  static void save(const WikiRepo& repo, const std::string& page, const std::string& text) {
    const auto wiki = open(repo);
    const SaveOutcome outcome =
        ossilar::testing::save_page(*wiki, {.page_id = page, .content = WikiRepo::text_about(page, text)});
    EXPECT_TRUE(ossilar::testing::is_saved(outcome.answer)) << outcome.answer.dump();
  }
  static std::string refused(const WikiRepo& repo, const std::string& from, const std::string& to) {
    try {
      copy_wiki(repo.dir.path(), from, to, kUnwatched);
    } catch (const utils::Error& error) {
      return error.what();
    }
    return "";
  }
  std::string shared() const { return "[store]\nurl = \"" + url_ + "\"\n"; }

  std::string url_;
};

TEST_F(CopyWikiTest, AWikiMovesToTheSharedDatabaseAndBack) {
  const WikiRepo first;
  save(first, "alpha", "The first text.");
  save(first, "alpha", "The second text.");
  save(first, "beta", "Of beta.");
  const WikiCopy there = copy_wiki(first.dir.path(), kLocalStore, url_, kUnwatched);
  EXPECT_EQ(there.branches, 1U);
  EXPECT_EQ(there.counts.pages, 2U);
  EXPECT_EQ(there.counts.versions, 3U);

  const WikiRepo second(shared());
  {
    const auto wiki = open(second);
    wiki->bring_in_files();
    EXPECT_EQ(second.page("alpha"), first.page("alpha"));
    EXPECT_EQ(wiki->store().page_versions(wiki->branch(), "alpha").size(), 2U);
  }
  save(second, "alpha", "The third text, from another machine.");

  const WikiCopy back = copy_wiki(first.dir.path(), url_, kLocalStore, kUnwatched);
  EXPECT_EQ(back.counts.present, 1U) << "beta has not changed since";
  EXPECT_EQ(first.page("alpha"), second.page("alpha")) << "the files follow";
  const auto wiki = open(first);
  EXPECT_EQ(wiki->store().page_versions(wiki->branch(), "alpha").size(), 3U);
  save(first, "alpha", "The fourth text.");
}

TEST_F(CopyWikiTest, SaysInOneLineWhyItDoesNothing) {
  const WikiRepo repo;
  EXPECT_THAT(refused(repo, kLocalStore, "mysql://x"), HasSubstr("expected local or postgresql://..."));
  EXPECT_THAT(refused(repo, kLocalStore, kLocalStore), HasSubstr("the same store"));
  EXPECT_THAT(refused(repo, kLocalStore, url_), HasSubstr("there is no wiki to copy"));
  EXPECT_THAT(refused(repo, url_, kLocalStore), HasSubstr("there is no wiki to copy"));
  save(repo, "alpha", "Here.");
  const WikiRepo other(shared());
  save(other, "alpha", "There.");
  EXPECT_THAT(refused(repo, kLocalStore, url_),
              HasSubstr("the target holds another wiki or newer saves: its page alpha"));
  EXPECT_THAT(refused(repo, url_, kLocalStore),
              HasSubstr("the target holds another wiki or newer saves: its page alpha"));
  EXPECT_THAT(repo.page("alpha"), HasSubstr("Here."));
}

TEST_F(CopyWikiTest, WaitsForTheLocksOfBoth) {
  const WikiRepo repo("[wiki]\nlock_timeout_s = 0.05\n");
  save(repo, "alpha", "Here.");
  store::FileLock machines(
      {.path = repo.dir / ".ossilar/write.lock", .timeout = {}, .holder = "a save here"});
  machines.acquire(true);
  EXPECT_THAT(refused(repo, kLocalStore, url_), HasSubstr("the wiki is being written by"));
  machines.release();
  const store::SharedStore other =
      store::open_postgresql_store({.url = url_, .program = "a save there", .branch = open(repo)->branch()},
                                   store::open_sqlite_store(repo.dir / "other.db"));
  other.lock->acquire(true);
  EXPECT_THAT(refused(repo, kLocalStore, url_), HasSubstr("the wiki is being written by"));
  other.lock->release();
  EXPECT_EQ(refused(repo, kLocalStore, url_), "");
}

}  // namespace
}  // namespace ossilar::workers::wiki
