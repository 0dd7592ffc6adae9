#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include <cstdlib>
#include <memory>
#include <tuple>

#include "ossilar/source/ctags.h"
#include "ossilar/source/indexer.h"
#include "ossilar/source/record.h"
#include "ossilar/utils/best_effort.h"
#include "ossilar/utils/hash.h"
#include "ossilar/utils/json.h"
#include "ossilar/utils/text.h"
#include "support/rows.h"
#include "support/temp_dir.h"

namespace ossilar::source {
namespace {

using ::ossilar::testing::rows_of;
using ::ossilar::testing::TempDir;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

std::string shown(const std::vector<Symbol>& symbols) {
  std::vector<std::string> lines;
  lines.reserve(symbols.size());
  for (const Symbol& s : symbols) {
    lines.push_back(std::to_string(s.line) + " " + s.kind + " " + s.scope + "|" + s.name);
  }
  return utils::join(lines, ", ");
}

// PATH is `value` while it lives.
class Path {
 public:
  explicit Path(const std::string& value) { setenv("PATH", value.c_str(), 1); }
  ~Path() { setenv("PATH", before_.c_str(), 1); }
  Path(const Path&) = delete;
  Path& operator=(const Path&) = delete;

 private:
  std::string before_ = getenv("PATH");
};

class SymbolsTest : public ::testing::Test {
 protected:
  // The reason for which symbols were noted as degraded, or "".
  std::string refresh() {
    const auto scope = utils::degraded_steps();
    index = indexer->refresh();
    return scope.entered()->empty() ? "" : utils::string_member(scope.entered()->at(0), "reason");
  }
  std::string symbols(const std::string& path) const { return shown(index->find(path)->symbols.all()); }

  void stand_in(const std::string& script) const {
    tools.write("ctags", "#!/bin/sh\n" + script);
    std::filesystem::permissions(tools / "ctags", std::filesystem::perms::owner_all);
  }

