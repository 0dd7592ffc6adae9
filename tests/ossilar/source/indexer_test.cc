#include "ossilar/source/indexer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <fstream>

#include "ossilar/source/repository.h"
#include "ossilar/utils/error.h"
#include "ossilar/utils/files.h"
#include "ossilar/utils/hash.h"
#include "ossilar/utils/text.h"
#include "support/temp_dir.h"
#include "support/threads.h"

namespace ossilar::source {
namespace {

#ifdef __has_feature  // Clang's
constexpr bool kHasUbsan = __has_feature(undefined_behavior_sanitizer);
#else
constexpr bool kHasUbsan = false;
#endif

using ::ossilar::testing::Repository;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class MemoryRecords final : public RecordStore {
 public:
  void load(const Take& take) override {
    if (fails_to_load) throw utils::Error("locked");
    for (const auto& [path, text] : records) take(path, text);
  }
  void update(const std::map<std::string, std::optional<std::string>>& changes) override {
    if (fails) throw utils::Error("disk full");
    for (const auto& [path, text] : changes) {
      written.push_back(path);
      records.erase(path);
      if (text) records.emplace(path, *text);
    }
  }
  std::map<std::string, std::string> records;
  std::vector<std::string> written;  // since the last refresh
  bool fails = false;
  bool fails_to_load = false;
};

class IndexerTest : public ::testing::Test {
 protected:
  Indexer indexer() {
    const auto clock = [this] {
      const auto now = std::chrono::system_clock::now() + std::chrono::seconds(ahead_seconds);
      return std::int64_t{std::chrono::nanoseconds(now.time_since_epoch()).count()};
    };
    return Indexer({.root = repository / "r",
                    .excluded = {"gen/"},
                    .records = &records,
                    .symbols = false,
                    .clock = clock});
  }

  // How many files the refresh read.
  std::size_t refresh(Indexer& of) {
    std::size_t read = 0;
    records.written.clear();
    index = of.refresh([&](std::size_t, std::size_t total) { read = total; });
    return read;
  }

  std::map<std::string, FileKind> kinds() const {
    std::map<std::string, FileKind> out;
    for (const auto& file : index->files()) out.emplace(file->path, file->kind);
    return out;
  }

  void expect_content(const std::string& path, const std::string& content) const {
    ASSERT_NE(index->find(path), nullptr);
    EXPECT_EQ(index->find(path)->sha256.hex(), utils::sha256_hex(content));
  }

  void SetUp() override { repository.run("mkdir r o; echo 'int secret;' > o/secret.c"); }

