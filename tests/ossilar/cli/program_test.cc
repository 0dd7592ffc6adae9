// Runs the program and looks at what a user sees: exit code, standard output, standard error.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "ossilar/operations/operation.h"
#include "ossilar/store/file_lock.h"
#include "ossilar/utils/json.h"
#include "ossilar/utils/process.h"
#include "ossilar/utils/text.h"
#include "support/wiki_repo.h"

namespace ossilar::cli {
namespace {

using ossilar::testing::TempDir;
using ossilar::testing::WikiRepo;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using utils::ProcessResult;
namespace fs = std::filesystem;

ProcessResult ossilar_in(const fs::path& repo, std::vector<std::string> arguments,
                         const std::string& input = "") {
  arguments.insert(arguments.begin(), {OSSILAR_PROGRAM, "--repo", repo.string()});
  return utils::run_process(arguments, input);
}

const std::string kGood = WikiRepo::text_about("alpha");

struct Case {
  const char* why;
  std::function<void(const WikiRepo&)> arrange;
  std::vector<std::string> arguments;
  std::string input;
  int exit_code;
  std::string says;  // in standard output for an answer, on one line of standard error for a failure
};

void store_alpha(const WikiRepo& repo) { ossilar_in(repo.dir.path(), {"save", "alpha"}, kGood); }

void put_directory(const WikiRepo& repo) { fs::create_directories(repo.dir / "wiki/pages/alpha.md"); }

void put_link(const WikiRepo& repo) { fs::create_symlink("/etc/hostname", repo.dir / "wiki/pages/alpha.md"); }

void damage_database(const WikiRepo& repo) {
  repo.dir.write(".ossilar/index.db", std::string(8192, 'x'));
  fs::remove(repo.dir / ".ossilar/index.db-wal");
}

std::function<void(const WikiRepo&)> configure(const std::string& text) {
  return [text](const WikiRepo& repo) { repo.dir.write("ossilar.toml", text); };
}

const std::vector<Case>& cases() {
  static const std::vector<Case> kCases{
      {"blank", {}, {"save", "alpha"}, " \n\u00a0\u3000", 1, "content is required"},
      {"not UTF-8",
       {},
       {"save", "alpha"},
       "a\nb\xff",
       1,
       "content is not UTF-8: byte 0xFF at offset 3 (line 2)"},
      {"too long", {}, {"save", "alpha"}, std::string((1U << 20U) + 1, 'x'), 1, "at most 1048576 are taken"},
      {"not planned", {}, {"save", "alfa"}, kGood, 1, "did you mean 'alpha'?"},
      {"few citations",
       {},
       {"save", "alpha"},
       "[src/alpha.cpp:L1]",
       1,
       "page has 1 valid citation(s); at least 2"},
      {"few in a rehearsal", {}, {"save", "alpha", "--dry-run"}, "none", 1, "page has 0 valid citation(s)"},
      {"taken title", {}, {"save", "alpha", "--title", "BETA"}, kGood, 1, "it is the title of page 'beta'"},
      {"blank title", {}, {"save", "alpha", "--title", " "}, kGood, 1, "it is blank"},
      {"brackets", {}, {"save", "alpha", "--title", "a[b]"}, kGood, 1, "it holds brackets"},
      {"long title", {}, {"save", "alpha", "--title", std::string(201, 'x')}, kGood, 1, "longer than 200"},
      {"no text yet",
       {},
       {"save", "alpha", "--section", "One"},
       "x",
       1,
       "has no saved text to replace a section of"},
      {"directory", put_directory, {"save", "alpha", "--section", "One"}, "x", 1, "has no saved text"},
      {"no section",
       store_alpha,
       {"save", "alpha", "--section", " Zip "},
       "x",
       1,
       "page 'alpha' has no section 'Zip'"},
      {"show no section", store_alpha, {"show", "alpha", "--section", "Zip"}, "", 1, "has no section 'Zip'"},
      {"show not written", {}, {"show", "alpha"}, "", 1, "page 'alpha' is not written yet"},
      {"context not planned", {}, {"context", "nope"}, "", 1, "page 'nope' is not in the plan"},
      {"directory in place", put_directory, {"save", "alpha"}, kGood, 3, "alpha.md is not a regular file"},
      {"link in place", put_link, {"save", "alpha"}, kGood, 3, "alpha.md is a symbolic link"},
      {"link out", put_link, {"save", "alpha", "--section", "One"}, "x", 3, "leads out of"},
      {"stored text not UTF-8",
       [](const WikiRepo& repo) { repo.dir.write("wiki/pages/alpha.md", "# A\n\xff\n"); },
       {"save", "alpha", "--section", "One"},
       "x",
       3,
       "alpha.md is not UTF-8: byte 0xFF at offset 4 (line 2)"},
      {"damaged database", damage_database, {"save", "alpha"}, kGood, 3, "index.db"},
      {"broken repository",
       [](const WikiRepo& repo) { repo.dir.write(".git/HEAD", "?\n"); },
       {"plan"},
       "",
       3,
       "the git repository at"},
      {"wiki is a link",
       [](const WikiRepo& repo) {
         fs::remove_all(repo.dir / "wiki");
         fs::create_directory_symlink("/tmp", repo.dir / "wiki");
       },
       {"save", "alpha"},
       kGood,
       2,
       "wiki is a symbolic link"},
      {"never set up",
       [](const WikiRepo& repo) { fs::remove_all(repo.dir / ".ossilar"); },
       {"plan"},
       "",
       2,
       "set it up with: ossilar init"},
      {"unknown key", configure("[wiki]\ndirr = \"x\"\n"), {"plan"}, "", 2, "ossilar.toml:2"},
      {"wrong type", configure("[wiki]\ndiagrams = 3\n"), {"plan"}, "", 2, "diagrams"},
      {"page id out of the wiki", configure("[[page]]\nid = \"../x\"\n"), {"plan"}, "", 2, "../x"},
      {"unknown command", {}, {"frob"}, "", 2, "unknown command or argument 'frob'"},
      {"misspelled command", {}, {"sav"}, "", 2, "did you mean: ossilar save; see: ossilar --help"},
      {"no page", {}, {"save"}, "", 2, "PAGE is required; see: ossilar save --help"},
      {"no such file", {}, {"save", "alpha", "/nonexistent.md"}, "", 2, "cannot open /nonexistent.md"},
      {"unknown client", {}, {"init", "--client", "emacs"}, "", 2, "emacs not in {claude-code,codex,"},
      {"a client's file with comments",
       [](const WikiRepo& repo) { repo.dir.write(".mcp.json", "{} // mine"); },
       {"init", "--client", "codex", "--client", "claude-code"},
       "",
       2,
       ".mcp.json is not plain JSON"},
      {"a client's file not UTF-8",
       [](const WikiRepo& repo) { repo.dir.write(".mcp.json", "{\"\xff\": 1}"); },
       {"init", "--client", "claude-code"},
       "",
       3,
       ".mcp.json is not UTF-8: byte 0xFF at offset 2"},
      {"a client's file is a link",
       [](const WikiRepo& repo) { fs::create_symlink("/etc/hostname", repo.dir / ".mcp.json"); },
       {"init", "--client", "claude-code"},
       "",
       3,
       ".mcp.json is a symbolic link"},
      {"a client's folder is a link",
       [](const WikiRepo& repo) { fs::create_directory_symlink("/tmp", repo.dir / ".vscode"); },
       {"init", "--client", "vscode"},
       "",
       3,
       ".vscode is a symbolic link"},
  };
  return kCases;
}

TEST(Program, SaysWhatIsWrongOnceWithTheDocumentedExitCodeAndChangesNothing) {
  for (const Case& row : cases()) {
    SCOPED_TRACE(row.why);
    const WikiRepo repo;
    if (row.arrange) row.arrange(repo);
    const ProcessResult human = ossilar_in(repo.dir.path(), row.arguments, row.input);
    EXPECT_EQ(human.exit_code, row.exit_code) << human.output << human.errors;
    const std::string& said = row.exit_code == 1 ? human.output : human.errors;
    EXPECT_THAT(said, HasSubstr(row.says));
    EXPECT_THAT(row.exit_code == 1 ? human.errors : human.output, IsEmpty());
    EXPECT_LE(utils::count_lines(human.errors), 1U) << human.errors;

    std::vector<std::string> arguments = row.arguments;
    arguments.emplace_back("--json");
    const ProcessResult json = ossilar_in(repo.dir.path(), arguments, row.input);
    EXPECT_EQ(json.exit_code, row.exit_code);
    EXPECT_THAT(utils::string_member(utils::parse_json(json.output, "output"), "error"), HasSubstr(row.says));
  }
}

TEST(Program, TheReadmeNamesEveryCommandAsTheHelpDoes) {
  std::ifstream file(OSSILAR_TEST_DATA "/../../README.md");
  const std::string readme{std::istreambuf_iterator<char>(file), {}};
  const std::string help = ossilar_in("/", {"--help"}, "").output;
  std::size_t commands = 0;
  const std::string listed = help.substr(help.find("Subcommands:\n") + 13);
  for (const std::string_view line : utils::split_lines(listed)) {
    if (!line.starts_with("  ")) continue;
    const std::string name(utils::strip(line.substr(0, 20)));
    const std::string row = "\n| `" + name + "` | " + std::string(utils::strip(line.substr(20))) + " |\n";
    EXPECT_NE(readme.find(row), std::string::npos) << row;
    ++commands;
  }
  const auto& all = operations::operations();
  const auto in_shell =
      std::count_if(all.begin(), all.end(), [](const auto& each) { return !each.command.empty(); });
  EXPECT_EQ(commands, static_cast<std::size_t>(in_shell) + 7)
      << "init, mcp, serve, export, store, doctor and completion are the shell's own";
}

TEST(Program, ALockThatIsHeldIsARefusalThatNamesTheHolder) {
  const WikiRepo repo("[wiki]\nlock_timeout_s = 0.05\n");
  store::FileLock lock({.path = repo.dir / ".ossilar/write.lock", .timeout = {}, .holder = "a test"});
  lock.acquire(true);
  const ProcessResult result = ossilar_in(repo.dir.path(), {"save", "alpha"}, kGood);
  lock.release();
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.output, HasSubstr("a test"));
}

TEST(Program, AFailedRefreshOfTheIndexIsLoggedAndThePageIsSaved) {
  const WikiRepo repo;
  fs::create_directories(repo.dir / "wiki/index.md");
  const ProcessResult result = ossilar_in(repo.dir.path(), {"save", "alpha"}, kGood);
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_THAT(result.errors,
              HasSubstr("ossilar.workers.wiki.agent_save: post-save index/state refresh failed: "
                        "ossilar::utils::IoError: "));
  EXPECT_THAT(repo.page("alpha"), HasSubstr("About alpha."));
}

TEST(Program, SetsClientsUpOnceAndChangesNoneWhenOneIsRefused) {
  const TempDir dir;
  dir.write("lib/one.py", "def one():\n    return 1\n");
  dir.write(".cursor/mcp.json", "[]");
  EXPECT_EQ(ossilar_in(dir.path(), {"init", "--client", "codex", "--client", "cursor"}).exit_code, 2);
  EXPECT_FALSE(fs::exists(dir / ".codex") || fs::exists(dir / ".ossilar"));

  const std::vector<std::string> init{"init",     "--client", "codex", "--client",
                                      "windsurf", "--client", "codex"};
  const ProcessResult first = ossilar_in(dir.path(), init);
  EXPECT_THAT(first.output, HasSubstr("codex: wrote .codex/config.toml"));
  EXPECT_THAT(first.output, HasSubstr("add this to your ~/.codeium/windsurf/mcp_config.json:\n  {\n"));
  EXPECT_THAT(dir.read(".codex/config.toml"), HasSubstr("[mcp_servers.ossilar]\ncommand = \"ossilar\"\n"));
  EXPECT_THAT(ossilar_in(dir.path(), init).output, HasSubstr(".codex/config.toml already has the server"));

  const Map json =
      utils::parse_json(ossilar_in(dir.path(), {"init", "--json", "--client", "zed"}).output, "");
  EXPECT_EQ(json.at("clients"),
            (Map::array({{{"client", "zed"}, {"file", ".zed/settings.json"}, {"written", true}}})));
  EXPECT_EQ(json.at("client_configuration")["mcpServers"]["ossilar"]["args"],
            (Map{"--repo", dir.path().string(), "mcp"}));
}

// A path that would turn the rest of a terminal's line around, and clear it: nothing of it gets there as it
// is, and what is to be pasted or parsed still names the path.
void run_git(const WikiRepo& repo, const std::string& script) {
  const std::string program = OSSILAR_PROGRAM;
  const auto result =
      utils::run_process({"env", "GIT_CONFIG_GLOBAL=/dev/null", "GIT_AUTHOR_NAME=a", "GIT_AUTHOR_EMAIL=a@b",
                          "GIT_COMMITTER_NAME=a", "GIT_COMMITTER_EMAIL=a@b", "sh", "-ec",
                          "PATH=" + program.substr(0, program.rfind('/')) + ":$PATH; cd \"$0\"; " + script,
                          repo.dir.path().string()},
                         "");
  ASSERT_EQ(result.exit_code, 0) << script << result.errors;
}

// However the change gets into the commit, and whatever else lies about.
TEST(Program, WithTheHookThePagesOfACommitPointAtItsLines) {
  const std::string moved = "// new\n" + WikiRepo::ten_lines("alpha");
  for (const auto& [commit, is_followed] :
       {std::pair("git add -A; git commit -q -m change", true),
        {"git commit -q -a -m change", true},
        {"git add -A; echo '// x' >> src/beta.cpp; git commit -q -m change", false}}) {
    SCOPED_TRACE(commit);
    const WikiRepo repo;
    run_git(repo, "git init -q; git add -A; git commit -q -m sources");
    ASSERT_EQ(ossilar_in(repo.dir.path(), {"init", "--hook"}).exit_code, 0);
    store_alpha(repo);
    run_git(repo, "git add -A; git commit -q -m wiki");
    repo.dir.write("src/alpha.cpp", moved);
    run_git(repo, std::string(commit) + "; git show HEAD:wiki/pages/alpha.md > committed");
    EXPECT_THAT(repo.dir.read("committed"), HasSubstr(is_followed ? "src/alpha.cpp#L2" : "src/alpha.cpp#L1"));
    EXPECT_EQ(repo.dir.read("committed") == repo.page("alpha"), true) << "nothing is left uncommitted";
  }
}

TEST(Program, AHookOfSomebodyElsesStays) {
  const WikiRepo repo;
  EXPECT_EQ(ossilar_in(repo.dir.path(), {"init", "--hook"}).exit_code, 2) << "no git repository";
  run_git(repo, "git init -q; echo other > .git/hooks/pre-commit");
  const ProcessResult refused = ossilar_in(repo.dir.path(), {"init", "--hook"});
  EXPECT_EQ(refused.exit_code, 2);
  EXPECT_THAT(refused.errors, HasSubstr("pre-commit is there already"));
  EXPECT_EQ(repo.dir.read(".git/hooks/pre-commit"), "other\n");
  run_git(repo, "rm .git/hooks/pre-commit; git config core.hooksPath hooks");
  EXPECT_THAT(ossilar_in(repo.dir.path(), {"init", "--hook"}).errors, HasSubstr("core.hooksPath"));
}

TEST(Program, APathReachesATerminalWithoutControlCharacters) {
  const TempDir dir;
  const std::string root = (dir / "a\u202eb\x1b[2J\x7f\u2066\"c").string();
  fs::create_directories(root);
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{"status"},
                                                    {"init", "--client", "codex", "--client", "windsurf"},
                                                    {"init"},
                                                    {"status"},
                                                    {"check"},
                                                    {"init", "--json", "--client", "windsurf"},
                                                    {"show", root},
                                                    {"show", root, "--json"},
                                                    {"search", "x", "--path", root},
                                                    {root},
                                                    {root, "--json"},
                                                    {"save", "overview", root}}) {
    const ProcessResult result = ossilar_in(root, arguments);
    EXPECT_EQ(result.output, utils::printable(result.output)) << arguments[0];
    EXPECT_EQ(result.errors, utils::printable(result.errors)) << arguments[0];
  }

  const std::string human = ossilar_in(root, {"init"}).output;
  const std::size_t advice = human.find("  {\"mcpServers\"");
  ASSERT_NE(advice, std::string::npos) << human;
  EXPECT_EQ(
      Map::parse(human.substr(advice, human.find('\n', advice) - advice))["mcpServers"]["ossilar"]["args"][1],
      root);
  const Map json = Map::parse(ossilar_in(root, {"init", "--json", "--client", "windsurf"}).output);
  EXPECT_EQ(json.at("root"), root);
  EXPECT_EQ(
      Map::parse(json.at("clients")[0].at("to_add").get<std::string>())["mcpServers"]["ossilar"]["args"][1],
      root);
}

