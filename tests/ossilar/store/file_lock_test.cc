// What the lock on a file has beside the contract of every lock (contract/lock_test.cc).
#include "ossilar/store/file_lock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>

#include "support/busy_message.h"
#include "support/temp_dir.h"

namespace ossilar::store {
namespace {

using testing::busy_message;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

class FileLockTest : public ::testing::Test {
 protected:
  FileLock::Options options(std::chrono::milliseconds timeout) {
    return {.path = dir / "write.lock", .timeout = timeout, .holder = "ossilar save"};
  }

  testing::TempDir dir;
  FileLock lock{options(std::chrono::hours(24 * 365 * 1000))};
  FileLock other{options(std::chrono::milliseconds(0))};
};

TEST_F(FileLockTest, BusyNamesTheHolderAndTheWait) {
  const std::string by = "the wiki is being written by ";
  lock.acquire(false);
  EXPECT_THAT(dir.read("write.lock"),
              MatchesRegex("pid [0-9]+ on [^ ,]+, ossilar save, since 2[0-9-]+T[0-9:]+Z\n"));
  EXPECT_EQ(busy_message(lock, false), by + "another save of this process; waited 0.0 s; try again");
  EXPECT_EQ(busy_message(other, true), by + "another save of this process; waited 0.0 s; try again");
  dir.write("write.lock", "pid 12 on host, ossilar save, since 2026\x1b\nold line");
  EXPECT_THAT(busy_message(other, true),
              StartsWith(by + "process 12 on host (ossilar save, since 2026<1B>);"));
  for (const char* unknown : {"pid 123, x on y", ""}) {
    dir.write("write.lock", unknown);
    EXPECT_EQ(busy_message(other, true), by + "another process; waited 0.0 s; try again") << unknown;
  }
  lock.release();
  EXPECT_EQ(busy_message(other, true), "");
}

// A zombie: it has ended, and its parent has not waited for it yet.
TEST_F(FileLockTest, AProcessThatHasEndedIsNotNamed) {
  lock.acquire(false);
  const std::string line = dir.read("write.lock");
  const pid_t ended = fork();
  if (ended == 0) _exit(0);
  siginfo_t info{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(ended), &info, WEXITED | WNOWAIT), 0);
  dir.write("write.lock", "pid " + std::to_string(ended) + line.substr(line.find(" on ")));
  EXPECT_THAT(busy_message(other, true), HasSubstr("by another process;"));
  ASSERT_EQ(waitpid(ended, nullptr, 0), ended);
}

// The child is forked while the lock is held and so inherits the holder's descriptor; a release must free the
// lock all the same.
TEST_F(FileLockTest, IsFreeWhenItsHolderReleasesOrIsKilled) {
  std::array<int, 2> pipe_ends{};
  ASSERT_EQ(pipe(pipe_ends.data()), 0);
  lock.acquire(true);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    FileLock childs(options(std::chrono::seconds(30)));
    childs.acquire(true);
    if (write(pipe_ends[1], "x", 1) != 1) _exit(1);
    for (;;) pause();
  }
  close(pipe_ends[1]);  // so that a child that ends is no wait for ever
  lock.release();
  char held = 0;
  ASSERT_EQ(read(pipe_ends[0], &held, 1), 1);
  EXPECT_THAT(busy_message(other, true),
              StartsWith("the wiki is being written by process " + std::to_string(child)));
  kill(child, SIGKILL);
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  EXPECT_EQ(busy_message(other, false), "");
  close(pipe_ends[0]);
}

TEST_F(FileLockTest, AFailedOpenLeavesTheLockUsable) {
  std::filesystem::create_symlink(dir / "elsewhere", dir / "write.lock");
  EXPECT_THROW(lock.acquire(true), utils::IoError);
  EXPECT_FALSE(std::filesystem::exists(dir / "elsewhere"));
  std::filesystem::remove(dir / "write.lock");
  lock.acquire(true);
  lock.release();
  EXPECT_THROW(lock.release(), utils::IoError);
}

}  // namespace
}  // namespace ossilar::store
