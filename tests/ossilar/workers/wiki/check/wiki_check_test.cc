#include "ossilar/workers/wiki/check/wiki_check.h"

#include <SQLiteCpp/Database.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "ossilar/store/sqlite/sqlite_store.h"
#include "ossilar/utils/files.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/check/arrivals.h"
#include "ossilar/workers/wiki/host/wiki_reader.h"
#include "support/wiki_repo.h"

namespace ossilar::workers::wiki {
namespace {

namespace fs = std::filesystem;
using ossilar::testing::save;
using ossilar::testing::WikiRepo;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

// The pages alpha and beta, saved, and nothing open.
struct World {
  explicit World(const std::string& more_config = "") : repo(more_config) {
    const auto wiki = repo.open();
    save(*wiki, "alpha", WikiRepo::text_about("alpha"));
    save(*wiki, "beta", WikiRepo::text_about("beta"));
  }

  std::string file(const std::string& name) const { return repo.dir.read(name); }
  void put(const std::string& name, const std::string& text) const { repo.dir.write(name, text); }
  void append(const std::string& name, const std::string& text) const { put(name, file(name) + text); }
  void replace(const std::string& name, const std::string& from, const std::string& to) const {
    std::string text = file(name);
    text.replace(text.find(from), from.size(), to);
    put(name, text);
  }
  void sql(const char* statement) const {
    SQLite::Database(repo.dir / ".ossilar/index.db", SQLite::OPEN_READWRITE).exec(statement);
  }

  CheckReport check(bool fix = false) const {
    return check_wiki(repo.dir.path(), {.fix = fix, .writer = "test"});
  }
  static std::string names(const std::vector<Finding>& findings) {
    std::vector<std::string> names;
    names.reserve(findings.size());
    for (const Finding& finding : findings)
      names.push_back(std::string(fault_name(finding.fault)) + " " + finding.subject);
    return utils::join(names, "\n");
  }

