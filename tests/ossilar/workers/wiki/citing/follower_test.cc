#include "ossilar/workers/wiki/citing/follower.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "ossilar/utils/hash.h"

namespace ossilar::workers::wiki {
namespace {

using Texts = std::map<std::string, std::string>;

// Lines of their own, from the number `first` to `last`, all equally long.
std::string lines(int first, int last, const std::string& name = "value") {
  std::string text;
  for (int i = first; i <= last; ++i) text += "gather_each_" + name + "(" + std::to_string(1000 + i) + ");\n";
  return text;
}

constexpr const char* kCommit = "c0ffee";

// The files of a commit, from which lines were cited, and the files as they are.
class World {
 public:
  World(const Texts& then, Texts now, const std::string& symbol = "")
      : now_(std::move(now)), index_(index_of(now_, symbol)) {
    for (const auto& [path, text] : then) {
      past_[short_hash(text)] = text;
      files_.emplace(path, "");
    }
  }

  bool keeps_texts = true;   // whether the old texts are to be had
  bool knows_commit = true;  // whether its files are

  std::unique_ptr<CitationFollower> follower() {
    return std::make_unique<CitationFollower>(CitedSources{
        index_,
        [this](const std::string& path) {
          const auto found = now_.find(path);
          return found == now_.end() ? std::nullopt : std::optional(found->second);
        },
        [this](const FileVersion& version) -> std::optional<std::string> {
          const auto found = past_.find(version.hash);
          if (!keeps_texts || found == past_.end()) return std::nullopt;
          return found->second;
        },
        [this](const std::string& commit) { return knows_commit && commit == kCommit ? &files_ : nullptr; }});
  }

  // Each file has the function `symbol`, if one is named.
  static source::SourceIndex index_of(const Texts& files, const std::string& symbol) {
    std::vector<std::shared_ptr<const source::SourceFile>> shared;
    for (const auto& [path, text] : files) {
      source::SourceFile file;
      file.path = path;
      file.size = text.size();
      file.sha256 = source::ContentHash(utils::sha256_hex(text));
      file.lines = LineText(text).size();
      if (!symbol.empty()) file.symbols = source::SymbolList({{symbol, "function", "", 1}});
      shared.push_back(std::make_shared<const source::SourceFile>(std::move(file)));
    }
    return source::SourceIndex(std::move(shared));
  }

