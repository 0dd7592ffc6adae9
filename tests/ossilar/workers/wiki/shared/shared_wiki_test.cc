// Several checkouts, each as on a machine of its own, write one wiki over one database.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <limits>
#include <map>
#include <utility>
#include <vector>

#include "ossilar/store/forwarding_store.h"
#include "ossilar/store/postgresql/connection.h"
#include "ossilar/workers/wiki/check/arrivals.h"
#include "ossilar/workers/wiki/check/removal.h"
#include "ossilar/workers/wiki/check/renaming.h"
#include "support/cutting_proxy.h"
#include "support/postgres_server.h"
#include "support/retrieval.h"
#include "support/wiki_repo.h"

namespace ossilar::workers::wiki {
namespace {

namespace fs = std::filesystem;

using ossilar::testing::CuttingProxy;
using ossilar::testing::error_of;
using ossilar::testing::is_saved;
using ossilar::testing::PostgresServer;
using ossilar::testing::WikiRepo;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr std::size_t kMachines = 4;
constexpr int kRounds = 4;

// Why a save did not store its text, "" if it did.
std::string failure_of(const SaveOutcome& outcome) {
  if (!outcome.failure) return error_of(outcome.answer);
  try {
    std::rethrow_exception(outcome.failure);
  } catch (const std::exception& error) {
    return error.what();
  }
}

// A machine's checkout of the repository. All have the same plan.
class Machine {
 public:
  explicit Machine(const std::string& url)
      : repo_("[store]\nurl = \"" + url + "\"\n[history]\nversions = 500\n" + own_pages()) {}

  std::unique_ptr<Wiki> open() const {
    auto wiki = open_wiki(repo_.dir.path(), "test");
    adopt_arrivals(*wiki, WhenBusy::wait);
    return wiki;
  }
  // All files of the wiki, by name.
  std::map<std::string, std::string> files() const {
    std::map<std::string, std::string> texts;
    for (const auto& entry : fs::recursive_directory_iterator(repo_.dir / "wiki"))
      if (entry.is_regular_file())
        texts[entry.path().lexically_relative(repo_.dir.path()).string()] = read(entry.path());
    return texts;
  }
  std::vector<std::string> replaced() const {
    std::vector<std::string> texts;
    if (!fs::exists(repo_.dir / ".ossilar/replaced")) return texts;
    for (const auto& entry : fs::directory_iterator(repo_.dir / ".ossilar/replaced"))
      texts.push_back(read(entry.path()));
    return texts;
  }
  std::string page(const std::string& page_id) const { return repo_.page(page_id); }
  bool has(const std::string& page_id) const {
    return fs::exists(repo_.dir / ("wiki/pages/" + page_id + ".md"));
  }
  const ossilar::testing::TempDir& dir() const { return repo_.dir; }

 private:
  static std::string own_pages() {
    std::string entries;
    for (std::size_t i = 0; i < kMachines; ++i) {
      const std::string id = "own" + std::to_string(i);
      entries += "[[page]]\nid = \"" + id + "\"\ntitle = \"Own " + std::to_string(i) +
                 "\"\ntype = \"module\"\nsources = [\"src/beta.cpp\"]\n";
    }
    return entries;
  }
  static std::string read(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  const WikiRepo repo_;
};

class SharedWikiTest : public ::testing::Test {
 protected:
  SharedWikiTest() {
    static int count = 0;
    database_ = "shared" + std::to_string(++count);
    execute("postgres", "CREATE DATABASE " + database_);
  }
  static void execute(const std::string& database, const std::string& sql) {
    store::postgresql::Connection({.url = PostgresServer::shared().url(database), .program = "test"})
        .execute(sql);
  }
  std::string url(const fs::path& socket = {}) const {
    return PostgresServer::shared().url(database_, socket);
  }

  static SaveOutcome save(Wiki& wiki, const std::string& page_id, const std::string& content,
                          const std::optional<std::string>& section = {},
                          const std::optional<std::string>& if_version = {}) {
    return ossilar::testing::save_page(
        wiki, {.page_id = page_id, .content = content, .section = section, .if_version = if_version});
  }
  static void put(Wiki& wiki, const std::string& page_id, const std::string& content) {
    EXPECT_EQ(failure_of(save(wiki, page_id, content)), "");
  }