  WikiRepo repo;
};

struct Case {
  const char* why;
  void (*arrange)(const World& world);
  const char* found;
  const char* left;  // after a repair
};

// The alpha page as another save would have left it.
void save_elsewhere(const World& world, const std::string& text) {
  const fs::path other = world.repo.dir.path().string() + "-other";
  fs::copy(world.repo.dir.path(), other, fs::copy_options::recursive);
  save(*open_wiki(other, "test"), "alpha", text);
  for (const char* name : {"wiki/pages/alpha.md", "wiki/manifest.json"})
    fs::copy_file(other / name, world.repo.dir / name, fs::copy_options::overwrite_existing);
  fs::remove_all(other);
}

const Case kCases[] = {
    {"nothing", [](const World&) {}, "", ""},
    {"a save cut short between file and row",
     [](const World& world) {
       const std::string manifest = world.file("wiki/manifest.json");
       save_elsewhere(world, WikiRepo::text_about("alpha", "Later."));
       world.put("wiki/manifest.json", manifest);
     },
     "newer-page wiki/pages/alpha.md", ""},
    {"a page with its manifest by version control",
     [](const World& world) { save_elsewhere(world, WikiRepo::text_about("alpha", "Theirs.")); }, "", ""},
    {"a hand's new citation without its link",
     [](const World& world) { world.replace("wiki/pages/alpha.md", "First.", "F [src/alpha.cpp:L7]."); },
     "edited-page wiki/pages/alpha.md", ""},
    {"a hand's title", [](const World& world) { world.replace("wiki/pages/alpha.md", "# Alpha", "# First"); },
     "newer-page wiki/pages/alpha.md", ""},
    {"a citation out of range",
     [](const World& world) { world.replace("wiki/pages/alpha.md", "First.", "F [src/alpha.cpp:L99]."); },
     "newer-page wiki/pages/alpha.md\ncitations wiki/pages/alpha.md", "citations wiki/pages/alpha.md"},
    {"marks of a merge",
     [](const World& world) { world.append("wiki/pages/beta.md", "<<<<<<< a\nx\n=======\ny\n>>>>>>> b\n"); },
     "page-file wiki/pages/beta.md", "page-file wiki/pages/beta.md"},
    {"a page that only the manifest knows, and that is to be mended first",
     [](const World& world) {
       world.append("wiki/pages/beta.md", "<<<<<<< a\nx\n=======\ny\n>>>>>>> b\n");
       fs::remove(world.repo.dir / ".ossilar/index.db");
     },
     "page-file wiki/pages/beta.md", "page-file wiki/pages/beta.md"},
    {"marks of a merge that are what the page is about",
     [](const World& world) {
       save(*world.repo.open(), "beta",
            WikiRepo::text_about("beta", "```\n<<<<<<< a\n>>>>>>> b\n```\n\nSo."));
       fs::remove(world.repo.dir / ".ossilar/index.db");
     },
     "", ""},
    {"a folder of pages that is a link",
     [](const World& world) {
       world.put("ossilar.toml",
                 world.file("ossilar.toml") + "[[page]]\nid = \"x/y\"\nsources = [\"src/beta.cpp\"]\n");
       save(*world.repo.open(), "x/y", WikiRepo::text_about("beta"));
       fs::rename(world.repo.dir / "wiki/pages/x", world.repo.dir / "x");
       fs::create_symlink("../../x", world.repo.dir / "wiki/pages/x");
     },
     "page-file wiki/pages/x", "page-file wiki/pages/x"},
    {"a page whose name is no text", [](const World& world) { world.put("wiki/pages/\xff.md", "\xff"); },
     "page-file wiki/pages/\ufffd.md", "page-file wiki/pages/\ufffd.md"},
    {"a page that lost its text", [](const World& world) { world.put("wiki/pages/beta.md", ""); },
     "page-file wiki/pages/beta.md", "page-file wiki/pages/beta.md"},
    {"a folder in a page's place",
     [](const World& world) {
       fs::remove(world.repo.dir / "wiki/pages/beta.md");
       fs::create_directory(world.repo.dir / "wiki/pages/beta.md");
     },
     "page-file wiki/pages/beta.md", "page-file wiki/pages/beta.md"},
    {"line ends of another system",
     [](const World& world) {
       for (const char* file : {"wiki/index.md", "wiki/manifest.json", "wiki/pages/beta.md"}) {
         std::string text;
         for (const char c : world.file(file)) text += c == '\n' ? "\r\n" : std::string(1, c);
         world.put(file, text);
       }
     },
     "", ""},
    {"an index that is no file",
     [](const World& world) {
       fs::remove(world.repo.dir / "wiki/index.md");
       fs::create_directory(world.repo.dir / "wiki/index.md");
     },
     "index wiki/index.md", "index wiki/index.md"},
    {"a folder that is nobody's business",
     [](const World& world) {
       fs::create_directory(world.repo.dir / ".private");
       chmod((world.repo.dir / ".private").c_str(), 0);
     },
     "", ""},
    {"a file that is gone", [](const World& world) { fs::remove(world.repo.dir / "wiki/pages/beta.md"); },
     "row-without-file wiki/pages/beta.md", ""},
    {"a planned page that no row knows",
     [](const World& world) { world.put("wiki/pages/overview.md", "# All\n\nOf it.\n"); },
     "file-without-row wiki/pages/overview.md", "unverified wiki/pages/overview.md"},
    {"a page of nobody's", [](const World& world) { world.put("wiki/pages/stray.md", "x\n"); },
     "file-without-row wiki/pages/stray.md", "file-without-row wiki/pages/stray.md"},
    {"no text", [](const World& world) { world.append("wiki/pages/beta.md", "\xff"); },
     "page-file wiki/pages/beta.md", "page-file wiki/pages/beta.md"},
    {"a link in a page's place",
     [](const World& world) {
       fs::remove(world.repo.dir / "wiki/pages/beta.md");
       fs::create_symlink("alpha.md", world.repo.dir / "wiki/pages/beta.md");
     },
     "page-file wiki/pages/beta.md", "page-file wiki/pages/beta.md"},
    {"passages of another text",
     [](const World& world) {
       world.sql("DELETE FROM chunks WHERE position = 1; DELETE FROM words WHERE rowid & 7 = 1");
     },
     "chunks wiki/pages/alpha.md\nchunks wiki/pages/beta.md", ""},
    {"a digest of another text",
     [](const World& world) { world.sql("UPDATE digests SET digest = '{}' WHERE page_id = 'alpha'"); },
     "digest wiki/pages/alpha.md", ""},
    {"a digest of no page",
     [](const World& world) { world.sql("INSERT INTO digests VALUES ('default', 'gone', '{}', 99)"); },
     "digest wiki/pages/gone.md", ""},
    {"index and manifest of another state",
     [](const World& world) {
       world.append("wiki/index.md", "- more\n");
       fs::remove(world.repo.dir / "wiki/manifest.json");
     },
     "index wiki/index.md\nmanifest wiki/manifest.json", ""},
    {"a manifest in conflict",
     [](const World& world) { world.replace("wiki/manifest.json", ",\"pages", "<<<<<<< HEAD\n,\"pages"); },
     "manifest wiki/manifest.json", ""},
    {"temporary files",
     [](const World& world) {
       for (const char* folder : {"", "wiki/", "wiki/pages/", ".ossilar/", ".ossilar/drafts/", ".vscode/"})
         world.put(folder + std::string(".ossilar-0123456789abcdef.tmp"), "half");
     },
     "leftover .ossilar-0123456789abcdef.tmp\nleftover .ossilar/.ossilar-0123456789abcdef.tmp\n"
     "leftover .ossilar/drafts/.ossilar-0123456789abcdef.tmp\nleftover "
     ".vscode/.ossilar-0123456789abcdef.tmp\n"
     "leftover wiki/.ossilar-0123456789abcdef.tmp\nleftover wiki/pages/.ossilar-0123456789abcdef.tmp",
     ""},
    {"what has the look of a temporary file",
     [](const World& world) {
       fs::create_directory(world.repo.dir / ".ossilar-0123456789abcdef.tmp");
       world.put(".ossilar-my-own-notes-00.tmp", "mine");
     },
     "", ""},
    {"a stale page", [](const World& world) { world.put("src/alpha.cpp", WikiRepo::ten_lines("new")); },
     "stale wiki/pages/alpha.md", "stale wiki/pages/alpha.md"},
    {"a set-up cut short", [](const World& world) { fs::remove(world.repo.dir / ".ossilar/.gitignore"); },
     "setup .ossilar/.gitignore", ""},
    {"a database cut off",
     [](const World& world) { fs::resize_file(world.repo.dir / ".ossilar/index.db", 20'000); },
     "database .ossilar/index.db", ""},
    {"no database at all", [](const World& world) { world.put(".ossilar/index.db", std::string(9000, 'x')); },
     "database .ossilar/index.db", ""},
    {"a row that is no row", [](const World& world) { world.sql("UPDATE pages SET citations = '['"); },
     "database .ossilar/index.db", ""},
    {"citations of a passage that are none",
     [](const World& world) { world.sql("UPDATE chunks SET citations = '7'"); }, "database .ossilar/index.db",
     ""},
    {"vectors that are cut off",
     [](const World& world) { world.sql("UPDATE vectors SET vector = x'010203'"); },
     "database .ossilar/index.db", ""},
    {"bytes that are no text",
     [](const World& world) { world.sql("UPDATE pages SET summary = CAST(x'ff' AS TEXT)"); },
     "database .ossilar/index.db", ""},
    {"passages with other words",
     [](const World& world) { world.sql("UPDATE passages SET text = text || '.'"); },
     "chunks wiki/pages/alpha.md\nchunks wiki/pages/beta.md", ""},
    {"tables that are gone", [](const World& world) { world.sql("DROP TABLE stale_marks"); },
     "database .ossilar/index.db", ""},
    {"words that are gone",
     [](const World& world) {
       WikiReader(*world.repo.open()).search({.query = "first"}, {});
       world.sql("DELETE FROM words");
     },
     "database .ossilar/index.db", ""},
    {"a database that is gone", [](const World& world) { fs::remove(world.repo.dir / ".ossilar/index.db"); },
     "", ""},
};

TEST(WikiCheck, NamesWhatIsWrongAndSetsRightWhatNeedsNoAuthor) {
  for (const Case& each : kCases) {
    SCOPED_TRACE(each.why);
    const World world;
    each.arrange(world);
    const std::string alpha = world.file("wiki/pages/alpha.md");
    EXPECT_EQ(World::names(world.check().findings), each.found);
    const CheckReport repaired = world.check(true);
    EXPECT_EQ(World::names(repaired.findings), each.left);
    EXPECT_EQ(World::names(world.check().findings), each.left) << "nothing else was to be found";
    EXPECT_EQ(world.file("wiki/pages/alpha.md"), alpha) << "a repair changes no page file";
    if (!fs::is_regular_file(fs::symlink_status(world.repo.dir / "wiki/pages/beta.md")) && *each.left != '\0')
      continue;
    EXPECT_TRUE(save(*world.repo.open(), "beta", WikiRepo::text_about("beta")).contains("saved"));
  }
}

// Its writer has made it and not come to lock it.
TEST(WikiCheck, ATemporaryFileOfThisMomentIsNotLeft) {
  const World world;
  const char* const name = "wiki/.ossilar-0123456789abcdef.tmp";
  world.put(name, "");
  const utils::UniqueFd file(open((world.repo.dir / name).c_str(), O_RDONLY | O_CLOEXEC));
  std::thread writer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    flock(file.get(), LOCK_EX);
  });
  EXPECT_EQ(World::names(world.check().findings), "");
  writer.join();
}

std::set<std::string> kinds(const std::vector<Finding>& findings) {
  std::set<std::string> kinds;
  for (const Finding& finding : findings) kinds.insert(fault_name(finding.fault));
  return kinds;
}

TEST(WikiCheck, NamesEveryKindOfFaultSideBySide) {
  const World world(
      "[[page]]\nid = \"gamma\"\nsources = [\"src/beta.cpp\"]\n"
      "[[page]]\nid = \"delta\"\nsources = [\"src/beta.cpp\"]\n");
  for (const char* page : {"gamma", "delta"}) save(*world.repo.open(), page, WikiRepo::text_about("beta"));
  world.replace("wiki/pages/alpha.md", "First.", "F [src/alpha.cpp:L99].");
  world.replace("wiki/pages/delta.md", "First.", "F [src/beta.cpp:L7].");
  fs::remove(world.repo.dir / "wiki/pages/beta.md");
  world.put("wiki/pages/overview.md", "# All\n\nOf it.\n");
  world.put("wiki/pages/merged.md", "<<<<<<< a\nx\n=======\ny\n>>>>>>> b\n");
  world.sql(
      "DELETE FROM chunks WHERE position = 1 AND page_key = (SELECT page_key FROM pages WHERE page_id = "
      "'gamma');"
      "DELETE FROM words WHERE rowid = (SELECT page_key << 20 | 1 FROM pages WHERE page_id = 'gamma');"
      "INSERT INTO digests VALUES ('default', 'gone', '{}', 99)");
  world.append("wiki/index.md", "- more\n");
  fs::remove(world.repo.dir / "wiki/manifest.json");
  world.put("wiki/pages/.ossilar-0123456789abcdef.tmp", "half");
  fs::remove(world.repo.dir / ".ossilar/.gitignore");
  world.put("src/beta.cpp", WikiRepo::ten_lines("new"));
  const std::set<std::string> author{"citations", "page-file", "stale"};
  const std::set<std::string> repaired{"chunks",   "digest",   "edited-page", "file-without-row", "index",
                                       "leftover", "manifest", "newer-page",  "row-without-file", "setup"};
  std::set<std::string> all = author;
  all.insert(repaired.begin(), repaired.end());
  EXPECT_EQ(kinds(world.check().findings), all);
  EXPECT_EQ(kinds(world.check(true).fixed), repaired);
  EXPECT_EQ(kinds(world.check().findings), author);
}

TEST(WikiCheck, MakesTheDatabaseAnewFromTheWikisFilesAlone) {
  const World world;
  const std::string manifest = world.file("wiki/manifest.json");
  world.put(".ossilar/index.db", "no database");
  EXPECT_EQ(world.check(true).fixed.front().fault, Fault::database);
  EXPECT_EQ(world.file("wiki/manifest.json"), manifest);
  EXPECT_EQ(world.file(".ossilar/index.db.damaged-1"), "no database");
  EXPECT_EQ(WikiReader(*world.repo.open()).status().pages.size(), 5U);
}

TEST(WikiCheck, ABrokenManifestStillSaysWhatOnlyItKnows) {
  const World world;
  save(*world.repo.open(), "alpha", WikiRepo::text_about("alpha"), {}, "Chosen");
  world.replace("wiki/manifest.json", ",\"pages", "<<<<<<< HEAD\n,\"pages");
  fs::remove_all(world.repo.dir / ".ossilar");
  set_up_wiki(world.repo.dir.path());
  EXPECT_TRUE(world.check(true).findings.empty());
  save(*world.repo.open(), "alpha", WikiRepo::text_about("alpha", "Again."));
  EXPECT_THAT(world.file("wiki/pages/alpha.md"), ::testing::StartsWith("# Chosen\n")) << "the agent's title";
}

TEST(WikiCheck, ForgetsAPageThatIsGoneAndKeepsItsText) {
  const World world;
  fs::remove(world.repo.dir / "wiki/pages/beta.md");
  const auto other = world.repo.open();
  EXPECT_EQ(other->stored_pages().size(), 2U);
  EXPECT_EQ(world.check(true).pages, 1U);
  EXPECT_EQ(other->stored_pages().size(), 1U) << "a process that had read the row hears of it";
  const auto kept = fs::directory_iterator(world.repo.dir / ".ossilar/replaced")->path();
  EXPECT_EQ(world.file(kept.lexically_relative(world.repo.dir.path())),
            "# Beta\n\n" + WikiRepo::text_about("beta"));
}

TEST(WikiCheck, AHandsChangeMarksThePagesAboveItLikeASave) {
  World world;
  world.put("wiki/pages/overview.md", "# All\n\nOf it.\n");
  world.check(true);
  world.replace("wiki/pages/alpha.md", "First.", "Another opening.");
  EXPECT_THAT(World::names(world.check(true).findings), HasSubstr("stale wiki/pages/overview.md"));
}

// Another clone, which what is committed of the wiki goes to and comes from.
struct Clone {
  explicit Clone(const World& world) : root(world.repo.dir.path().string() + "-clone") {
    fs::copy(world.repo.dir.path(), root, fs::copy_options::recursive);
  }
  ~Clone() { fs::remove_all(root); }
  Clone(const Clone&) = delete;
  Clone& operator=(const Clone&) = delete;

