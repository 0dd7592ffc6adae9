// A clone, a merge and an older format: adoption restores the rows and makes no page look fresher.
#include "ossilar/workers/wiki/check/arrivals.h"

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <map>

#include "findings.h"
#include "ossilar/utils/atomic_file.h"
#include "ossilar/utils/files.h"
#include "ossilar/utils/hash.h"
#include "ossilar/workers/wiki/pages/page_record.h"
#include "support/hooked_store.h"

namespace ossilar::workers::wiki {
namespace {

namespace fs = std::filesystem;
using ossilar::testing::findings_in;
using ossilar::testing::forget_local_state;
using ossilar::testing::is_saved;
using ossilar::testing::replace_in_file;
using ossilar::testing::replaced_texts;
using ossilar::testing::save;
using ossilar::testing::state_of;
using ossilar::testing::WikiRepo;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::Not;

// The fields of each row by page id, without the numbers that the database assigns, and without what it
// remembers of former versions, which no clone can know.
using Rows = std::map<std::string, std::map<std::string, std::string>>;

Rows rows_in(const fs::path& root) {
  const SQLite::Database database((root / ".ossilar/index.db").string(), SQLite::OPEN_READONLY);
  SQLite::Statement pages(database, "SELECT * FROM pages");
  Rows rows;
  while (pages.executeStep()) {
    auto& row = rows[pages.getColumn("page_id").getString()];
    for (int i = 0; i < pages.getColumnCount(); ++i) {
      const std::string name = pages.getColumn(i).getName();
      if (name != "page_key" && name != "revision") row[name] = pages.getColumn(i).getString();
    }
    Map cache = Map::parse(row["build_cache"]);
    cache.erase("versions");
    row["build_cache"] = cache.dump();
  }
  return rows;
}

// Two modules that link each other by chosen titles, a page about parts, and steering.
class AdoptionTest : public ::testing::Test {
 protected:
  AdoptionTest() {
    const auto wiki = repo_.open();
    const std::string beta = WikiRepo::text_about("beta", "See [The *First*] and [Alpha].");
    const std::string overview = "All of it [src/alpha.cpp:L1].\n\n## How\n\nSo [src/beta.cpp:L2].\n";
    EXPECT_TRUE(is_saved(save(*wiki, "alpha", WikiRepo::text_about("alpha"), {}, "The *First*")));
    EXPECT_TRUE(is_saved(save(*wiki, "beta", beta, {}, "Second")));
    EXPECT_TRUE(is_saved(save(*wiki, "alpha", WikiRepo::text_about("alpha", "See [Second]."), {}, "Third")));
    EXPECT_TRUE(is_saved(save(*wiki, "overview", overview)));
  }

  void forget() const { forget_local_state(repo_); }
  AdoptionReport adopt() const {
    const auto wiki = repo_.open();
    wiki->prepare();
    return adopt_pages(*wiki);
  }
  std::string findings() const { return findings_in(repo_); }
  Rows rows() const { return rows_in(repo_.dir.path()); }
  // The rows of a clone that adopts the pages.
  Rows rows_of_clone() const {
    forget();
    adopt();
    return rows();
  }

