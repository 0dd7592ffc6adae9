#include "ossilar/store/write_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <ctime>
#include <fstream>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "ossilar/utils/text.h"

namespace ossilar::store {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

struct WriteLock::Attempt {
  Clock::time_point began = Clock::now();
  Clock::time_point deadline;
};

namespace {

constexpr milliseconds kLongestTimeout = std::chrono::hours(24 * 365);  // its sum with any time is a time
constexpr milliseconds kFirstPause(1);
constexpr milliseconds kLongestPause(25);
constexpr milliseconds kCancelLook(50);  // between looks whether the work that waits was cancelled
constexpr std::size_t kLongestLine = 512;
constexpr mode_t kFileMode = 0666;  // the umask takes away what the user wants taken away

// Pauses between looks at the file: short at first, as most holders are done in milliseconds, and of random
// length, so that several who wait do not look in step.
class Pauses {
 public:
  milliseconds next() {
    const milliseconds pause(std::uniform_int_distribution<milliseconds::rep>(1, longest_.count())(engine_));
    longest_ = std::min(longest_ * 2, kLongestPause);
    return pause;
  }

 private:
  std::minstd_rand engine_{std::random_device{}()};
  milliseconds longest_ = kFirstPause;
};

std::string host_name() {
  std::array<char, 256> name{};
  return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "unknown host";
}

std::string utc_now() {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  gmtime_r(&now, &parts);
  std::array<char, 32> text{};
  return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

// The line that names this process in the file; holder_in() reads it.
std::string holder_line(const std::string& holder) {
  return "pid " + std::to_string(getpid()) + " on " + host_name() + ", " + holder + ", since " + utc_now() +
         "\n";
}

// Best effort: a full disk makes no lock less held. The line is written before the rest of the former one
// goes, so one who reads meanwhile finds a whole first line.
void write_holder(int fd, const std::string& line) {
  const ssize_t written = pwrite(fd, line.data(), line.size(), 0);
  if (written >= 0 && ftruncate(fd, written) != 0) return;
}

// Whether the process has ended and its parent has not looked yet (proc(5), the third field of `stat`): it
// holds nothing any more. False where that cannot be told.
bool is_zombie(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string fields;
  std::getline(stat, fields);
  const std::size_t name_end = fields.rfind(") ");  // the name may hold anything
  return name_end != fields.npos && fields.compare(name_end + 2, 1, "Z") == 0;
}

// Whether the process is there, as far as this one can see.
bool is_alive(const std::string& process) {
  pid_t pid = 0;
  const auto [end, error] = std::from_chars(process.data(), process.data() + process.size(), pid);
  return error == std::errc() && (kill(pid, 0) == 0 || errno != ESRCH) && !is_zombie(pid);
}

// Who holds the lock by the file's first line, and what to do about it. The line is another program's text.
std::string holder_in(int fd) {
  std::array<char, kLongestLine> buffer{};
  const ssize_t size = pread(fd, buffer.data(), buffer.size(), 0);
  std::string_view line(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
  line = line.substr(0, line.find('\n'));
  const std::size_t on = line.find(" on ");
  const std::size_t comma = line.find(", ");
  if (!line.starts_with("pid ") || on == line.npos || comma == line.npos || comma < on)
    return "another process";
  const std::string process(line.substr(4, on - 4));
  const std::string host(line.substr(on + 4, comma - on - 4));
  if (host == host_name()) {
    if (process == std::to_string(getpid())) return "another save of this process";
    if (!is_alive(process)) return "another process";  // the line is of one that was killed before
  }
  return utils::printable("process " + process + " on " + host + " (" + std::string(line.substr(comma + 2)) +
                          ")");
}

LockBusy busy(const std::string& holder, Clock::duration waited) {
  const auto tenths = std::chrono::duration_cast<milliseconds>(waited).count() / 100;
  return LockBusy("the wiki is being written by " + holder + "; waited " + std::to_string(tenths / 10) + "." +
                  std::to_string(tenths % 10) + " s; try again" +
                  (holder.starts_with("process ") ? ", or end that process" : ""));
}

int flock_uninterrupted(int fd, int operation) {
  int result = flock(fd, operation);
  while (result != 0 && errno == EINTR) result = flock(fd, operation);
  return result;
}

// Whether the open file is the one that others find there: the lock of one that somebody removed or moved
// keeps nobody out.
bool is_at(int fd, const std::filesystem::path& path) {
  struct stat opened {};
  struct stat named {};
  return fstat(fd, &opened) == 0 && lstat(path.c_str(), &named) == 0 && opened.st_dev == named.st_dev &&
         opened.st_ino == named.st_ino;
}

}  // namespace

WriteLock::WriteLock(Options options) : options_(std::move(options)) {}

void WriteLock::acquire(bool wait, const utils::Task& task) {
  Attempt attempt;
  attempt.deadline = attempt.began + (wait ? std::min(options_.timeout, kLongestTimeout) : milliseconds(0));
  enter(attempt, task);
  try {
    files_ = lock_files(attempt, task);
    write_holder(files_.file.get(), holder_line(options_.holder));
  } catch (...) {
    files_ = Files();
    leave();
    throw;
  }
}

// The unlock is explicit: closing would leave the lock with a child process that was forked just now and has
// not yet closed its copy of the descriptor.
void WriteLock::release() {
  const Files files = std::move(files_);
  write_holder(files.file.get(), "");
  flock_uninterrupted(files.folder.get(), LOCK_UN);
  const int result = flock_uninterrupted(files.file.get(), LOCK_UN);
  const int error = errno;
  leave();
  if (result != 0) throw utils::IoError("cannot unlock " + options_.path.string(), error);
}

void WriteLock::enter(const Attempt& attempt, const utils::Task& task) {
  std::unique_lock lock(mutex_);
  for (Clock::time_point now = Clock::now();; now = Clock::now()) {
    const Clock::time_point until = std::min(attempt.deadline, now + kCancelLook);
    if (left_.wait_until(lock, until, [this] { return !entered_; })) break;
    if (now >= attempt.deadline) throw busy("another save of this process", now - attempt.began);
    task.check();
  }
  entered_ = true;
}

void WriteLock::leave() {
  {
    const std::lock_guard lock(mutex_);
    entered_ = false;
  }
  left_.notify_one();
}

WriteLock::Files WriteLock::open_files(const std::filesystem::path& path) {
  Files files;
  files.folder = utils::open_directory(path.parent_path());
  files.file = utils::UniqueFd(openat(files.folder.get(), path.filename().c_str(),
                                      O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, kFileMode));
  if (!files.file) throw utils::IoError("cannot open the lock file " + path.string(), errno);
  return files;
}

// False when another holds the lock, or when the file was moved away before it was locked.
bool WriteLock::try_lock(const Files& files) const {
  if (flock_uninterrupted(files.file.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) return false;
    throw utils::IoError("cannot lock " + options_.path.string(), errno);
  }
  if (!is_at(files.file.get(), options_.path)) return false;
  if (!options_.guards_folder) return true;
  // A network file system may be unable to lock a folder.
  return flock_uninterrupted(files.folder.get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

WriteLock::Files WriteLock::lock_files(const Attempt& attempt, const utils::Task& task) const {
  std::optional<Pauses>
      pauses;  // made when it has to wait: its random numbers are the system's to begin with
  for (;;) {
    task.check();
    Files files = open_files(options_.path);
    if (try_lock(files)) return files;
    const Clock::time_point now = Clock::now();
    if (now >= attempt.deadline) throw busy(holder_in(files.file.get()), now - attempt.began);
    if (!pauses) pauses.emplace();
    std::this_thread::sleep_for(std::min<Clock::duration>(pauses->next(), attempt.deadline - now));
  }
}

}  // namespace ossilar::store
