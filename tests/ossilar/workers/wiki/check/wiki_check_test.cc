#include <SQLiteCpp/Database.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "findings.h"
#include "ossilar/utils/files.h"
#include "ossilar/workers/wiki/check/arrivals.h"

namespace ossilar::workers::wiki {
namespace {

namespace fs = std::filesystem;
using ossilar::testing::findings_in;
using ossilar::testing::forget_local_state;
using ossilar::testing::is_saved;
using ossilar::testing::names_of;
using ossilar::testing::replace_in_file;
using ossilar::testing::replaced_texts;
using ossilar::testing::save;
using ossilar::testing::state_of;
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
    replace_in_file(repo, name, from, to);
  }
  void sql(const char* statement) const {
    SQLite::Database(repo.dir / ".ossilar/index.db", SQLite::OPEN_READWRITE).exec(statement);
  }

  CheckReport check(bool fix = false) const { return ossilar::testing::check(repo, fix); }

  WikiRepo repo;
};

const char* const kAlpha = "wiki/pages/alpha.md";
const char* const kBeta = "wiki/pages/beta.md";

// The alpha page as another save would have left it.
void save_elsewhere(const World& world, const std::string& text) {
  const fs::path other = world.repo.dir.path().string() + "-other";
  fs::copy(world.repo.dir.path(), other, fs::copy_options::recursive);
  save(*open_wiki(other, "test"), "alpha", text);
  for (const char* name : {kAlpha, "wiki/manifest.json"})
    fs::copy_file(other / name, world.repo.dir / name, fs::copy_options::overwrite_existing);
  fs::remove_all(other);
}

// What happens to a wiki before it is checked.
using Arrange = std::function<void(const World& world)>;

Arrange put(const std::string& name, const std::string& text) {
  return [=](const World& world) { world.put(name, text); };
}
Arrange append(const std::string& name, const std::string& text) {
  return [=](const World& world) { world.append(name, text); };
}
Arrange replace(const std::string& name, const std::string& from, const std::string& to) {
  return [=](const World& world) { world.replace(name, from, to); };
}
Arrange remove(const std::string& name) {
  return [=](const World& world) { fs::remove(world.repo.dir / name); };
}
Arrange make_a_folder_of(const std::string& name) {
  return [=](const World& world) {
    fs::remove(world.repo.dir / name), fs::create_directory(world.repo.dir / name);
  };
}
Arrange sql(const char* statement) {
  return [=](const World& world) { world.sql(statement); };
}

const std::string kMergeMarks = "<<<<<<< a\nx\n=======\ny\n>>>>>>> b\n";
const std::string kTemporary = ".ossilar-0123456789abcdef.tmp";
const char* const kBrokenBeta = "page-file wiki/pages/beta.md";
const char* const kDatabase = "database .ossilar/index.db";
const char* const kChunks = "chunks wiki/pages/alpha.md\nchunks wiki/pages/beta.md";

struct Case {
  const char* why;
  Arrange arrange;
  std::string found;
  std::string left = "";  // after a repair
};