 private:
  Texts now_, past_;
  source::CommitFiles files_;
  source::SourceIndex index_;
};

Fingerprint print_of(const std::string& text, LineRange range, const std::string& symbol = "") {
  return fingerprint_of(LineText(text), range, symbol, {short_hash(text), "", kCommit});
}

std::string shown(const Looked& looked) {
  std::string text = state_name(looked.state);
  if (looked.now) {
    text += " " + looked.now->path + ":" + std::to_string(looked.now->first) + "-" +
            std::to_string(looked.now->last);
  }
  return text;
}

// What becomes of a.cc:L10-L12.
struct FollowerCase {
  const char* what;
  Texts then, now;
  const char* with_text;
  const char* without_text;    // the old texts are gone
  const char* without_commit;  // the texts are kept, but nobody knows which files there were
};

TEST(FollowerTest, FollowsIntoTheFileThatAFileWasRenamedTo) {
  const std::string text = lines(1, 40);
  const std::string other = lines(1, 40, "other");
  const std::vector<FollowerCase> cases{
      {"unchanged",
       {{"a.cc", text}},
       {{"a.cc", text}},
       "same a.cc:10-12",
       "same a.cc:10-12",
       "same a.cc:10-12"},
      {"changed elsewhere",
       {{"a.cc", text}},
       {{"a.cc", "x\n" + text}},
       "moved a.cc:11-13",
       "moved a.cc:11-13",
       "moved a.cc:11-13"},
      {"removed", {{"a.cc", text}, {"b.cc", other}}, {{"b.cc", other}}, "gone", "gone", "gone"},
      {"renamed byte for byte",
       {{"a.cc", text}},
       {{"b.cc", text}},
       "moved b.cc:10-12",
       "moved b.cc:10-12",
       "moved b.cc:10-12"},
      {"moved to another folder and changed a little",
       {{"a.cc", text}},
       {{"d/a.cc", "x\n" + text}},
       "moved d/a.cc:11-13",
       "moved d/a.cc:11-13",
       "moved d/a.cc:11-13"},
      {"renamed, more than half of it kept",
       {{"a.cc", text}},
       {{"b.cc", lines(1, 25) + lines(1, 15, "fresh")}},
       "moved b.cc:10-12",
       "gone",
       "gone"},
      {"renamed, less than half of it kept",
       {{"a.cc", text}},
       {{"b.cc", lines(1, 15) + lines(1, 25, "fresh")}},
       "gone",
       "gone",
       "gone"},
      {"renamed, and its lines changed",
       {{"a.cc", text}},
       {{"b.cc", lines(1, 10) + "x\n" + lines(12, 40)}},
       "changed b.cc:10-12",
       "gone",
       "gone"},
      {"split: the larger part is the new name",
       {{"a.cc", text}},
       {{"b.cc", lines(1, 25)}, {"c.cc", lines(26, 40)}},
       "moved b.cc:10-12",
       "gone",
       "gone"},
      {"split: the lines went with the smaller part",
       {{"a.cc", text}},
       {{"b.cc", lines(1, 15)}, {"c.cc", lines(16, 40)}},
       "gone",
       "gone",
       "gone"},
      {"a copy that was there before is not the new name",
       {{"a.cc", text}, {"copy.cc", text}},
       {{"copy.cc", text}},
       "gone",
       "gone",
       "moved copy.cc:10-12"},
      {"nor is a file alike",
       {{"a.cc", text}, {"alike.cc", lines(1, 39)}},
       {{"alike.cc", lines(1, 39)}},
       "gone",
       "gone",
       "gone"},
      {"a copy that was there, and the new name",
       {{"a.cc", text}, {"copy.cc", text}},
       {{"copy.cc", text}, {"b.cc", text}},
       "moved b.cc:10-12",
       "moved b.cc:10-12",
       "gone"},
      {"two new copies: the one of the same name",
       {{"a.cc", text}},
       {{"b.cc", text}, {"d/a.cc", text}},
       "moved d/a.cc:10-12",
       "moved d/a.cc:10-12",
       "moved d/a.cc:10-12"},
      {"its place taken by another file",
       {{"a.cc", text}},
       {{"a.cc", other}, {"b.cc", text}},
       "changed a.cc:1-40",
       "gone",
       "changed a.cc:1-40"},
  };
  for (const FollowerCase& row : cases) {
    SCOPED_TRACE(row.what);
    const Citation cited{"a.cc", 10, 12};
    const Fingerprint print = print_of(text, {10, 12});
    World world(row.then, row.now);
    EXPECT_EQ(shown(world.follower()->look(cited, print)), row.with_text);
    world.keeps_texts = false;
    EXPECT_EQ(shown(world.follower()->look(cited, print)), row.without_text) << "without the old text";
    world.keeps_texts = true;
    world.knows_commit = false;
    EXPECT_EQ(shown(world.follower()->look(cited, print)), row.without_commit) << "without the commit";
  }
}

// Without the old text a block must tell by itself that it is the one: long, and in one file alone that has
// its symbol or the old file's name.
TEST(FollowerTest, FindsATellingBlockInAnotherFileByItsSymbol) {
  const std::string text = lines(1, 40);
  const std::string moved = "x\n" + lines(10, 12);
  struct Row {
    const char* what;
    LineRange cited;
    const char* symbol;
    Texts now;
    const char* outcome;
  };
  const std::vector<Row> rows{
      {"in a file with the symbol", {10, 12}, "f", {{"b.cc", moved}}, "moved b.cc:2-4"},
      {"in one without it", {10, 12}, "g", {{"b.cc", moved}}, "gone"},
      {"in a file of the same name", {10, 12}, "", {{"d/a.cc", moved}}, "moved d/a.cc:2-4"},
      {"in two files", {10, 12}, "f", {{"b.cc", moved}, {"c.cc", moved + "x\n"}}, "gone"},
      {"too short a block", {10, 11}, "f", {{"b.cc", moved}}, "gone"},
      {"nowhere", {20, 22}, "f", {{"b.cc", moved}}, "gone"},
  };
  for (const Row& row : rows) {
    World world({{"a.cc", text}}, row.now, "f");
    world.keeps_texts = false;
    const Fingerprint print = print_of(text, row.cited, row.symbol);
    EXPECT_EQ(shown(world.follower()->look({"a.cc", row.cited.first, row.cited.last}, print)), row.outcome)
        << row.what;
  }
}

TEST(FollowerTest, ACitationOfWhichNothingIsRememberedIsUnknown) {
  World world({}, {{"a.cc", lines(1, 12)}});
  EXPECT_EQ(shown(world.follower()->look({"a.cc", 10, 12}, {})), "unknown");
  EXPECT_EQ(shown(world.follower()->look({"a.cc", 10, 13}, {})), "gone");
  EXPECT_EQ(shown(world.follower()->look({"b.cc", 1, 1}, {})), "gone");
}

// Rows of an earlier format know the hash of the lines and nothing else.
TEST(FollowerTest, TheHashOfTheLinesAloneFindsThem) {
  const std::string text = lines(1, 40);
  World world({{"a.cc", text}}, {{"a.cc", "x\n" + text}});
  Fingerprint print;
  print.text = print_of(text, {10, 12}).text;
  EXPECT_EQ(shown(world.follower()->look({"a.cc", 10, 12}, print)), "moved a.cc:11-13");
  print.text = print_of("other\n", {1, 1}).text;
  EXPECT_EQ(shown(world.follower()->look({"a.cc", 10, 12}, print)), "gone");
}

// The text that is kept under a version may be that of a file that was being edited.
TEST(FollowerTest, AnOldTextThatDoesNotHoldTheCitedLinesIsNotUsed) {
  const std::string kept = lines(1, 40);
  const std::string cited = "x\n" + kept;
  World world({{"a.cc", kept}}, {{"a.cc", "x\ny\n" + kept}});
  Fingerprint print = print_of(cited, {10, 12});
  print.file.hash = short_hash(kept);
  const auto follower = world.follower();
  EXPECT_EQ(shown(follower->look({"a.cc", 10, 12}, print)), "moved a.cc:11-13");
  EXPECT_EQ(follower->cited_text({"a.cc", 10, 12}, print), std::nullopt);
  EXPECT_EQ(follower->cited_text({"a.cc", 40, 99}, print), std::nullopt);
  EXPECT_EQ(follower->cited_text({"a.cc", 9, 11}, print), lines(9, 11));
}

TEST(FollowerTest, CountsChangedLines) {
  const std::string text = lines(1, 40);
  World world({{"a.cc", text}, {"b.cc", text}}, {{"a.cc", "x\n" + lines(3, 40) + "y\nz\n"}});
  const FileVersion version = print_of(text, {1, 1}).file;
  const auto counts = world.follower()->changed_lines("a.cc", version);
  ASSERT_TRUE(counts);
  EXPECT_EQ(counts->removed, 2);
  EXPECT_EQ(counts->added, 3);
  EXPECT_FALSE(world.follower()->changed_lines("b.cc", version)) << "it is gone";
  world.keeps_texts = false;
  EXPECT_FALSE(world.follower()->changed_lines("a.cc", version)) << "there is no old text";
}

TEST(SimilarityTest, IsTheShareOfTheLargerText) {
  const auto of = [](const std::string& a, const std::string& b) {
    return similarity(LineText(a), LineText(b));
  };
  EXPECT_EQ(of("", ""), 1);
  EXPECT_EQ(of("", "a\n"), 0);
  EXPECT_EQ(of(lines(1, 10), lines(1, 10)), 1);
  EXPECT_EQ(of(lines(1, 10), lines(1, 5)), 0.5);
  EXPECT_EQ(of(lines(1, 10), lines(6, 15)), 0.5);
  EXPECT_EQ(of(lines(1, 5) + lines(6, 10), lines(6, 10) + lines(1, 5)), 1) << "order does not count";
  EXPECT_EQ(of("a\na\na\na\n", "a\n"), 0.25) << "each line counts as often as it stands";
}

}  // namespace
}  // namespace ossilar::workers::wiki