  std::string database_;
};

std::string section_name(std::size_t machine) { return "Part " + std::to_string(machine); }
std::string mark(std::size_t machine, int round) {
  return "machine " + std::to_string(machine) + " round " + std::to_string(round) + " ";
}
std::string section_text(std::size_t machine, int round) {
  return "Of " + mark(machine, round) + "[src/alpha.cpp:L" + std::to_string(machine + 1) + "].\n";
}
std::string whole_text() {
  std::string text = "About alpha.\n";
  for (std::size_t i = 0; i < kMachines; ++i) text += "\n## " + section_name(i) + "\n\n" + section_text(i, 0);
  return text;
}

// Saves as an agent does, who makes a save again that lost to others; false if it never succeeds.
bool save_at_last(Wiki& wiki, const SaveRequest& request) {
  for (int tries = 0; tries < 20; ++tries) {
    const std::string failure = failure_of(ossilar::testing::save_page(wiki, request));
    if (failure.empty()) return true;
    if (failure.find("try again") == failure.npos) std::fprintf(stderr, "%s\n", failure.c_str());
  }
  return false;
}

// What one machine does: the exit code says how many saves failed.
[[noreturn]] void work_as(const Machine& machine, std::size_t number) {
  int failures = 0;
  try {
    const auto wiki = machine.open();
    for (int round = 1; round <= kRounds; ++round) {
      failures += save_at_last(*wiki, {.page_id = "alpha",
                                       .content = section_text(number, round),
                                       .section = section_name(number)})
                      ? 0
                      : 1;
      failures += save_at_last(*wiki, {.page_id = "own" + std::to_string(number),
                                       .content = WikiRepo::text_about("beta", "By " + mark(number, round))})
                      ? 0
                      : 1;
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "machine %zu: %s\n", number, error.what());
    failures = 99;
  }
  _exit(failures);
}

// The round of each machine's section in the text, -1 for none.
std::vector<int> rounds_in(const std::string& text) {
  std::vector<int> rounds(kMachines, -1);
  for (std::size_t machine = 0; machine < kMachines; ++machine)
    for (int round = 0; round <= kRounds; ++round)
      if (text.find(mark(machine, round)) != text.npos) rounds[machine] = round;
  return rounds;
}

// Each version differs from the one before it by one section, which went on by one round: no save was lost
// and none was stored twice.
TEST_F(SharedWikiTest, FourMachinesLoseNoSaveAndEndWithTheSameFiles) {
  std::vector<std::unique_ptr<Machine>> machines;
  for (std::size_t i = 0; i < kMachines; ++i) machines.push_back(std::make_unique<Machine>(url()));
  put(*machines[0]->open(), "alpha", whole_text());
  std::vector<pid_t> children;
  for (std::size_t i = 0; i < kMachines; ++i) {
    const pid_t child = fork();
    if (child == 0) work_as(*machines[i], i);
    children.push_back(child);
  }
  for (const pid_t child : children) {
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
  const auto wiki = machines[0]->open();
  auto versions = wiki->store().page_versions(wiki->branch(), "alpha");
  std::reverse(versions.begin(), versions.end());
  ASSERT_EQ(versions.size(), 1 + kMachines * kRounds);
  std::vector<int> before = rounds_in(wiki->store().version_text(wiki->branch(), "alpha", 1).value());
  for (std::size_t at = 1; at < versions.size(); ++at) {
    const auto now =
        rounds_in(wiki->store().version_text(wiki->branch(), "alpha", versions[at].number).value());
    int steps = 0;
    for (std::size_t i = 0; i < kMachines; ++i)
      steps += now[i] == before[i] ? 0 : now[i] == before[i] + 1 ? 1 : 100;
    EXPECT_EQ(steps, 1) << "version " << versions[at].number;
    before = now;
  }
  EXPECT_THAT(before, ElementsAre(kRounds, kRounds, kRounds, kRounds));
  const auto files = machines[0]->files();
  EXPECT_EQ(files.size(), 1 + kMachines + 3) << "pages, lists and .gitattributes";
  for (const auto& machine : machines) {
    machine->open();
    EXPECT_EQ(machine->files(), files);
    EXPECT_THAT(machine->replaced(), IsEmpty());
  }
}

TEST_F(SharedWikiTest, WhatOtherMachinesDidIsBroughtInAndAHandsTextIsKept) {
  const Machine here(url());
  const Machine there(url());
  const auto ours = here.open();
  const auto theirs = there.open();
  put(*ours, "alpha", WikiRepo::text_about("alpha", "One."));
  put(*ours, "beta", WikiRepo::text_about("beta"));
  put(*ours, "own0", WikiRepo::text_about("beta", "To be removed."));
  put(*theirs, "own1", WikiRepo::text_about("beta", "Onto what was brought in."));
  EXPECT_EQ(there.page("alpha"), here.page("alpha"));
  const auto first = there.files();
  const auto look = [](Wiki& wiki) { adopt_arrivals(wiki, WhenBusy::wait); };

  // A hand's text stays while nobody saves the page, and is kept when somebody does.
  const std::string edited = here.page("alpha") + "\nBy hand.\n";
  there.dir().write("wiki/pages/alpha.md", edited);
  put(*ours, "beta", WikiRepo::text_about("beta", "Changed."));
  look(*theirs);
  EXPECT_EQ(there.page("alpha"), edited);
  EXPECT_EQ(there.page("beta"), here.page("beta"));
  put(*ours, "alpha", WikiRepo::text_about("alpha", "Two."));
  look(*theirs);
  EXPECT_EQ(there.page("alpha"), here.page("alpha"));
  EXPECT_THAT(there.replaced(), ElementsAre(edited));

  // A removal, and files of an older commit with their lists: neither comes back.
  utils::Task task;
  EXPECT_EQ(error_of(remove_page(*ours, "own0", {}, "test", task)), "");
  look(*theirs);
  EXPECT_FALSE(there.has("own0"));
  for (const auto& [name, text] : first) there.dir().write(name, text);
  const auto again = there.open();
  look(*ours);
  EXPECT_EQ(here.files(), there.files());
  EXPECT_FALSE(ours->stored_pages().find("own0") != nullptr);
  EXPECT_THAT(here.page("alpha"), HasSubstr("Two."));

  // A machine that comes later, and one whose folder was emptied.
  const Machine late(url());
  const auto latest = open_wiki(late.dir().path(), "test");
  EXPECT_TRUE(std::holds_alternative<StoredPage>(WikiReader(*latest).read_page("alpha")))
      << "by reading alone";
  EXPECT_EQ(late.files(), here.files());
  fs::remove_all(there.dir() / "wiki/pages");
  there.open();
  EXPECT_EQ(there.files(), here.files());
}

// Pages that were committed before the database was set become its pages.
TEST_F(SharedWikiTest, PagesOfACheckoutAreTakenOverByAnEmptyDatabase) {
  const Machine here(url());
  {
    const WikiRepo alone;
    put(*alone.open(), "alpha", WikiRepo::text_about("alpha"));
    for (const char* name : {"wiki/pages/alpha.md", "wiki/manifest.json", "wiki/index.md"})
      here.dir().write(name, alone.dir.read(name));
  }
  EXPECT_EQ(here.open()->stored_pages().size(), 1);
  const Machine there(url());
  there.open();
  EXPECT_EQ(there.page("alpha"), here.page("alpha"));
}

// The connection is cut before and after each message of a whole save. A save that fails can be made again,
// onto the version that its author knew.
TEST_F(SharedWikiTest, ASaveWhoseConnectionIsCutAnywhereCanBeMadeAgain) {
  CuttingProxy proxy(PostgresServer::shared().folder());
  const Machine here(url(proxy.folder()));
  const Machine witness(url());
  put(*here.open(), "alpha", WikiRepo::text_about("alpha"));
  const auto elsewhere = witness.open();
  int failed = 0;
  for (const auto cut : {CuttingProxy::Cut::before, CuttingProxy::Cut::after}) {
    for (int message = 1;; ++message) {
      const auto wiki = here.open();
      const std::string known = version_of(here.page("alpha"));
      const std::string marker =
          (cut == CuttingProxy::Cut::before ? "Before " : "After ") + std::to_string(message) + ".";
      const std::string text = WikiRepo::text_about("alpha", marker);
      proxy.cut_at(message, cut);
      const SaveOutcome outcome = save(*wiki, "alpha", text, {}, known);
      const bool was_cut = proxy.seen() >= message;
      proxy.cut_at(0);
      const bool is_stored =
          elsewhere->store().newest_texts(elsewhere->branch(), {"alpha"}).at("alpha").find(marker) !=
          std::string::npos;
      EXPECT_EQ(is_stored, is_saved(outcome.answer)) << message;
      if (!is_saved(outcome.answer)) {
        ++failed;
        EXPECT_EQ(failure_of(save(*wiki, "alpha", text, {}, known)), "") << message;
      }
      adopt_arrivals(*elsewhere, WhenBusy::wait);
      EXPECT_EQ(here.page("alpha"), witness.page("alpha")) << message;
      if (!was_cut) break;
    }
  }
  EXPECT_GE(failed, 8);
  EXPECT_THAT(here.replaced(), IsEmpty());
}

// The connection is cut at each message of a page's first save. One that fails leaves no page, and can be
// made again.
TEST_F(SharedWikiTest, AFirstSaveThatFailedLeavesNoPage) {
  CuttingProxy proxy(PostgresServer::shared().folder());
  const Machine here(url(proxy.folder()));
  const std::string text = WikiRepo::text_about("alpha");
  int failed = 0;
  for (int message = 1;; ++message) {
    const auto wiki = here.open();
    proxy.cut_at(message);
    const std::string failure = failure_of(save(*wiki, "alpha", text, {}, "new"));
    const bool was_cut = proxy.seen() >= message;
    proxy.cut_at(0);
    if (!was_cut) break;
    if (!failure.empty()) {
      ++failed;
      wiki->bring_in_files();
      EXPECT_FALSE(here.has("alpha")) << message << ": " << failure;
      EXPECT_EQ(failure_of(save(*wiki, "alpha", text, {}, "new")), "") << message;
    }
    utils::Task task;
    EXPECT_EQ(error_of(remove_page(*wiki, "alpha", {}, "test", task)), "");
    fs::remove_all(here.dir() / ".ossilar/replaced");  // the removal keeps the text
  }
  EXPECT_GE(failed, 4);
  EXPECT_THAT(here.replaced(), IsEmpty());
}

// Saves the page on another machine just before its text is read.
class OvertakenStore final : public store::Forwarding<store::WikiStore> {
 public:
  OvertakenStore(store::WikiStore& target, std::function<void()> overtake)
      : Forwarding(target), overtake_(std::move(overtake)) {}
  std::map<std::string, std::string> newest_texts(const std::string& branch,
                                                  const std::vector<std::string>& page_ids) override {
    if (overtake_) std::exchange(overtake_, nullptr)();
    return Forwarding::newest_texts(branch, page_ids);
  }

 private:
  std::function<void()> overtake_;
};

TEST_F(SharedWikiTest, AFailedSaveIsNoHandsTextThoughAnotherMachineSavesMeanwhile) {
  const Machine here(url());
  const Machine there(url());
  const auto ours = here.open();
  const auto theirs = there.open();
  put(*ours, "alpha", WikiRepo::text_about("alpha", "One."));
  adopt_arrivals(*theirs, WhenBusy::wait);
  OvertakenStore overtaken(ours->store(),
                           [&] { put(*theirs, "alpha", WikiRepo::text_about("alpha", "Two.")); });
  WikiLists lists(ours->paths().wiki, ours->paths().pages);
  SharedFiles files({.paths = ours->paths(),
                     .branch = ours->branch(),
                     .store = overtaken,
                     .replaced = ours->replaced_texts(),
                     .lists = lists});
  files.bring_in();
  files.note_attempt("alpha", "what a save wrote that then failed\n");
  here.dir().write("wiki/pages/alpha.md", "what a save wrote that then failed\n");
  files.bring_in();
  files.bring_in();
  EXPECT_EQ(here.page("alpha"), there.page("alpha"));
  EXPECT_THAT(here.replaced(), IsEmpty());
}

// The share of questions whose answer is among the first three passages.
double share_found(Wiki& wiki) {
  const auto score =
      ossilar::testing::score_of(ossilar::testing::retrieval_questions(), [&](const std::string& query) {
        return std::get<SearchResult>(WikiReader(wiki).search({.query = query, .limit = 10}, {})).hits;
      });
  return score.hits_within(3);
}

TEST_F(SharedWikiTest, SearchFindsAsMuchAsOverTheEmbeddedStore) {
  const ossilar::testing::RetrievalWiki embedded;
  setenv("OSSILAR_STORE_URL", url().c_str(), 1);
  const ossilar::testing::RetrievalWiki shared;
  unsetenv("OSSILAR_STORE_URL");
  ASSERT_NE(shared.wiki->shared_files(), nullptr);
  EXPECT_NEAR(share_found(*shared.wiki), share_found(*embedded.wiki), 0.02);
}

TEST_F(SharedWikiTest, ASaveTakesFewRoundTrips) {
  CuttingProxy proxy(PostgresServer::shared().folder());
  const Machine here(url(proxy.folder()));
  const auto wiki = here.open();
  for (const char* one : {"One.", "Two."}) put(*wiki, "alpha", WikiRepo::text_about("alpha", one));
  for (const bool is_onto_version : {false, true}) {
    // The fewest of some saves: what keeps the lock alive each second comes on top.
    int least = std::numeric_limits<int>::max();
    for (const char* one : {"Three.", "Four.", "Five."}) {
      const auto version = is_onto_version ? std::optional(version_of(here.page("alpha"))) : std::nullopt;
      proxy.cut_at(0);
      EXPECT_EQ(failure_of(save(*wiki, "alpha", WikiRepo::text_about("alpha", one), {}, version)), "");
      least = std::min(least, proxy.round_trips());
    }
    EXPECT_LE(least, 12) << is_onto_version;
  }
}

}  // namespace
}  // namespace ossilar::workers::wiki
