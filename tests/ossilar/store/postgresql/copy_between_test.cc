// A copy there and back between the two databases, which store the same wiki in different forms.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ossilar/store/contract/store_fixture.h"
#include "ossilar/store/store_copy.h"
#include "postgresql_database.h"

namespace ossilar::store {
namespace {

TEST(CopyBetweenStores, ThereAndBackNothingChanges) {
  const testing::TempDir dir;
  const auto original = open_sqlite_store(dir / "original.db");
  const auto returned = open_sqlite_store(dir / "returned.db");
  PostgresqlDatabase database;
  const SharedStore shared = database.open_shared();
  constexpr int kPages = 80;
  for (int i = 0; i < kPages; ++i) {
    const std::string page = "p" + std::to_string(i);
    const std::string odd("nul \0 and \x01 and 😀", 21);
    const std::int64_t key = original->upsert_wiki_page(
        "main", page, odd,
        {.symbols = {{{"name", odd}}}, .build_cache = R"({"prose":"a"})", .page_type = "module"});
    original->store_chunks(key, {chunk(0, "shared"), chunk(1, page, {0.1, 3e-30})}, {});
    original->keep_cited_texts(key, {page}, {{page, odd + "\xff"}});
    original->keep_versions("main", page, {{.version = "a", .text = odd}, {.version = "b", .text = "b"}}, 1);
  }
  const utils::Progress silent = [](std::size_t, std::size_t) {};
  shared.lock->acquire(true);
  const CopyCounts there = copy_branch(*original, *shared.store, "main", silent);
  EXPECT_EQ(there.pages, kPages);
  EXPECT_EQ(there.texts, kPages);
  copy_branch(*shared.store, *returned, "main", silent);
  shared.lock->release();
  const CopyCounts again = copy_branch(*original, *returned, "main", silent);
  EXPECT_EQ(again.present, kPages) << "each page is as it was, in every part";
  EXPECT_EQ(returned->page_versions("main", "p3").at(0).number, 2);
  EXPECT_EQ(returned->damage(), std::nullopt);
  EXPECT_EQ(database.number("SELECT count(*) FROM ossilar.chunks"), 2 * kPages);
}

}  // namespace
}  // namespace ossilar::store
