// Input and both outputs are served by one poll(2) loop. Writing all the input first and reading afterwards
// stops for ever once the child waits for room in its output pipe and we for room in its input.
//
// posix_spawn(3) and not fork(): other threads of a server may hold locks that a forked child would need. Our
// ends of the child's pipes are closed after the start, or reading would never find an end.

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

// More than anybody reads in a message, and a bound for a child that complains without end.
constexpr std::size_t kMaxErrors = std::size_t{64} * 1024;
constexpr std::size_t kStep = std::size_t{64} * 1024;  // as much as a pipe holds on Linux by default

struct Pipe {
  UniqueFd read;
  UniqueFd write;
};

Pipe make_pipe() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) throw IoError("cannot create a pipe", errno);
  return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

// What the child does with its descriptors before the program starts.
class FileActions {
 public:
  FileActions() { posix_spawn_file_actions_init(&actions_); }
  ~FileActions() { posix_spawn_file_actions_destroy(&actions_); }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;
  void duplicate(const UniqueFd& from, int to) {
    posix_spawn_file_actions_adddup2(&actions_, from.get(), to);
  }
  // Our pipes have O_CLOEXEC, but libraries open files without it.
  void close_others() { posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1); }
  const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
};

// The const_cast is safe: posix_spawnp() does not write to the arguments, whatever its type says.
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

// 128 plus the signal is how a shell reports a child that was killed.
int wait_for(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) throw IoError("cannot wait for a child process", errno);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Sends as much of `input` as the pipe takes. Closes the pipe when all is sent, or when the child has closed
// its end: what it did not want to read is dropped.
void feed(UniqueFd& to, std::string_view& input) {
  const ssize_t sent = write(to.get(), input.data(), input.size());
  if (sent > 0) input.remove_prefix(static_cast<std::size_t>(sent));
  const bool gone = sent < 0 && errno != EINTR && errno != EAGAIN;
  if (input.empty() || gone) to = UniqueFd();
}

// Takes what the pipe holds; closes it at its end. What exceeds `limit` is read and dropped, as a full pipe
// would stop the child.
void drain(UniqueFd& from, std::string& into, std::size_t limit) {
  std::array<char, kStep> buffer{};
  const ssize_t got = read(from.get(), buffer.data(), buffer.size());
  if (got > 0) into.append(buffer.data(), std::min(static_cast<std::size_t>(got), limit - into.size()));
  if (got == 0 || (got < 0 && errno != EINTR && errno != EAGAIN)) from = UniqueFd();
}

// Makes a write to a child that is gone fail with EPIPE instead of ending this process. The signal is blocked
// for this thread only: ignoring it would change the whole process, and the children that it starts. A signal
// that came meanwhile is taken off before it is unblocked, as it would be delivered then.
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

// poll(2) skips descriptors of -1, so an end that is closed takes no part. Only our writing end must not
// block: poll() promises room for some bytes, and write() would wait for room for all.
void exchange(UniqueFd to, UniqueFd from, UniqueFd errors, std::string_view input, ProcessResult& result) {
  fcntl(to.get(), F_SETFL, O_NONBLOCK);
  if (input.empty()) to = UniqueFd();
  while (to || from || errors) {
    std::array<pollfd, 3> waits{{{to.get(), POLLOUT, 0}, {from.get(), POLLIN, 0}, {errors.get(), POLLIN, 0}}};
    if (poll(waits.data(), waits.size(), -1) < 0 && errno != EINTR)
      throw IoError("cannot poll the pipes of a child process", errno);
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
    // Not before the start: a child inherits the signals that are blocked.
    const IgnorePipeSignal guard;
    exchange(std::move(in.write), std::move(out.read), std::move(errors.read), input, result);
  }
  // Last: a child that cannot write to a full pipe does not end.
  result.exit_code = wait_for(child);
  return result;
}

}  // namespace ossilar::utils