  Repository repository;  // r is indexed, o lies outside
  MemoryRecords records;
  std::shared_ptr<const SourceIndex> index;
  int ahead_seconds = 10;  // files just written look old
};

constexpr const char* kOddFiles = R"sh(
  mkdir -p a gen; git init -q sub; echo > sub/inner.c; commit sub
  echo 'int a;' > a/text.cc; echo > -dash.py; echo > "$(printf 'new\nline.c')"; printf '// caf\351\n' > latin1.c
  printf 'a\000b' > binary; echo > "$(printf 'caf\351.c')"; echo > gen/made.c; echo > generated.c
  truncate -s 10485761 large.txt; ln -s ../o/secret.c link.c
  )sh";
const std::map<std::string, FileKind> kOddKinds = {
    {"a/text.cc", FileKind::text},  {"-dash.py", FileKind::text},  {"new\nline.c", FileKind::text},
    {"latin1.c", FileKind::text},   {"binary", FileKind::binary},  {"generated.c", FileKind::text},
    {"large.txt", FileKind::large}, {"link.c", FileKind::symlink}, {"sub", FileKind::submodule},
    {"pipe", FileKind::special}};

TEST_F(IndexerTest, InGitHoldsWhatIsTrackedAndThere) {
  repository.run("git init -q r; cd r;" + std::string(kOddFiles) + R"(
    mkdir turned; for name in pipe deleted.c turned/secret.c folder.c; do echo x > $name; done; commit . 2>&1
    rm -r pipe deleted.c turned folder.c; mkfifo pipe; ln -s ../o turned; mkdir folder.c; echo > untracked.c)");
  Indexer of = indexer();
  refresh(of);
  EXPECT_EQ(kinds(), kOddKinds);
  EXPECT_THAT(of.skipped(), ElementsAre("caf<E9>.c"));
  EXPECT_EQ(refresh(of), 0U);
  EXPECT_THAT(records.written, IsEmpty());
}

TEST_F(IndexerTest, OutsideGitHoldsEveryFile) {
  repository.run(
      "cd r; mkdir -p .hg .svn a/.ossilar; echo > a/.ossilar/x; echo > .hg/x; mkfifo pipe; ln -s .. loop;" +
      std::string(kOddFiles));
  Indexer of = indexer();
  refresh(of);
  auto expected = kOddKinds;
  expected.emplace("loop", FileKind::symlink);
  EXPECT_EQ(kinds(), expected);
  EXPECT_THAT(of.skipped(), ElementsAre("caf<E9>.c"));
  EXPECT_THAT(index->named("text.cc"), ElementsAre("a/text.cc"));
}

TEST_F(IndexerTest, AConflictedPathIsThereOnceAndADamagedIndexIsAnError) {
  repository.run(R"(git init -q r; cd r; echo 1 > a; commit .; git checkout -q -b other; echo 2 > a; commit .
    git checkout -q main; echo 3 > a; commit .; ! git merge -q other)");
  Indexer of = indexer();
  EXPECT_EQ(refresh(of), 1U);
  repository.write("r/.git/index", "nonsense that is long enough to hold a header and a checksum");
  EXPECT_THROW(of.refresh(), utils::Error);
}

// Kinds of index that libgit2 cannot read: the message names the kind and a command that helps.
TEST_F(IndexerTest, AnIndexOfAnotherKindIsRefusedByNameWithAWayOut) {
  const std::pair<const char*, const char*> rows[] = {
      {"git -C r update-index --split-index", "a split index"},
      {"git -C r sparse-checkout set --cone --sparse-index a", "a sparse index"},
      {"head -c -20 r/.git/index > i; head -c 20 /dev/zero >> i; mv i r/.git/index", "has no checksum"}};
  for (const auto& [script, name] : rows) {
    repository.run("rm -rf r; mkdir -p r/a r/b; git init -q r; echo > r/a/x.c; echo > r/b/y.c; commit r");
    repository.run(script);
    std::string message;
    try {
      indexer().refresh();
    } catch (const utils::Error& error) {
      message = error.what();
    }
    EXPECT_THAT(message, HasSubstr(name));
    const std::size_t begin = message.find('`') + 1;
    ASSERT_NE(begin, 0U);
    repository.run("cd r; " + message.substr(begin, message.find('`', begin) - begin));
    EXPECT_NE(indexer().refresh()->find("a/x.c"), nullptr) << message;
  }
}

TEST_F(IndexerTest, ReadsFilesOnceAndKeepsWhatTheyHoldInRecords) {
  const std::string text = "import os\nx = 1\nlast";
  repository.write("r/a.py", text);
  for (const char* name : {"r/bad", "r/gone", "r/gone too"}) repository.write(name, std::string(1, '\0'));
  Indexer first = indexer();
  refresh(first);
  records.records["bad"] = "not JSON";
  records.records["gone"] = "{}";
  repository.run("rm r/gone*");
  Indexer second = indexer();
  EXPECT_EQ(refresh(second), 1U);
  EXPECT_THAT(records.written, ElementsAre("bad", "gone", "gone too"));
  expect_content("a.py", text);
  const SourceFile& file = *index->find("a.py");
  EXPECT_EQ(file.lines, 3);
  EXPECT_EQ(file.size, text.size());
  EXPECT_EQ(file.language, "Python");
  EXPECT_THAT(file.imports.all(), ElementsAre("os"));
  EXPECT_EQ(index->find("bad")->kind, FileKind::binary);
}

TEST_F(IndexerTest, ReadsAndWritesOnlyWhatChanged) {
  for (const char* name : {"r/a.c", "r/b.c", "r/c.c"}) repository.write(name, "1");
  Indexer of = indexer();
  records.fails = true;
  EXPECT_THROW(refresh(of), utils::Error);
  records.fails = false;
  EXPECT_EQ(refresh(of), 3U) << "what a failed update did not keep is not taken as kept";
  const auto before = index;
  EXPECT_EQ(refresh(of), 0U);
  EXPECT_EQ(index, before);
  repository.run("cd r; rm c.c; printf 2 > new; touch -r b.c new; mv new b.c");
  EXPECT_EQ(refresh(of), 1U) << "size and modification time are as they were";
  EXPECT_THAT(records.written, ElementsAre("b.c", "c.c"));
  expect_content("b.c", "2");
  EXPECT_EQ(index->files().at(0), before->files().at(0));
  EXPECT_EQ(index->files().size(), 2U);
}

TEST_F(IndexerTest, FindsTheFewChangedFilesAmongThousands) {
  repository.run(
      "cd r; for d in a b c; do mkdir $d; for i in $(seq 800); do : > $d/$i; done; done; ln -s a d");
  Indexer first = indexer();
  EXPECT_EQ(refresh(first), 2400U);
  EXPECT_EQ(index->files().size(), 2401U);
  repository.run("cd r; echo 1 > a/1; echo 2 > b/400; echo 3 > c/800; rm b/1; ln -sfn b d");
  EXPECT_EQ(refresh(first), 3U);
  EXPECT_THAT(records.written, ElementsAre("a/1", "b/1", "b/400", "c/800"));
  expect_content("c/800", "3\n");
  EXPECT_EQ(kinds().size(), 2400U);
  Indexer second = indexer();
  records.fails_to_load = true;
  EXPECT_THROW(refresh(second), utils::Error);
  records.fails_to_load = false;
  EXPECT_EQ(refresh(second), 0U);
  EXPECT_EQ(index->files().size(), 2400U);
}

TEST_F(IndexerTest, AYoungFileIsReadUntilItIsOld) {
  repository.write("r/a.c", "1");
  Indexer of = indexer();
  ahead_seconds = 0;
  refresh(of);
  std::ofstream(repository / "r/a.c") << "2";  // its times may still be the same
  refresh(of);
  expect_content("a.c", "2");
  ahead_seconds = 1;
  const auto before = index;
  EXPECT_EQ(refresh(of), 1U);
  ahead_seconds = 10;
  EXPECT_EQ(refresh(of), 1U);
  EXPECT_THAT(records.written, ElementsAre("a.c"));
  EXPECT_EQ(refresh(of), 0U);
  EXPECT_EQ(index, before);
}

TEST_F(IndexerTest, FilesMayChangeWhatTheyAre) {
  const std::pair<const char*, FileKind> rows[] = {{"echo x > a", FileKind::text},
                                                   {"rm a; ln -s b a", FileKind::symlink},
                                                   {"rm a; echo x > a", FileKind::text},
                                                   {"truncate -s 10485761 a", FileKind::large},
                                                   {"truncate -s 10485760 a", FileKind::binary},
                                                   {"chmod 0 a", FileKind::unreadable},
                                                   {"chmod 600 a; echo x > a", FileKind::text}};
  Indexer of = indexer();
  for (const auto& [script, kind] : rows) {
    if (kind == FileKind::unreadable && geteuid() == 0) continue;  // nothing is refused to root
    repository.run("cd r; " + std::string(script));
    refresh(of);
    EXPECT_EQ(index->find("a")->kind, kind) << script;
    const bool is_read = kind == FileKind::text || kind == FileKind::binary;
    EXPECT_NE(index->find("a")->sha256.empty(), is_read) << script;
  }
}

TEST_F(IndexerTest, RefreshesFromManyThreadsGiveOneIndex) {
  repository.run("cd r; for i in 1 2 3 4 5 6 7 8 9; do echo > $i; done");
  Indexer of = indexer();
  std::vector<std::shared_ptr<const SourceIndex>> seen(4);
  ossilar::testing::in_threads(seen.size(), [&](std::size_t i) { seen[i] = of.refresh(), of.skipped(); });
  EXPECT_THAT(seen, ::testing::Each(seen[0]));
  EXPECT_EQ(seen[0]->files().size(), 9U);
}

TEST_F(IndexerTest, ReadSourceReadsOnlyRegularTextFilesBelowTheRoot) {
  repository.run(
      R"(cd r; mkdir d .git; echo x > .git/config; printf 'caf\351\n' > d/ok; printf '\000' > binary
    ln -s ../o swapped; ln -s ../o/secret.c link; mkfifo pipe)");
  const auto root = repository / "r";
  EXPECT_EQ(read_source(root, "d/ok"), "caf\xef\xbf\xbd\n");
  for (const auto path : utils::split_words("swapped/secret.c link pipe binary d gone d//ok ./d/ok /d/ok "
                                            "../o/secret.c d/ok/x d/../d/ok .git/config")) {
    EXPECT_EQ(read_source(root, std::string(path)), std::nullopt) << path;
  }
  EXPECT_EQ(read_source(root, ""), std::nullopt);
  EXPECT_EQ(read_source(root, std::string("d/ok\0", 5)), std::nullopt);
}

// A change to a tree, and whether it requires another scan.
struct Change {
  const char* what;
  const char* script;
  bool concerns = true;
};

void PrintTo(const Change& change, std::ostream* out) { *out << change.what; }

const std::vector<Change> kChanges{
    {"a text is written", "echo 'int more();' > src/a.cc"},
    {"a text grows", "echo 'int more();' >> src/a.cc"},
    {"a text is cut", ": > src/a.cc"},
    {"another file takes the place", "echo x > new; mv new src/a.cc"},
    {"a file goes", "rm src/a.cc"},
    {"a file may be read no more", "chmod 0 src/a.cc"},
    {"a folder is moved away", "mv src elsewhere"},
    {"a folder is moved away and changed there",
     "mv src elsewhere; mv elsewhere src; echo 1 >> src/deep/b.cc"},
    {"a folder is moved away and its copy takes the place", "mv src elsewhere; cp -r elsewhere src"},
    {"a link takes a folder's place", "mv src elsewhere; ln -s elsewhere src"},
    {"the root may be entered no more, and again", "chmod 0 .; chmod 700 ."},
    {"a folder comes back as another", "rm -r src/deep; mkdir src/deep; echo 'int c();' > src/deep/b.cc"},
    {"what is left out changes", "echo 1 > wiki/page.md", false},
};

const std::vector<Change> kChangesOfFolders{
    {"a file comes", "echo 'int c();' > src/c.cc"},
    {"a file comes in a new folder", "mkdir -p x/y; echo 'int c();' > x/y/c.cc"},
    {"git comes", "git init -q; git add src"},
};

const std::vector<Change> kChangesInGit{
    {"a file comes that git does not know", "echo 1 > src/c.cc; mkdir x; echo 1 > x/d.o", false},
    {"a file is added", "echo 'int c();' > src/c.cc; git add src/c.cc"},
    {"a file is removed from git", "git rm -q --cached src/a.cc"},
    {"a commit is taken back", "git rm -qr src; git commit -qm n; git reset -q --hard HEAD~1"},
    {"git goes", "rm -r .git"},
    {"a text is written after more than the system tells", "cd src; seq 9000 | xargs touch; echo 1 > a.cc"},
};

// The kind of tree that is changed.
enum class In { folder, git, linked };

class WatchedIndexerTest : public ::testing::TestWithParam<std::tuple<In, Change>> {
 protected:
  // Runs in the root of the tree.
  void run(const std::string& script) const { repo.run("cd tree; " + script); }
  std::filesystem::path root() const { return repo / "tree"; }