  const WikiRepo repo_{"[steering]\ntext = \"For newcomers.\"\n"};
};

TEST_F(AdoptionTest, GivesAClonesRowsFieldByField) {
  const Rows first = rows();
  const std::string page = repo_.page("beta");
  forget();
  EXPECT_EQ(adopt().adopted, 3U);
  EXPECT_EQ(rows(), first);
  EXPECT_THAT(findings(), IsEmpty());
  EXPECT_EQ(adopt().adopted, 0U) << "what has a row is left alone";
  ASSERT_TRUE(is_saved(save(*repo_.open(), "beta", split_authored(page, "").text())));
  EXPECT_EQ(repo_.page("beta"), page) << "its title and links too";
}

// By the tree alone a clone would not plan the page.
TEST(Adoption, GivesAClonesRowsOfAPageThatKeptItsId) {
  const WikiRepo repo;
  for (const char* path : {"core/alpha.cpp", "core/two.cpp"})
    repo.dir.write(path, WikiRepo::ten_lines(path + 5));
  const auto text = [](const std::string& folder) {
    return "About it [" + folder + "alpha.cpp:L1].\n\n## One\n\nMore [" + folder + "alpha.cpp:L2].\n";
  };
  ASSERT_TRUE(is_saved(save(*repo.open(), "core", text("core/"))));
  fs::rename(repo.dir / "core", repo.dir / "src/core");
  ASSERT_TRUE(is_saved(save(*repo.open(), "core", text("src/core/"))));
  const Rows first = rows_in(repo.dir.path());
  const std::string manifest = repo.dir.read("wiki/manifest.json");
  forget_local_state(repo);
  EXPECT_EQ(adopt_pages(*repo.open()).adopted, 1U);
  EXPECT_EQ(rows_in(repo.dir.path()), first);
  EXPECT_EQ(repo.dir.read("wiki/manifest.json"), manifest);
  EXPECT_THAT(findings_in(repo), IsEmpty());
}

// The page records the hashes of its sources, but not their symbols or diagrams.
TEST_F(AdoptionTest, GivesAStalePagesRowFromItsRecord) {
  Rows first = rows();
  repo_.dir.write("src/alpha.cpp", WikiRepo::ten_lines("altered"));
  Rows clone = rows_of_clone();
  for (Rows* rows : {&first, &clone}) {
    for (auto& [page_id, row] : *rows) {
      Map cache = Map::parse(row["build_cache"]);
      for (const char* key : {"grounding_hash", "diagrams"}) cache.erase(key);
      row["build_cache"] = cache.dump();
      row.erase("symbols");
    }
  }
  EXPECT_EQ(clone, first);
  EXPECT_EQ(state_of(*repo_.open(), "alpha").condition, PageCondition::stale);
}

TEST_F(AdoptionTest, NeverTakesHashesFromTheCurrentSources) {
  repo_.dir.write("src/beta.cpp", WikiRepo::ten_lines("later"));
  replace_in_file(repo_, "wiki/pages/beta.md", "See", "By hand, see");
  repo_.dir.write("wiki/pages/alpha.md", "# By hand\n\nAll new [src/alpha.cpp:L1] [src/alpha.cpp:L2].\n");
  repo_.dir.write("wiki/pages/stray.md", "nobody's\n");
  forget();
  const AdoptionReport report = adopt();
  EXPECT_THAT(report.edited, ElementsAre("alpha", "beta"));
  EXPECT_THAT(report.unplanned, ElementsAre((repo_.dir / "wiki/pages/stray.md").string()));
  const auto wiki = repo_.open();
  EXPECT_EQ(state_of(*wiki, "beta").condition, PageCondition::stale) << "its record is of the source before";
  EXPECT_EQ(state_of(*wiki, "alpha").condition, PageCondition::unverified) << "it has no record";
  EXPECT_THAT(findings(), HasSubstr("unverified wiki/pages/alpha.md"));
  ASSERT_TRUE(is_saved(save(*wiki, "alpha", WikiRepo::text_about("alpha"))));
  EXPECT_EQ(state_of(*wiki, "alpha").condition, PageCondition::ok) << "an author has looked";
}

TEST_F(AdoptionTest, TrustsARecordOnlyWhereASavePutsIt) {
  const std::string page = repo_.page("alpha");
  const auto record = record_of(page);
  ASSERT_TRUE(record);
  const struct {
    const char* why;
    std::string text;
    PageCondition condition;
  } rows[] = {
      {"quoted in a page that a hand wrote",
       "# By hand\n\nAs in [src/alpha.cpp:L1] [src/alpha.cpp:L2]:\n\n```\n" + record_text(*record) + "```\n",
       PageCondition::unverified},
      {"an editor took the last line feed", page.substr(0, page.size() - 1), PageCondition::ok},
  };
  for (const auto& [why, text, condition] : rows) {
    repo_.dir.write("wiki/pages/alpha.md", text);
    forget();
    adopt();
    EXPECT_EQ(state_of(*repo_.open(), "alpha").condition, condition) << why;
  }
}

TEST_F(AdoptionTest, KnowsAChosenTitleWithoutTheBlanksAroundIt) {
  const auto wiki = repo_.open();
  ASSERT_TRUE(is_saved(save(*wiki, "alpha", WikiRepo::text_about("alpha"), {}, "  Foo  bar ")));
  const std::string page = repo_.page("alpha");
  const Rows first = rows();
  EXPECT_EQ(record_of(page).value_or(PageRecord{}).agent_title, "Foo  bar");
  ASSERT_TRUE(is_saved(save(*wiki, "alpha", page)));
  EXPECT_EQ(repo_.page("alpha"), page);
  EXPECT_EQ(rows(), first);
  EXPECT_EQ(rows_of_clone(), first);
}

// A save of the same text would write another link today, but the page is not stale.
TEST_F(AdoptionTest, GivesAClonesRowsWhereATitleWasChosenAfterThePageWasSaved) {
  const auto wiki = repo_.open();
  ASSERT_TRUE(is_saved(save(*wiki, "alpha", WikiRepo::text_about("alpha", "See [Beta guide]."))));
  ASSERT_TRUE(is_saved(save(*wiki, "beta", WikiRepo::text_about("beta"), {}, "Beta guide")));
  const Rows first = rows();
  EXPECT_EQ(rows_of_clone(), first);
}

// A wiki of the former format: no page has a record, and the manifest lists everything.
class FormerFormatTest : public AdoptionTest {
 protected:
  FormerFormatTest() {
    std::string entries;
    repo_.open()->stored_pages().for_each([&](const std::string& page_id, const Map& row) {
      const std::string name = "wiki/pages/" + page_id + ".md";
      std::string text = without_record(repo_.dir.read(name));
      text.pop_back();
      repo_.dir.write(name, text);
      hashes_[page_id] = utils::sha256_hex(text);
      const PageRecord record = record_of_row(row);
      Map entry{{"page_id", page_id},
                {"title", record.title},
                {"page_type", record.type},
                {"content_hash", hashes_[page_id]},
                {"source_hashes", record.source_hashes},
                {"citations", bare(stretches_of(record.claims))},
                {"former_titles", record.former_titles}};
      if (!record.agent_title.empty()) entry["agent_title"] = record.agent_title;
      entries += (entries.empty() ? "" : ",\n") + utils::json_text(entry);
    });
    repo_.dir.write("wiki/manifest.json",
                    "{\n\"format\": 1,\n\"commit\": \"c\",\n\"files_covered\": 2,\n\"lint\": {\"x\": 1},\n"
                    "\"pages\": [\n" +
                        entries + "\n]\n}\n");
  }
  static std::vector<Map> bare(std::vector<Map> citations) {
    for (Map& citation : citations) citation.erase("claims");
    return citations;
  }
  void make_rows_former() const {
    SQLite::Database database((repo_.dir / ".ossilar/index.db").string(), SQLite::OPEN_READWRITE);
    for (const auto& [page_id, hash] : hashes_) {
      SQLite::Statement set(database,
                            "UPDATE pages SET content_hash = ?2, citations = ?3 WHERE page_id = ?1");
      set.bind(1, page_id);
      set.bind(2, hash);
      const auto row = rows().at(page_id);
      set.bind(3, utils::json_text(bare(Map::parse(row.at("citations")).get<std::vector<Map>>())));
      set.exec();
    }
  }
  void expect_migrated() const {
    for (const char* page : {"alpha", "beta", "overview"}) {
      EXPECT_TRUE(record_of(repo_.page(page))) << page;
      EXPECT_EQ(state_of(*repo_.open(), page).condition, PageCondition::ok) << page;
    }
    EXPECT_THAT(findings(), IsEmpty());
    EXPECT_THAT(repo_.dir.read("wiki/manifest.json"), HasSubstr("\"format\": 2\n,\"lint\": {\"x\": 1}\n"));
    EXPECT_EQ(rows().at("alpha").at("title"), "Third");
  }