  void take(const World& world, const std::string& name) const {
    fs::copy_file(world.repo.dir / name, root / name, fs::copy_options::overwrite_existing);
  }
  std::string manifest() const { return utils::read_text_file_within(root, root / "wiki/manifest.json"); }
  const fs::path root;
};

std::string state_of(Wiki& wiki, const std::string& page_id) {
  for (const PageState& state : WikiReader(wiki).status().pages)
    if (state.page_id == page_id) return state.condition == PageCondition::stale ? "stale" : "not stale";
  return "not planned";
}

TEST(Pull, IsTakenOverPageByPageAsItArrives) {
  World theirs;
  theirs.put("wiki/pages/overview.md", "# All\n\nOf it.\n");
  theirs.check(true);
  const Clone ours(theirs);
  const auto wiki = open_wiki(ours.root, "session");
  wiki->prepare();
  EXPECT_EQ(adopt_arrivals(*wiki, WhenBusy::wait).adopted, 0U);

  save(*theirs.repo.open(), "alpha", WikiRepo::text_about("alpha", "Another opening."));
  save(*theirs.repo.open(), "beta", WikiRepo::text_about("beta", "Another, too."));
  ours.take(theirs, "wiki/manifest.json");
  EXPECT_EQ(adopt_arrivals(*wiki, WhenBusy::wait).adopted, 0U) << "the pages are still to come";
  ours.take(theirs, "wiki/pages/alpha.md");
  EXPECT_EQ(adopt_arrivals(*wiki, WhenBusy::wait).adopted, 1U);
  EXPECT_EQ(state_of(*wiki, "overview"), "stale") << "it was not written for this alpha";
  std::ofstream(ours.root / "wiki/pages/beta.md") << "\xff";
  EXPECT_EQ(adopt_arrivals(*wiki, WhenBusy::wait).adopted, 0U);
  ours.take(theirs, "wiki/pages/beta.md");
  EXPECT_EQ(adopt_arrivals(*wiki, WhenBusy::wait).adopted, 1U);
}

TEST(Pull, AManifestInConflictIsMadeAgainByTheNextSave) {
  const World world;
  world.replace("wiki/manifest.json", ",\"pages", "<<<<<<< HEAD\n,\"pages");
  EXPECT_TRUE(save(*world.repo.open(), "alpha", WikiRepo::text_about("alpha", "Again.")).contains("saved"));
  EXPECT_EQ(World::names(world.check().findings), "");
}

TEST(Pull, AClonesPageTakesANewPlannedTitle) {
  const World world;
  world.replace("ossilar.toml", "title = \"Alpha\"", "title = \"First\"");
  fs::remove_all(world.repo.dir / ".ossilar");
  set_up_wiki(world.repo.dir.path());
  const auto wiki = world.repo.open();
  adopt_pages(*wiki);
  save(*wiki, "alpha", WikiRepo::text_about("alpha"));
  EXPECT_THAT(world.file("wiki/pages/alpha.md"), ::testing::StartsWith("# First\n"));
}

TEST(HandEdits, AreKeptWhenASaveReplacesThem) {
  const World world;
  const auto wiki = world.repo.open();
  const auto warning_of = [](const Answer& answer) {
    for (const Map& warning : answer.at("warnings"))
      if (const auto text = warning.get<std::string>(); text.starts_with("hand-edit: ")) return text;
    return std::string();
  };
  const auto kept_in = [&](const std::string& warning) {
    return world.file(warning.substr(warning.find(".ossilar/replaced/")));
  };
  world.replace("wiki/pages/alpha.md", "First.", "By hand.");
  const std::string edited = world.file("wiki/pages/alpha.md");
  const std::string section = warning_of(save(*wiki, "alpha", "Now. [src/alpha.cpp:L9]", "Two"));
  EXPECT_EQ(kept_in(section), edited);
  EXPECT_THAT(world.file("wiki/pages/alpha.md"), HasSubstr("By hand."))
      << "a section save keeps it in the page";
  EXPECT_EQ(warning_of(save(*wiki, "alpha", WikiRepo::text_about("alpha"))), "") << "a row knew it";

  world.put("wiki/pages/alpha.md", "not UTF-8: \xff");
  const std::string whole = warning_of(save(*wiki, "alpha", WikiRepo::text_about("alpha", "New.")));
  EXPECT_EQ(kept_in(whole), "not UTF-8: \xff");
}

TEST(WikiCheckFix, TidiesUpInFoldersOfAnyName) {
  const WikiRepo repo("[wiki]\nmin_citations_per_page = 0\n");
  const fs::path folder = repo.dir / "wiki/pages/caf\xe9";
  fs::create_directories(folder);
  std::ofstream(folder / ".ossilar-0123456789abcdef.tmp") << "half";
  std::ofstream(folder / ".ossilar-0123456789abcdef.former") << "a hand's";
  const CheckReport report = check_wiki(repo.dir.path(), {.fix = true, .writer = "test"});
  EXPECT_TRUE(report.is_clean());
  const auto is_leftover = [](const Finding& finding) { return finding.fault == Fault::leftover; };
  EXPECT_EQ(std::count_if(report.fixed.begin(), report.fixed.end(), is_leftover), 2);
  EXPECT_TRUE(fs::is_empty(folder));
  EXPECT_FALSE(fs::is_empty(repo.dir / ".ossilar/replaced")) << "the hand's text is kept";
}

}  // namespace
}  // namespace ossilar::workers::wiki