TEST(Program, APathThatIsNotUtf8IsNamedInTheDocumentOfAFailure) {
  const TempDir dir;
  const ProcessResult result = ossilar_in(dir / "caf\xe9", {"status", "--json"});
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_THAT(utils::string_member(utils::parse_json(result.output, "output"), "error"),
              HasSubstr("caf\uFFFD"));
}

// One page came with its manifest, the other's save was killed before its row and its line were written.
TEST(Program, InitSaysWhatItAdoptsAndWhichPagesNoManifestDescribes) {
  const WikiRepo repo;
  store_alpha(repo);
  const std::string manifest = repo.dir.read("wiki/manifest.json");
  ASSERT_EQ(ossilar_in(repo.dir.path(), {"save", "beta"}, WikiRepo::text_about("beta")).exit_code, 0);
  for (const bool as_document : {false, true}) {
    fs::remove_all(repo.dir / ".ossilar");
    repo.dir.write("wiki/manifest.json", manifest);
    const std::vector<std::string> arguments{"init", "--json"};
    const auto result =
        ossilar_in(repo.dir.path(), {arguments.begin(), arguments.begin() + (as_document ? 2 : 1)});
    if (as_document) {
      const Map document = utils::parse_json(result.output, "output");
      EXPECT_EQ(document.at("adopted"), 2);
      EXPECT_EQ(document.at("undescribed"), Map::array({"beta"}));
    } else {
      EXPECT_THAT(result.output, HasSubstr("Adopted 2 page file(s) that had no row in the database.\n"
                                           "  beta is in no manifest; its file was adopted as it is.\n"));
    }
  }
  EXPECT_THAT(ossilar_in(repo.dir.path(), {"init"}).output, Not(HasSubstr("Adopted")));
}

