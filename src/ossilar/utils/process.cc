#include "ossilar/utils/process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>

#include "ossilar/utils/error.h"
#include "ossilar/utils/files.h"

extern char** environ;

namespace ossilar::utils {
namespace {

constexpr std::size_t kMaxErrors = std::size_t{64} * 1024;
constexpr std::size_t kStep = std::size_t{64} * 1024;

struct Pipe {
  UniqueFd read;
  UniqueFd write;
};

Pipe make_pipe() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) throw IoError("cannot make a pipe", errno);
  return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

class FileActions {
 public:
  FileActions() { posix_spawn_file_actions_init(&actions_); }
  ~FileActions() { posix_spawn_file_actions_destroy(&actions_); }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;
  void duplicate(const UniqueFd& from, int to) {
    posix_spawn_file_actions_adddup2(&actions_, from.get(), to);
  }
  void close_others() { posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1); }
  const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
};

pid_t start(const std::vector<std::string>& arguments, const FileActions& actions) {
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  pid_t child = 0;
  const int error = posix_spawnp(&child, argv[0], actions.get(), nullptr, argv.data(), environ);
  if (error != 0) throw IoError("cannot start " + arguments.front(), error);
  return child;
}

int wait_for(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) throw IoError("cannot wait for a child process", errno);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Sends what the pipe takes of `input`; closes the pipe when all is sent or the child reads no more.
void feed(UniqueFd& to, std::string_view& input) {
  const ssize_t sent = write(to.get(), input.data(), input.size());
  if (sent > 0) input.remove_prefix(static_cast<std::size_t>(sent));
  const bool gone = sent < 0 && errno != EINTR && errno != EAGAIN;
  if (input.empty() || gone) to = UniqueFd();
}

// Takes what the pipe holds; closes it at its end. What exceeds `limit` is read and dropped.
void drain(UniqueFd& from, std::string& into, std::size_t limit) {
  std::array<char, kStep> buffer{};
  const ssize_t got = read(from.get(), buffer.data(), buffer.size());
  if (got > 0) into.append(buffer.data(), std::min(static_cast<std::size_t>(got), limit - into.size()));
  if (got == 0 || (got < 0 && errno != EINTR && errno != EAGAIN)) from = UniqueFd();
}

// A write to a child that has gone must fail with EPIPE instead of ending this process.
class IgnorePipeSignal {
 public:
  IgnorePipeSignal() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &set, &before_);
  }
  ~IgnorePipeSignal() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    const timespec now{};
    while (sigismember(&before_, SIGPIPE) == 0 && sigtimedwait(&set, nullptr, &now) > 0) {
    }
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  IgnorePipeSignal(const IgnorePipeSignal&) = delete;
  IgnorePipeSignal& operator=(const IgnorePipeSignal&) = delete;

 private:
  sigset_t before_{};
};

void exchange(UniqueFd to, UniqueFd from, UniqueFd errors, std::string_view input, ProcessResult& result) {
  fcntl(to.get(), F_SETFL, O_NONBLOCK);
  if (input.empty()) to = UniqueFd();
  while (to || from || errors) {
    std::array<pollfd, 3> waits{{{to.get(), POLLOUT, 0}, {from.get(), POLLIN, 0}, {errors.get(), POLLIN, 0}}};
    if (poll(waits.data(), waits.size(), -1) < 0 && errno != EINTR)
      throw IoError("cannot poll a child", errno);
    if (waits[0].revents != 0) feed(to, input);
    if (waits[1].revents != 0) drain(from, result.output, std::string::npos);
    if (waits[2].revents != 0) drain(errors, result.errors, kMaxErrors);
  }
}

}  // namespace

ProcessResult run_process(const std::vector<std::string>& arguments, std::string_view input) {
  Pipe in = make_pipe();
  Pipe out = make_pipe();
  Pipe errors = make_pipe();
  FileActions actions;
  actions.duplicate(in.read, STDIN_FILENO);
  actions.duplicate(out.write, STDOUT_FILENO);
  actions.duplicate(errors.write, STDERR_FILENO);
  actions.close_others();
  const pid_t child = start(arguments, actions);
  in.read = UniqueFd();
  out.write = UniqueFd();
  errors.write = UniqueFd();
  ProcessResult result;
  {
    const IgnorePipeSignal guard;
    exchange(std::move(in.write), std::move(out.read), std::move(errors.read), input, result);
  }
  result.exit_code = wait_for(child);
  return result;
}

}  // namespace ossilar::utils