const std::vector<Case> kCases{
    {"nothing is wrong", [](const World&) {}, ""},
    {"a save cut short between file and row",
     [](const World& world) {
       const std::string manifest = world.file("wiki/manifest.json");
       save_elsewhere(world, WikiRepo::text_about("alpha", "Later."));
       world.put("wiki/manifest.json", manifest);
     },
     "newer-page wiki/pages/alpha.md"},
    {"a page and its manifest from version control",
     [](const World& world) { save_elsewhere(world, WikiRepo::text_about("alpha", "Theirs.")); }, ""},
    {"a citation added by hand, without its link", replace(kAlpha, "First.", "F [src/alpha.cpp:L7]."),
     "edited-page wiki/pages/alpha.md", "unverified wiki/pages/alpha.md"},
    {"a title changed by hand", replace(kAlpha, "# Alpha", "# First"), "newer-page wiki/pages/alpha.md"},
    {"a citation out of range", replace(kAlpha, "First.", "F [src/alpha.cpp:L99]."),
     "newer-page wiki/pages/alpha.md\ncitations wiki/pages/alpha.md",
     "citations wiki/pages/alpha.md\nunverified wiki/pages/alpha.md"},
    {"conflict marks", append(kBeta, kMergeMarks), kBrokenBeta, kBrokenBeta},
    {"conflict marks in a page that only the manifest knows",
     [](const World& world) { append(kBeta, kMergeMarks)(world), remove(".ossilar/index.db")(world); },
     kBrokenBeta, kBrokenBeta},
    {"conflict marks that are what the page is about",
     [](const World& world) {
       save(*world.repo.open(), "beta",
            WikiRepo::text_about("beta", "```\n<<<<<<< a\n>>>>>>> b\n```\n\nSo."));
       fs::remove(world.repo.dir / ".ossilar/index.db");
     },
     ""},
    {"a folder of pages that is a link",
     [](const World& world) {
       world.append("ossilar.toml", "[[page]]\nid = \"x/y\"\nsources = [\"src/beta.cpp\"]\n");
       save(*world.repo.open(), "x/y", WikiRepo::text_about("beta"));
       fs::rename(world.repo.dir / "wiki/pages/x", world.repo.dir / "x");
       fs::create_symlink("../../x", world.repo.dir / "wiki/pages/x");
     },
     "page-file wiki/pages/x", "page-file wiki/pages/x"},
    {"a page whose name is not UTF-8", put("wiki/pages/\xff.md", "\xff"), "page-file wiki/pages/\ufffd.md",
     "page-file wiki/pages/\ufffd.md"},
    {"a page that lost its text", put(kBeta, ""), kBrokenBeta, kBrokenBeta},
    {"a folder in a page's place", make_a_folder_of(kBeta), kBrokenBeta, kBrokenBeta},
    {"line ends of another system",
     [](const World& world) {
       for (const char* file : {"wiki/index.md", "wiki/manifest.json", kBeta}) {
         std::string text;
         for (const char c : world.file(file)) text += c == '\n' ? "\r\n" : std::string(1, c);
         world.put(file, text);
       }
     },
     ""},
    {"a folder in the index's place", make_a_folder_of("wiki/index.md"), "index wiki/index.md",
     "index wiki/index.md"},
    {"a folder that may not be entered",
     [](const World& world) {
       fs::create_directory(world.repo.dir / ".private");
       chmod((world.repo.dir / ".private").c_str(), 0);
     },
     ""},
    {"a page file that is gone", remove(kBeta), "row-without-file wiki/pages/beta.md"},
    {"a planned page without a row", put("wiki/pages/overview.md", "# All\n\nOf it.\n"),
     "file-without-row wiki/pages/overview.md", "unverified wiki/pages/overview.md"},
    {"a page that nobody planned", put("wiki/pages/stray.md", "x\n"), "file-without-row wiki/pages/stray.md",
     "file-without-row wiki/pages/stray.md"},
    {"a page that is not UTF-8", append(kBeta, "\xff"), kBrokenBeta, kBrokenBeta},
    {"a link in a page's place",
     [](const World& world) {
       fs::remove(world.repo.dir / kBeta);
       fs::create_symlink("alpha.md", world.repo.dir / kBeta);
     },
     kBrokenBeta, kBrokenBeta},
    {"passages of another text",
     sql("DELETE FROM chunks WHERE position = 1; DELETE FROM words WHERE rowid & 7 = 1"), kChunks},
    {"passages with other words", sql("UPDATE passages SET text = text || '.'"), kChunks},
    {"a digest of another text", sql("UPDATE digests SET digest = '{}' WHERE page_id = 'alpha'"),
     "digest wiki/pages/alpha.md"},
    {"a digest of no page", sql("INSERT INTO digests VALUES ('default', 'gone', '{}', 99)"),
     "digest wiki/pages/gone.md"},
    {"index and manifest of another state",
     [](const World& world) {
       append("wiki/index.md", "- more\n")(world), remove("wiki/manifest.json")(world);
     },
     "index wiki/index.md\nmanifest wiki/manifest.json"},
    {"a manifest in conflict", replace("wiki/manifest.json", ",\"pages", "<<<<<<< HEAD\n,\"pages"),
     "manifest wiki/manifest.json"},
    {"temporary files",
     [](const World& world) {
       for (const char* folder : {"", "wiki/", "wiki/pages/", ".ossilar/", ".ossilar/drafts/", ".vscode/"})
         world.put(folder + kTemporary, "half");
     },
     "leftover " + kTemporary + "\nleftover .ossilar/" + kTemporary + "\nleftover .ossilar/drafts/" +
         kTemporary + "\nleftover .vscode/" + kTemporary + "\nleftover wiki/" + kTemporary +
         "\nleftover wiki/pages/" + kTemporary},
    {"what only looks like a temporary file",
     [](const World& world) {
       fs::create_directory(world.repo.dir / kTemporary);
       world.put(".ossilar-my-own-notes-00.tmp", "mine");
     },
     ""},
    {"a stale page", put("src/alpha.cpp", WikiRepo::ten_lines("new")), "stale wiki/pages/alpha.md",
     "stale wiki/pages/alpha.md"},
    {"a set-up cut short", remove(".ossilar/.gitignore"), "setup .ossilar/.gitignore"},
    {"a database cut off",
     [](const World& world) { fs::resize_file(world.repo.dir / ".ossilar/index.db", 20'000); }, kDatabase},
    {"a file that is no database", put(".ossilar/index.db", std::string(9000, 'x')), kDatabase},
    {"a row that cannot be read", sql("UPDATE pages SET citations = '['"), kDatabase},
    {"citations of a passage that cannot be read", sql("UPDATE chunks SET citations = '7'"), kDatabase},
    {"vectors that are cut off", sql("UPDATE vectors SET vector = x'010203'"), kDatabase},
    {"a field that is not UTF-8", sql("UPDATE pages SET summary = CAST(x'ff' AS TEXT)"), kDatabase},
    {"a table that is gone", sql("DROP TABLE stale_marks"), kDatabase},
    {"words that are gone",
     [](const World& world) {
       WikiReader(*world.repo.open()).search({.query = "first"}, {});
       world.sql("DELETE FROM words");
     },
     kDatabase},
    {"a database that is gone", remove(".ossilar/index.db"), ""},
};

TEST(WikiCheck, NamesEachFaultAndRepairsWhatNeedsNoAuthor) {
  for (const Case& each : kCases) {
    SCOPED_TRACE(each.why);
    const World world;
    each.arrange(world);
    const std::string alpha = world.file(kAlpha);
    EXPECT_EQ(findings_in(world.repo), each.found);
    EXPECT_EQ(names_of(world.check(true).findings), each.left);
    EXPECT_EQ(findings_in(world.repo), each.left) << "nothing else was to be found";
    EXPECT_EQ(world.file(kAlpha), alpha) << "a repair changes no page file";
    if (!fs::is_regular_file(fs::symlink_status(world.repo.dir / kBeta)) && !each.left.empty()) continue;
    EXPECT_TRUE(is_saved(save(*world.repo.open(), "beta", WikiRepo::text_about("beta"))));
  }
}

// A writer creates its file and locks it a moment later: here after the check has opened it twice.
TEST(WikiCheck, ATemporaryFileThatIsAboutToBeLockedIsNoLeftover) {
  const World world;
  const std::string name = "wiki/" + kTemporary;
  world.put(name, "");
  const utils::UniqueFd file(open((world.repo.dir / name).c_str(), O_RDONLY | O_CLOEXEC));
  const utils::UniqueFd watch(inotify_init1(IN_CLOEXEC));
  ASSERT_NE(inotify_add_watch(watch.get(), (world.repo.dir / name).c_str(), IN_OPEN | IN_CLOSE_NOWRITE), -1);
  std::thread writer([&] {
    inotify_event event{};
    for (int left = 4; left > 0 && read(watch.get(), &event, sizeof event) > 0;) --left;
    flock(file.get(), LOCK_EX);
  });
  EXPECT_EQ(findings_in(world.repo), "");
  for (int look = 0; look < 2; ++look) world.file(name);  // so that the writer ends in any case
  writer.join();
}

TEST(WikiCheck, RebuildsADamagedDatabaseFromTheFilesOfTheWiki) {
  const World world;
  const std::string manifest = world.file("wiki/manifest.json");
  world.put(".ossilar/index.db", "no database");
  EXPECT_EQ(world.check(true).fixed.front().fault, Fault::database);
  EXPECT_EQ(world.file("wiki/manifest.json"), manifest);
  EXPECT_EQ(world.file(".ossilar/index.db.damaged-1"), "no database");
  EXPECT_EQ(WikiReader(*world.repo.open()).status().pages.size(), 5U);
}

TEST(WikiCheck, ATitleIsRestoredFromAManifestInConflict) {
  const World world;
  save(*world.repo.open(), "alpha", WikiRepo::text_about("alpha"), {}, "Chosen");
  world.replace("wiki/manifest.json", ",\"pages", "<<<<<<< HEAD\n,\"pages");
  forget_local_state(world.repo);
  EXPECT_TRUE(world.check(true).findings.empty());
  save(*world.repo.open(), "alpha", WikiRepo::text_about("alpha", "Again."));
  EXPECT_THAT(world.file(kAlpha), ::testing::StartsWith("# Chosen\n")) << "the agent's title";
}

TEST(WikiCheck, ARemovedPageIsForgottenAndItsTextKept) {
  const World world;
  fs::remove(world.repo.dir / kBeta);
  const auto other = world.repo.open();
  EXPECT_EQ(other->stored_pages().size(), 2U);
  EXPECT_EQ(world.check(true).pages, 1U);
  EXPECT_EQ(other->stored_pages().size(), 1U) << "a process that had read the row hears of it";
  EXPECT_THAT(replaced_texts(world.repo), ElementsAre("# Beta\n\n" + WikiRepo::text_about("beta")));
}

TEST(WikiCheck, AManualEditMakesThePagesAboveStaleLikeASave) {
  World world;
  world.put("wiki/pages/overview.md", "# All\n\nOf it.\n");
  world.check(true);
  world.replace(kAlpha, "First.", "Another opening.");
  EXPECT_THAT(names_of(world.check(true).findings), HasSubstr("stale wiki/pages/overview.md"));
}

// A second clone of the wiki, which takes single files from the first.
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

TEST(Pull, EachPageIsAdoptedAsItsFileArrives) {
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
  ours.take(theirs, kAlpha);
  EXPECT_EQ(adopt_arrivals(*wiki, WhenBusy::wait).adopted, 1U);
  EXPECT_EQ(state_of(*wiki, "overview").condition, PageCondition::stale)
      << "it was not written for this alpha";
  std::ofstream(ours.root / kBeta) << "\xff";
  EXPECT_EQ(adopt_arrivals(*wiki, WhenBusy::wait).adopted, 0U);
  ours.take(theirs, kBeta);
  EXPECT_EQ(adopt_arrivals(*wiki, WhenBusy::wait).adopted, 1U);
}

TEST(Pull, TheNextSaveRewritesAManifestInConflict) {
  const World world;
  world.replace("wiki/manifest.json", ",\"pages", "<<<<<<< HEAD\n,\"pages");
  EXPECT_TRUE(is_saved(save(*world.repo.open(), "alpha", WikiRepo::text_about("alpha", "Again."))));
  EXPECT_EQ(findings_in(world.repo), "");
}

TEST(Pull, AClonesPageTakesANewPlannedTitle) {
  const World world;
  world.replace("ossilar.toml", "title = \"Alpha\"", "title = \"First\"");
  forget_local_state(world.repo);
  const auto wiki = world.repo.open();
  adopt_pages(*wiki);
  save(*wiki, "alpha", WikiRepo::text_about("alpha"));
  EXPECT_THAT(world.file(kAlpha), ::testing::StartsWith("# First\n"));
}

TEST(ManualEdits, AreKeptWhenASaveReplacesThem) {
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
  world.replace(kAlpha, "First.", "By hand.");
  const std::string edited = world.file(kAlpha);
  const std::string section = warning_of(save(*wiki, "alpha", "Now. [src/alpha.cpp:L9]", "Two"));
  EXPECT_EQ(kept_in(section), edited);
  EXPECT_THAT(world.file(kAlpha), HasSubstr("By hand.")) << "a section save keeps it in the page";
  EXPECT_EQ(warning_of(save(*wiki, "alpha", WikiRepo::text_about("alpha"))), "") << "a row knew it";

  world.put(kAlpha, "not UTF-8: \xff");
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
