#include "ossilar/utils/files.h"
#include "ossilar/utils/atomic_file.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "ossilar/utils/error.h"
#include "support/file_size_limit.h"
#include "support/temp_dir.h"

namespace ossilar::utils {
namespace {

namespace fs = std::filesystem;
using ::ossilar::testing::TempDir;
using ::testing::ElementsAre;

std::vector<std::string> everything_in(const TempDir& dir) {
  std::vector<std::string> names;
  for (const auto& entry : fs::recursive_directory_iterator(dir.path())) {
    names.push_back(entry.path().lexically_relative(dir.path()).string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// What `act` throws: the errno of an IoError, and the message.
template <class Act>
std::pair<int, std::string> failure_of(Act act) {
  try {
    act();
  } catch (const IoError& error) {
    return {error.error(), error.what()};
  } catch (const Error& error) {
    return {0, error.what()};
  }
  return {};
}

TEST(AtomicWrite, MakesDirectoriesReplacesWholeAndKeepsTheMode) {
  const TempDir dir;
  const std::string large(1'000'000, 'x');
  atomic_write(dir / "a/b/page.md", "old");
  fs::permissions(dir / "a/b/page.md", fs::perms(0640));
  fs::create_hard_link(dir / "a/b/page.md", dir / "witness");
  atomic_write(dir / "a/b/page.md", large);
  EXPECT_EQ(dir.read("a/b/page.md"), large);
  EXPECT_EQ(fs::status(dir / "a/b/page.md").permissions(), fs::perms(0640));
  EXPECT_EQ(dir.read("witness"), "old") << "the file was written in place";
  EXPECT_THAT(everything_in(dir), ElementsAre("a", "a/b", "a/b/page.md", "witness"));
}

TEST(AtomicWrite, RefusesWhatIsNoRegularFileAndChangesNothing) {
  const TempDir dir;
  const TempDir outside;
  outside.write("target.md", "theirs");
  dir.write("file.md", "mine");
  dir.write("folder/inside.md", "mine");
  fs::create_symlink(outside / "target.md", dir / "link.md");
  fs::create_symlink(outside / "nowhere.md", dir / "dangling.md");
  fs::create_directory_symlink(outside.path(), dir / "linked");
  ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
  const auto before = everything_in(dir);
  struct Row {
    const char* why;
    std::string target;
    int error;
  };
  for (const Row& row : std::vector<Row>{{"a symbolic link in its place", "link.md", ELOOP},
                                         {"a link that leads nowhere", "dangling.md", ELOOP},
                                         {"a symbolic link on the way", "linked/new/page.md", ELOOP},
                                         {"a directory in its place", "folder", EISDIR},
                                         {"a pipe in its place", "pipe", EINVAL},
                                         {"a file on the way", "file.md/page.md", ENOTDIR},
                                         {"a name no file can have", std::string(300, 'n'), ENAMETOOLONG}}) {
    EXPECT_EQ(failure_of([&] { atomic_write(dir / row.target, "new"); }).first, row.error) << row.why;
    EXPECT_EQ(failure_of([&] { atomic_exchange(dir / row.target, "new"); }).first, row.error) << row.why;
    EXPECT_EQ(everything_in(dir), before) << row.why;
    EXPECT_EQ(dir.read("file.md") + dir.read("folder/inside.md"), "minemine") << row.why;
    EXPECT_THAT(everything_in(outside), ElementsAre("target.md")) << row.why;
    EXPECT_EQ(outside.read("target.md"), "theirs") << row.why;
  }
  EXPECT_THAT(failure_of([&] { open_directory(dir / "linked/x"); }).second,
              ::testing::HasSubstr((dir / "linked").string() + " is a symbolic link"));
  EXPECT_EQ(failure_of([&] { open_directory(dir / "none/deep"); }).first, ENOENT);
  EXPECT_FALSE(fs::exists(dir / "none"));
}

TEST(AtomicWrite, LeavesTheOldFileAndNothingElseWhenTheDiskIsFull) {
  const TempDir dir;
  dir.write("page.md", "old");
  {
    const testing::FileSizeLimit full_disk(4096);
    EXPECT_EQ(failure_of([&] { atomic_write(dir / "page.md", std::string(10'000, 'x')); }).first, EFBIG);
  }
  EXPECT_EQ(dir.read("page.md"), "old");
  EXPECT_THAT(everything_in(dir), ElementsAre("page.md"));
}

TEST(AtomicExchange, KeepsTheReplacedFileUnderItsFormerName) {
  const TempDir dir;
  const fs::path path = dir / "pages/a.md";
  const fs::path former = former_file(path);
  const FileStamp stamp = atomic_exchange(path, "first");
  EXPECT_EQ(stamp, stamp_of(path));
  EXPECT_FALSE(fs::exists(former)) << "there was nothing to replace";
  fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write);
  atomic_exchange(path, "second");
  EXPECT_EQ(dir.read("pages/a.md"), "second");
  EXPECT_EQ(utils::read_file_within(dir.path(), former), "first");
  EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(failure_of([&] { atomic_exchange(path, "third"); }).first, EEXIST);
  EXPECT_EQ(dir.read("pages/a.md"), "second");
  EXPECT_EQ(utils::read_file_within(dir.path(), former), "first") << "nobody has looked at it";
  EXPECT_EQ(everything_in(dir).size(), 3U) << "no temporary file is left";
  EXPECT_NE(former_file(dir / "pages/b.md"), former);
}

TEST(IsOpenForWriting, IsTrueOnlyWhileAWriterHasTheFileOpen) {
  const TempDir dir;
  dir.write("a", "text");
  const UniqueFd reader(open((dir / "a").c_str(), O_RDONLY | O_CLOEXEC));
  const UniqueFd other(open((dir / "a").c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_FALSE(is_open_for_writing(reader.get()));
  const UniqueFd writer(open((dir / "a").c_str(), O_WRONLY | O_CLOEXEC));
  EXPECT_TRUE(is_open_for_writing(reader.get()));
}

TEST(MoveFile, MovesTheFileItselfAndReplacesNone) {
  const TempDir dir;
  dir.write("a", "first");
  const UniqueFd writer(open((dir / "a").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
  EXPECT_TRUE(move_file(dir / "a", dir / "kept/a"));
  ASSERT_EQ(write(writer.get(), ", and more", 10), 10);
  EXPECT_EQ(dir.read("kept/a"), "first, and more");
  dir.write("a", "second");
  EXPECT_FALSE(move_file(dir / "a", dir / "kept/a"));
  EXPECT_EQ(dir.read("a"), "second");
}

TEST(IsRegularFile, IsFalseForPathsThatCannotNameOne) {
  const TempDir dir;
  dir.write("file", "x");
  fs::create_symlink("file", dir / "link");
  fs::create_symlink("loop", dir / "loop");
  fs::create_directory(dir / "folder");
  const std::pair<std::string, bool> rows[] = {{"file", true},        {"link", true},
                                               {"loop", false},       {"folder", false},
                                               {"file/below", false}, {std::string(300, 'x'), false}};
  for (const auto& [name, expected] : rows) EXPECT_EQ(utils::is_regular_file(dir / name), expected) << name;
}

TEST(ReadTextFile, RefusesWhatIsNotUtf8NamingByteAndLine) {
  const TempDir dir;
  dir.write("a.md", "\xEF\xBB\xBFone\r\ntwo\rthree");
  const auto read = [&](const char* name) { return read_text_file_within(dir.path(), dir / name); };
  EXPECT_EQ(read("a.md"), "one\ntwo\nthree");
  EXPECT_EQ(read_text_file_within(dir.path(), dir / "a.md", ByteOrderMark::kept),
            "\xEF\xBB\xBFone\ntwo\nthree");
  using Row = std::pair<const char*, const char*>;
  for (const auto& [text, message] : {Row("\xFF", "byte 0xFF at offset 0 (line 1)"),
                                      Row("one\ntwo\n\xC3(", "byte 0xC3 at offset 8 (line 3)"),
                                      Row("one\ntw\xED\xA0\x80", "byte 0xED at offset 6 (line 2)")}) {
    dir.write("bad.md", text);
    EXPECT_EQ(failure_of([&] { read("bad.md"); }).second,
              (dir / "bad.md").string() + " is not UTF-8: " + message);
  }
  EXPECT_EQ(failure_of([&] { read("none.md"); }).first, ENOENT);
}

TEST(ReadTextFileWithin, ReadsRegularFilesAndFollowsLinksThatStayInside) {
  const TempDir dir;
  dir.write("wiki/page.md", "p");
  dir.write("wiki2/page.md", "q");
  fs::create_symlink("page.md", dir / "wiki/inside.md");
  fs::create_symlink("../wiki2/page.md", dir / "wiki/sibling.md");
  fs::create_directory_symlink("../wiki2", dir / "wiki/folder");
  EXPECT_EQ(mkfifo((dir / "wiki/pipe.md").c_str(), 0600), 0);
  const auto read = [&](const char* name) {
    return failure_of([&] { read_text_file_within(dir / "wiki", dir / "wiki" / name); });
  };
  fs::create_symlink(dir / "wiki/page.md", dir / "wiki/absolute.md");
  fs::create_symlink(dir / "wiki2/page.md", dir / "wiki/away.md");
  for (const char* in : {"inside.md", "absolute.md"})
    EXPECT_EQ(read_text_file_within(dir / "wiki", dir / "wiki" / in), "p") << in;
  for (const char* out : {"sibling.md", "folder/page.md", "away.md"})
    EXPECT_THAT(read(out).second, ::testing::HasSubstr("leads out of")) << out;
  EXPECT_EQ(read("pipe.md").first, EINVAL);
  EXPECT_THAT(read("../wiki2/page.md").second, ::testing::HasSubstr("lies outside"));
}

}  // namespace
}  // namespace ossilar::utils
