#include "ossilar/store/sqlite/schema.h"

#include <SQLiteCpp/Column.h>

#include "sqlite_fixture.h"

namespace ossilar::store {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

TEST(SchemaTest, AnEmptyFileBecomesADatabaseThatKeepsWhatItCommits) {
  const testing::TempDir dir;
  dir.write("index.db", "");  // what a crash right after the file's creation leaves
  Connection connection = open_database(dir / "index.db");
  EXPECT_EQ(connection.database().execAndGet("PRAGMA synchronous").getInt(), 2);
}

TEST(SchemaTest, AnOlderFileLearnsWhatItsPagesRestOn) {
  const testing::TempDir dir;
  const std::string file = dir / "index.db";
  open_sqlite_store(file)->upsert_wiki_page("main", "a", "A",
                                            {.source_hashes = {{"source", "1"}},
                                             .citations = {{{"path", "cited"}, {"first", 1}}},
                                             .build_cache = R"({"lost": [{"path": "lost"}]})"});
  {
    SQLite::Database former(file, SQLite::OPEN_READWRITE);
    const int version = former.execAndGet("PRAGMA user_version").getInt();
    former.exec(
        "DROP TRIGGER rest_of_new; DROP TRIGGER rest_of_changed; DROP TABLE rests_on;"
        " DROP TABLE page_claims");
    former.exec("PRAGMA user_version = " + std::to_string(version - 2));
  }
  const auto store = open_sqlite_store(file);
  for (const char* path : {"source", "cited", "lost"})
    EXPECT_EQ(store->pages_resting_on("main", {path}).size(), 1U) << path;
  EXPECT_FALSE(store->damage());
}

struct Refused {
  const char* why;
  bool ours;           // is it made by this program
  const char* sql;     // what another one then did to it, and has it still open
  std::uintmax_t cut;  // the size that is left of it, 0 for all
  const char* message;
};

void make(const Refused& refused, const std::string& file) {
  if (refused.ours) open_sqlite_store(file + ".made");
  SQLite::Database database(file + ".made", SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
  database.exec(refused.sql);
  std::filesystem::copy_file(file + ".made", file);
  if (std::filesystem::exists(file + ".made-wal"))
    std::filesystem::copy_file(file + ".made-wal", file + "-wal");
  if (refused.cut > 0) std::filesystem::resize_file(file, refused.cut);
}

TEST(SchemaTest, FileThatIsNotOursToChangeIsRefusedUntouched) {
  const Refused cases[] = {
      {"newer schema", true, "PRAGMA user_version = 99; PRAGMA wal_checkpoint(TRUNCATE)", 0, "version 99"},
      {"newer schema by its log", true, "PRAGMA user_version = 99", 0, "a newer ossilar made it"},
      {"another id", false, "PRAGMA application_id = 7", 0, "it belongs to another program"},
      {"no id, with a log", false, "PRAGMA journal_mode = WAL; CREATE TABLE t(x)", 0, "another program"},
      {"cut off", true, "", 20'000, "the file is damaged"},
      {"header cut off", true, "", 40, "the file is damaged"},
  };
  for (const Refused& refused : cases) {
    const testing::TempDir dir;
    make(refused, dir / "index.db");
    const std::string before = dir.read("index.db") + dir.read("index.db-wal");
    EXPECT_THAT(refusal([&] { open_sqlite_store(dir / "index.db"); }), HasSubstr(refused.message))
        << refused.why;
    EXPECT_EQ(dir.read("index.db") + dir.read("index.db-wal"), before) << refused.why;
  }
}

TEST(SchemaTest, FileThatIsNoDatabaseIsRefusedUntouched) {
  const testing::TempDir dir;
  dir.write("index.db", std::string(5000, 'x'));
  std::filesystem::create_symlink("target.db", dir / "link.db");
  EXPECT_THAT(refusal([&] { open_sqlite_store(dir / "index.db"); }),
              StartsWith((dir / "index.db").string() + ": cannot open it: "));
  EXPECT_THAT(refusal([&] { open_sqlite_store(dir / "link.db"); }), HasSubstr("no symbolic link"));
  EXPECT_EQ(dir.read("index.db"), std::string(5000, 'x'));
  EXPECT_FALSE(std::filesystem::exists(dir / "target.db"));
}

}  // namespace
}  // namespace ossilar::store