  std::map<std::string, std::string> hashes_;
};

TEST_F(FormerFormatTest, IsMigratedWithNothingLost) {
  make_rows_former();
  const auto wiki = repo_.open();
  EXPECT_EQ(adopt_arrivals(*wiki, WhenBusy::wait).given_records, 3U);
  expect_migrated();
  EXPECT_EQ(adopt_arrivals(*wiki, WhenBusy::wait).given_records, 0U);
  const std::string migrated = repo_.page("alpha");
  ASSERT_TRUE(is_saved(save(*wiki, "alpha", split_authored(migrated, "").text())));
  EXPECT_EQ(repo_.page("alpha"), migrated) << "as a save of the same text stores it";
}

TEST_F(FormerFormatTest, IsMigratedInAClone) {
  forget();
  EXPECT_EQ(adopt().given_records, 3U);
  expect_migrated();
}

TEST_F(FormerFormatTest, IsMigratedByTheNextCommandAfterAKill) {
  make_rows_former();
  const store::StoredRows rows = repo_.open()->stored_pages();
  const std::string text = repo_.page("alpha");
  repo_.dir.write("wiki/pages/alpha.md", with_record(text, record_text(record_of_row(*rows.find("alpha")))));
  adopt_arrivals(*repo_.open(), WhenBusy::wait);
  expect_migrated();
}

// An editor writes while the page gets its record, and a killed save left its former file.
TEST_F(FormerFormatTest, IsMigratedWithoutLosingManualEdits) {
  make_rows_former();
  const fs::path page = repo_.dir / "wiki/pages/alpha.md";
  const std::string text = repo_.page("alpha");
  repo_.dir.write(utils::former_file(page).lexically_relative(repo_.dir.path()).string(), "# Earlier\n");
  {
    const utils::UniqueFd editor(open(page.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    ASSERT_TRUE(editor);
    EXPECT_EQ(adopt_arrivals(*repo_.open(), WhenBusy::wait).given_records, 3U);
    const std::string words = "By hand.\n";
    ASSERT_EQ(write(editor.get(), words.data(), words.size()), static_cast<ssize_t>(words.size()));
  }
  EXPECT_THAT(replaced_texts(repo_), IsSupersetOf({std::string("# Earlier\n"), text + "By hand.\n"}));
  expect_migrated();
}

// With its row, and in a clone. Checks that find the page unreadable must not lose its manifest entry.
class UnreadableFormerPageTest : public FormerFormatTest, public ::testing::WithParamInterface<bool> {};

TEST_P(UnreadableFormerPageTest, IsMigratedWhenItCanBeRead) {
  if (GetParam()) {
    make_rows_former();
  } else {
    forget();
  }
  const std::string text = repo_.page("alpha");
  repo_.dir.write("wiki/pages/alpha.md", text + "\xff");
  for (int look = 0; look < 2; ++look) {
    const auto wiki = repo_.open();
    wiki->prepare();
    adopt_pages(*wiki);
    EXPECT_TRUE(is_saved(save(*wiki, "beta", repo_.page("beta"))));
  }
  EXPECT_TRUE(record_of(repo_.page("overview"))) << "what can be read is brought forward";
  repo_.dir.write("wiki/pages/alpha.md", text);
  adopt_arrivals(*repo_.open(), WhenBusy::wait);
  expect_migrated();
  EXPECT_THAT(repo_.dir.read("wiki/manifest.json"), Not(HasSubstr("page_id")))
      << "all is of the format of today";
}

INSTANTIATE_TEST_SUITE_P(RowKnown, UnreadableFormerPageTest, ::testing::Bool());

TEST_F(FormerFormatTest, StaysStaleAfterItsMigration) {
  make_rows_former();
  repo_.dir.write("src/beta.cpp", WikiRepo::ten_lines("later"));
  adopt_arrivals(*repo_.open(), WhenBusy::wait);
  const auto wiki = repo_.open();
  EXPECT_EQ(state_of(*wiki, "beta").condition, PageCondition::unverified);
  const auto record = record_of(repo_.page("beta"));
  ASSERT_TRUE(record);
  for (const KnownClaim& claim : record->claims)
    EXPECT_FALSE(claim.print.is_known()) << "what was cited is not known any more";
}

TEST(Adoption, OfAPartOfALargeWikiKeepsTheLintSummary) {
  std::string config = "[wiki]\nmin_citations_per_page = 0\n";
  for (int i = 100; i < 240; ++i) config += "[[page]]\nid = \"part/p" + std::to_string(i) + "\"\n";
  const WikiRepo repo(config);
  const auto wiki = repo.open();
  for (int i = 100; i < 240; ++i)
    ASSERT_TRUE(save(*wiki, "part/p" + std::to_string(i), "One of many.").contains("saved"));
  const Map lint{{"findings", 3}};
  wiki->note_lists(wiki->lists().write_all(wiki->stored_pages(), lint));
  ASSERT_EQ(wiki->lists().lint(), lint);
  // Another clone changes a page, and its lists with it; the manifest of the whole wiki stays as it is.
  const std::string text = repo.page("part/p100");
  const std::string page =
      text.substr(0, text.find("One of many.")) + "Theirs." + text.substr(text.find("One of many.") + 12);
  for (const auto& entry : std::filesystem::directory_iterator(repo.dir / "wiki/lists")) {
    const std::string list = repo.dir.read("wiki/lists/" + entry.path().filename().string());
    const std::size_t at = list.find(utils::sha256_hex(text));
    if (at == list.npos) continue;
    repo.dir.write("wiki/lists/" + entry.path().filename().string(),
                   std::string(list).replace(at, 64, utils::sha256_hex(page)));
  }
  repo.dir.write("wiki/pages/part/p100.md", page);
  EXPECT_EQ(adopt_arrivals(*wiki, WhenBusy::wait).adopted, 1U);
  EXPECT_EQ(wiki->lists().lint(), lint);
}

class FailingEmbedder final : public search::Embedder {
 public:
  std::string model() const override { return "failing"; }
  std::size_t dimensions() const override { return 2; }
  std::vector<std::vector<float>> embed(const std::vector<std::string>&, const utils::Task&) override {
    throw utils::Error("the service is down");
  }
};

TEST(Adoption, APageThatCannotBeEmbeddedGetsNoRow) {
  const WikiRepo repo;
  ASSERT_TRUE(save(*repo.open(), "alpha", WikiRepo::text_about("alpha")).contains("saved"));
  std::filesystem::remove_all(repo.dir / ".ossilar");
  set_up_wiki(repo.dir.path());
  repo.dir.write("src/alpha.cpp", WikiRepo::ten_lines("later"));
  const auto wiki = repo.open_with(nullptr, std::make_unique<FailingEmbedder>());
  EXPECT_THAT(adopt_pages(*wiki).failed, ElementsAre(HasSubstr("the service is down")));
  EXPECT_EQ(wiki->stored_pages().find("alpha"), nullptr);
}

TEST(Adoption, OnlyAPageThatIsGoneIsForgotten) {
  const WikiRepo repo("[wiki]\nmin_citations_per_page = 0\n[[page]]\nid = \"deep/one\"\n");
  const auto wiki = repo.open();
  for (const char* page : {"alpha", "deep/one"}) ASSERT_TRUE(save(*wiki, page, "Text.").contains("saved"));
  std::string manifest = repo.dir.read("wiki/manifest.json");
  const std::size_t line = manifest.find(",\"pages/deep/one.md\"");
  repo.dir.write("wiki/manifest.json", manifest.erase(line, manifest.find('\n', line) + 1 - line));
  std::filesystem::rename(repo.dir / "wiki/pages/deep", repo.dir / "elsewhere");
  std::filesystem::create_directory_symlink("deep", repo.dir / "wiki/pages/deep");  // a loop: nobody can say
  EXPECT_EQ(adopt_arrivals(*wiki, WhenBusy::wait).forgotten, 0U);
  std::filesystem::remove(repo.dir / "wiki/pages/deep");
  repo.dir.write("wiki/manifest.json", manifest + "\n");
  EXPECT_EQ(adopt_arrivals(*wiki, WhenBusy::wait).forgotten, 1U);
}

TEST(Adoption, AnAdoptionThatFailsGivesTheLockBack) {
  const WikiRepo repo("[wiki]\nlock_timeout_s = 1\n");
  save(*repo.open(), "alpha", WikiRepo::text_about("alpha"));
  std::filesystem::remove(repo.dir / ".ossilar/index.db");
  const auto real = store::open_sqlite_store(repo.dir / ".ossilar/index.db");
  bool fails = true;
  const auto wiki =
      repo.open_with(std::make_unique<testing::HookedStore>(*real, [&](const std::string& operation) {
        if (operation == "store_chunks" && fails) throw store::StorageError("disk full");
      }));
  EXPECT_THROW(adopt_pages(*wiki), store::StorageError);
  fails = false;
  EXPECT_TRUE(is_saved(save(*wiki, "beta", WikiRepo::text_about("beta"))));
}

}  // namespace
}  // namespace ossilar::workers::wiki