  TempDir root;
  TempDir tools;
  void make_indexer(bool watch) {
    const auto clock = [] { return std::int64_t{1} << 62; };
    indexer.reset(new Indexer({.root = root.path(), .excluded = {}, .clock = clock, .watch = watch}));
  }
  void SetUp() override { make_indexer(false); }
  std::unique_ptr<Indexer> indexer;
  std::shared_ptr<const SourceIndex> index;
};

TEST_F(SymbolsTest, AreWhatAFileDeclares) {
  const auto rows = rows_of("source/symbols.txt");
  for (const Map& row : rows) root.write(row.at(0), row.at(1));
  root.write("e.c", "// \xe9\nint caf\xe9(void) {}\nint ok(void) {}\n");
  EXPECT_EQ(refresh(), "");
  for (const Map& row : rows) EXPECT_EQ(symbols(row.at(0)), row.at(2)) << row;
  EXPECT_EQ(symbols("e.c"), "3 function |ok") << "bytes that are not UTF-8";
  for (const auto& file : index->files()) {
    const std::string record = record_text({.stamp = {}, .file = file});
    const auto kept = read_record(file->path, record);
    EXPECT_EQ(kept->file->symbols.text(), file->symbols.text()) << "from its record";
    EXPECT_EQ(record_text(*kept), record);
    for (std::size_t size = 0; size < record.size(); ++size)
      EXPECT_FALSE(read_record(file->path, record.substr(0, size))) << "cut off after " << size;
  }
}

class SymbolToolTest : public SymbolsTest, public ::testing::WithParamInterface<bool> {};

// Also with watches, which do not report that the tool was installed.
TEST_P(SymbolToolTest, SymbolsAreReadOnceTheToolIsInstalledAndThenKept) {
  make_indexer(GetParam());
  root.write("a.py", "def f(): pass\n");
  {
    const Path nothing(tools.path());
    EXPECT_THAT(refresh(), HasSubstr("ctags is not in PATH"));
    EXPECT_EQ(symbols("a.py"), "");
    EXPECT_THAT(refresh(), HasSubstr("ctags is not in PATH")) << "on every refresh";
    EXPECT_EQ(indexer->looks(), GetParam() ? 1U : 2U) << "a tool that is missing is no reason to look";
    stand_in("echo Exuberant Ctags; exit 1\n");
    EXPECT_THAT(refresh(), HasSubstr("cannot write JSON"));
    stand_in("case $* in *list*) echo 'json x'; echo 'interactive x';; *) echo broken >&2;; esac\n");
    EXPECT_THAT(refresh(), HasSubstr("broken"));
    EXPECT_EQ(symbols("a.py"), "");
  }
  const auto without = index;
  EXPECT_EQ(refresh(), "");
  EXPECT_EQ(symbols("a.py"), "1 function |f");
  EXPECT_NE(index, without);
  const auto with = index;
  const Path nothing(tools.path());
  root.write("a.py", "def f(): pass\n");
  EXPECT_EQ(refresh(), "") << "nothing is started for what is known";
  EXPECT_EQ(index, with);
}

INSTANTIATE_TEST_SUITE_P(Watch, SymbolToolTest, ::testing::Bool());

TEST_F(SymbolsTest, AFileThatKillsTheToolLosesItsOwnSymbolsAlone) {
  const char* script =
      "echo '{\"_type\": \"program\"}'\n"
      "while read -r request && read -r text; do\n"
      "  echo '{\"_type\": \"tag\", \"name\": \"f\", \"line\": 1, \"kind\": \"function\"}'\n"
      "  case $request in *bad*) kill -9 $$;; esac\n"
      "  echo '{\"_type\": \"completed\"}'\n"
      "done\n";
  SymbolBatch batch;
  for (const char* path : {"bad.c", "a.c", "b.c", "bad.c", "bad.c", "c.c", "bad.c"})
    batch.add(path, "C", "int f;\n");
  std::vector<std::size_t> found;
  for (const auto& symbols : batch.symbols({{"sh", "-c", script}, ""})) found.push_back(symbols.size());
  EXPECT_THAT(found, ElementsAre(0U, 1U, 1U, 0U, 0U, 1U, 0U));
}

TEST_F(SymbolsTest, EachOfManyFilesHasItsOwnSymbolsUpToTheCap) {
  const auto function = [](std::size_t i) { return "def f" + std::to_string(i) + "(): pass\n"; };
  std::string many;
  for (std::size_t i = 0; i < kMaxSymbols + 5; ++i) many += function(i);
  root.write("many.py", many);
  for (std::size_t i = 0; i < 2500; ++i) root.write(std::to_string(i) + ".py", function(i));
  refresh();
  EXPECT_EQ(index->find("many.py")->symbols.all().size(), kMaxSymbols);
  for (int i = 0; i < 2500; ++i) {
    ASSERT_EQ(symbols(std::to_string(i) + ".py"), "1 function |f" + std::to_string(i));
  }
}

TEST(SymbolList, ReadsItsTextBackAndSkipsDamage) {
  const std::vector<std::vector<Symbol>> lists{
      {},
      {{"", "", "", 0}},
      {{"a", "function", "", 3}, {"b", "function", "", 3}, {"c", "class", "n::a", 9}},
      {{"operator()", "method", "A", 5}, {"x y", "method", "A", 2}, {"z", "", "", -1}},
  };
  const auto fields = [](const std::vector<Symbol>& symbols) {
    std::vector<std::tuple<std::string, std::string, std::string, std::int64_t>> rows;
    for (const Symbol& s : symbols) rows.emplace_back(s.name, s.kind, s.scope, s.line);
    return rows;
  };
  for (const auto& list : lists)
    EXPECT_EQ(fields(SymbolList::of_text(SymbolList(list).text()).all()), fields(list));
  EXPECT_EQ(shown(SymbolList({{"a\tb\nc", "d", "", 1}, {"e", "d", "", 2}}).all()), "1 d |a b c, 2 d |e");
  EXPECT_EQ(shown(SymbolList::of_text("a\n\x01\t\x01\t\x01\tx\nb\tf\t\t7").all()), "0  |a, 0  |\x01, 7 f |b");
  const std::string most = std::to_string(std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(shown(SymbolList::of_text("a\tf\t\t" + most + "\nb\tf\t\t" + most).all()),
            most + " f |a, " + most + " f |b")
      << "a line that no file has stays the largest number";
}

TEST(ContentHash, TakesLowerCaseDigitsOnly) {
  const std::string digits = utils::sha256_hex("x");
  EXPECT_EQ(ContentHash(digits).hex(), digits);
  for (const std::string& other : {std::string(), digits.substr(1), digits + "0", "G" + digits.substr(1),
                                   digits.substr(1) + "g", digits.substr(1) + "A"}) {
    EXPECT_EQ(ContentHash(other).hex(), "") << other;
    EXPECT_EQ(ContentHash(other), ContentHash()) << other;
  }
}

TEST(SymbolList, KnowsWhetherItHoldsAMainFunction) {
  const std::vector<std::pair<std::vector<Symbol>, bool>> rows{
      {{}, false},
      {{{"main", "function", "", 1}}, true},
      {{{"a", "function", "", 1}, {"main", "function", "A", 2}}, false},
      {{{"domain", "function", "", 1}, {"main", "method", "A", 2}, {"main", "function", "", 9}}, true},
      {{{"mains", "function", "", 1}}, false},
  };
  for (const auto& [symbols, is_so] : rows)
    EXPECT_EQ(SymbolList(symbols).has_main(), is_so) << shown(symbols);
}

}  // namespace
}  // namespace ossilar::source