// The whole way of a new user, in a folder outside git, with the output of each step.
TEST(Program, SetsUpSavesShowsAndReports) {
  const TempDir dir;
  dir.write("lib/one.py", "def one():\n    return 1\n\n\ndef two():\n    return 2\n");
  const ProcessResult init = ossilar_in(dir.path(), {"init"});
  ASSERT_EQ(init.exit_code, 0) << init.errors;
  EXPECT_THAT(
      init.output,
      HasSubstr("Created ossilar.toml, wiki/pages/, wiki/.gitattributes, .ossilar/, .ossilar/.gitignore."));
  EXPECT_EQ(dir.read(".ossilar/.gitignore"), "*\n");
  EXPECT_THAT(init.output, HasSubstr("ossilar init --client NAME"));

  const Map plan = utils::parse_json(ossilar_in(dir.path(), {"plan", "--json"}).output, "plan");
  std::string unit;
  for (const Map& page : plan.at("pages")) {
    EXPECT_EQ(page.at("state"), "missing");
    if (page.at("type") == "module") unit = page.at("page_id").get<std::string>();
  }
  ASSERT_FALSE(unit.empty()) << plan;
  const ProcessResult context = ossilar_in(dir.path(), {"context", unit});
  EXPECT_THAT(context.output, HasSubstr("### lib/one.py (Python, 6 lines)\n\n- L1 `def one():`"));

  const std::string text = "Numbers.\n\n## How it works\n\n[lib/one.py:L1-L2] and [lib/one.py:L5-L6].\n";
  dir.write("page.md", text);
  const ProcessResult saved = ossilar_in(dir.path(), {"save", unit, (dir / "page.md").string()});
  ASSERT_EQ(saved.exit_code, 0) << saved.output << saved.errors;
  EXPECT_THAT(saved.output, HasSubstr("2 citation(s)"));
  EXPECT_THAT(saved.output,
              HasSubstr("missing-section: a page of type module has a section 'Responsibility'"));
  EXPECT_EQ(ossilar_in(dir.path(), {"show", unit, "--authored"}).output, text);
  EXPECT_EQ(ossilar_in(dir.path(), {"show", unit, "--section", "how IT works"}).output,
            text.substr(text.find("##")));
  const Map status = utils::parse_json(ossilar_in(dir.path(), {"status", "--json"}).output, "status");
  EXPECT_EQ(status.at("branch"), "default");
  EXPECT_EQ(status.at("pages").at("ok"), 1);
  EXPECT_EQ(status.at("last_write").at("by"), "agent-session");
}

}  // namespace
}  // namespace ossilar::cli