  void SetUp() override {
    const In in = std::get<0>(GetParam());
    repo.run(in == In::linked ? "git init -q main; commit main; git -C main worktree add -qb b ../tree"
                              : "mkdir tree");
    run("mkdir -p src/deep wiki; echo 'int a();' > src/a.cc; echo 'int b();' > src/deep/b.cc; echo t > t.md");
    if (in != In::folder) run("test -e .git || git init -q; git add -A; git commit -qm m");
  }

  void expect_what_is_there(const SourceIndex& index) const {
    const auto there = Indexer({.root = root(), .excluded = {"wiki"}, .symbols = false}).refresh();
    ASSERT_EQ(index.files().size(), there->files().size());
    for (std::size_t i = 0; i < there->files().size(); ++i) {
      const SourceFile& file = *there->files()[i];
      EXPECT_EQ(index.files()[i]->path, file.path);
      EXPECT_EQ(index.files()[i]->kind, file.kind) << file.path;
      EXPECT_EQ(index.files()[i]->sha256, file.sha256) << file.path;
    }
  }

  Repository repo;
};

// A second change follows, because a broken watch only shows at the next change.
TEST_P(WatchedIndexerTest, NoticesTheChange) {
  const Change& change = std::get<1>(GetParam());
  Indexer watched({.root = root(), .excluded = {"wiki"}, .symbols = false, .watch = true});
  const auto index = watched.refresh();
  EXPECT_EQ(watched.refresh(), index);
  EXPECT_EQ(watched.looks(), 1U);
  run(change.script);
  expect_what_is_there(*watched.refresh());
  EXPECT_EQ(watched.looks(), change.concerns ? 2U : 1U);
  run("mkdir -p src; test ! -d src || echo 'int again();' > src/a.cc");
  expect_what_is_there(*watched.refresh());
}

std::vector<std::tuple<In, Change>> changes_of_trees() {
  std::vector<std::tuple<In, Change>> all;
  for (const In in : {In::folder, In::git, In::linked})
    for (const Change& change : kChanges) all.emplace_back(in, change);
  for (const Change& change : kChangesOfFolders) all.emplace_back(In::folder, change);
  for (const In in : {In::git, In::linked})
    for (const Change& change : kChangesInGit) all.emplace_back(in, change);
  return all;
}

INSTANTIATE_TEST_SUITE_P(Changes, WatchedIndexerTest, ::testing::ValuesIn(changes_of_trees()));

TEST_F(IndexerTest, AWatchedTreeIsScannedAgainAfterAQuietMinute) {
  const Repository repo;
  repo.run("echo a > a.txt");
  std::int64_t now = 1'000'000'000'000;
  Indexer watched(
      {.root = repo.path(), .excluded = {}, .symbols = false, .clock = [&] { return now; }, .watch = true});
  watched.refresh();
  now += 59'000'000'000;
  watched.refresh();
  EXPECT_EQ(watched.looks(), 1);
  now += 1'000'000'000;
  watched.refresh();
  EXPECT_EQ(watched.looks(), 2);
}

// A tracked folder is replaced by a link to a folder that is watched.
TEST_F(IndexerTest, NoticesAChangeInAWatchedFolderThatALinkLeadsTo) {
  const Repository repo;
  repo.run(
      R"(mkdir -p lib/x old/x out/sys; for file in lib/x/a.c old/x/b.c out/sys/c.c; do echo 1 > $file; done
    git init -q; commit .; rm -r old out; ln -s lib old; ln -s /proc out)");
  Indexer watched({.root = repo.path(), .excluded = {}, .symbols = false, .watch = true});
  watched.refresh();
  watched.refresh();
  EXPECT_EQ(watched.looks(), 1U) << "what cannot be watched is behind a link, not in the tree";
  repo.run("echo 2 > lib/x/a.c");
  index = watched.refresh();
  expect_content("lib/x/a.c", "2\n");
}

TEST_F(IndexerTest, ScansEveryTimeWhereNothingCanBeWatched) {
  Indexer watched({.root = "/proc/sys/fs/inotify", .excluded = {}, .symbols = false, .watch = true});
  index = watched.refresh();
  EXPECT_FALSE(index->files().empty());
  watched.refresh();
  EXPECT_EQ(watched.looks(), 2U);
}

// inotify reports nothing about the folders above a watched one.
TEST_F(IndexerTest, NoticesThatTheFolderAboveTheRootIsReplaced) {
  const Repository repo;
  repo.run("mkdir -p a/r new/r; echo 1 > a/r/file; echo 2 > new/r/file");
  Indexer watched({.root = repo / "a/r", .excluded = {}, .symbols = false, .watch = true});
  watched.refresh();
  repo.run("mv a old; mv new a");
  index = watched.refresh();
  expect_content("file", "2\n");
  repo.run("rm -r a");
  EXPECT_THROW(watched.refresh(), utils::Error);
  repo.run("mv old a");
  index = watched.refresh();
  expect_content("file", "1\n");
}

// Two that are written within one tick of the file system's clock may have the same stamp.
TEST_F(IndexerTest, NoticesAGitIndexWithTheStampOfTheOneBefore) {
  const Repository repo;
  repo.run(R"(git init -q; echo > a; echo > b; git add a; cp .git/index with_a
    git rm -q --cached a; git add b; cp .git/index with_b
    cat with_a > .git/index; touch -r with_a .git/index)");
  Indexer watched({.root = repo.path(), .excluded = {}, .symbols = false, .watch = true});
  const auto stamp = utils::stamp_of(repo / ".git/index");
  index = watched.refresh();
  EXPECT_NE(index->find("a"), nullptr);
  repo.run("cat with_b > .git/index; touch -r with_a .git/index");
  ASSERT_EQ(utils::stamp_of(repo / ".git/index"), stamp);
  index = watched.refresh();
  EXPECT_NE(index->find("b"), nullptr);
}

TEST_F(IndexerTest, AFailedScanIsRepeated) {
  repository.write("r/a.c", "1");
  Indexer watched(
      {.root = repository / "r", .excluded = {}, .records = &records, .symbols = false, .watch = true});
  watched.refresh();
  repository.write("r/a.c", "2");
  records.fails = true;
  EXPECT_THROW(watched.refresh(), utils::Error);
  records.fails = false;
  index = watched.refresh();
  expect_content("a.c", "2");
}

TEST(Listing, FailsAsAWholeWhenTheProcessIsOutOfDescriptors) {
  if (kHasUbsan)
    GTEST_SKIP() << "UBSan opens a descriptor to look at an object, and without one reports it as broken";
  const ossilar::testing::TempDir dir;
  std::string deep;
  for (int i = 0; i < 40; ++i) deep += "d/";
  dir.write(deep + "a.cc", "int a;\n");
  Indexer indexer({.root = dir.path(), .excluded = {}, .symbols = false});
  rlimit former{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &former), 0);
  // Enough to begin with and too few for the way down.
  const rlimit few{static_cast<rlim_t>(dup(0)) + 8, former.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  EXPECT_THROW(indexer.refresh(), utils::Error);
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &former), 0);
  EXPECT_EQ(indexer.refresh()->files().size(), 1U);
}

}  // namespace
}  // namespace ossilar::source
