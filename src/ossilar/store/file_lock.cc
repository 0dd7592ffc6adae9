// Two gates: threads that share one object queue at a flag, and the one that has entered competes for the
// file with other objects and processes. With flock(2) alone each thread would poll, and `files_` would need
// a lock of its own.
//
// The file is polled, as a flock() that blocks can be neither timed out nor cancelled without signals. It is
// opened anew for each try: somebody may have removed or moved it, and only a lock on the file at the path
// keeps others out.
//
// A lock file that its holder creates and removes would stay behind after a kill, and nobody could tell
// whether its holder lives. fcntl(2) locks go as soon as the process closes any descriptor of the file.
#include "ossilar/store/file_lock.h"

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

using Clock = LockAttempt::Clock;
using std::chrono::milliseconds;

namespace {

// A commit holds the lock for milliseconds, so the first look comes soon. The longest pause trades CPU time
// of waiting processes against the time for which a released lock goes unnoticed.
constexpr milliseconds kFirstPause(1);
constexpr milliseconds kLongestPause(25);
constexpr std::size_t kLongestLine = 512;  // ours hold a host name, a writer and a time, and are far shorter
constexpr mode_t kFileMode = 0666;         // less the umask, which says whether other users may write here

// The pauses between tries: short at first, as most holders are done in milliseconds, and of random length,
// so that several waiting processes do not try in step.
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

// The line that names this process in the file; holder_in() parses it. It must end with a line feed:
// write_holder() writes over a longer former line, and the rest of that one follows until the file is cut.
std::string holder_line(const std::string& holder) {
  return "pid " + std::to_string(getpid()) + " on " + host_name() + ", " + holder + ", since " +
         utils::iso_time(std::time(nullptr)) + "\n";
}

// Best effort, so failures are ignored: the line is only for messages, and the lock is held on a full disk
// too. The new line is written over the former one before the file is cut to its length. In the other order,
// a process that reads in between would find an empty file.
void write_holder(int fd, const std::string& line) {
  const ssize_t written = pwrite(fd, line.data(), line.size(), 0);
  if (written >= 0 && ftruncate(fd, written) != 0) return;
}

// Whether the process has ended and its parent has not waited for it yet (proc(5), the third field of
// `stat`). It holds no lock any more, but kill() still finds it. False where there is no /proc to ask.
bool is_zombie(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string fields;
  std::getline(stat, fields);
  // The last ") ", as the name in front of it may contain one itself.
  const std::size_t name_end = fields.rfind(") ");
  return name_end != fields.npos && fields.compare(name_end + 2, 1, "Z") == 0;
}

// Whether the process exists, as far as this one can see. Any error but ESRCH means that it does: a process
// of another user gives EPERM.
bool is_alive(const std::string& process) {
  pid_t pid = 0;
  const auto [end, error] = std::from_chars(process.data(), process.data() + process.size(), pid);
  return error == std::errc() && (kill(pid, 0) == 0 || errno != ESRCH) && !is_zombie(pid);
}

// The holder as the first line of the file names it, for a message. The line may be that of a process that
// was killed before, or of any other program, so it is parsed with care, printed with escapes, and only
// believed for a process of this machine that is alive. Of other machines nothing can be checked.
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
    // The line was left by a process that was killed; the present holder has not written its own yet.
    if (!is_alive(process)) return "another process";
  }
  return utils::printable("process " + process + " on " + host + " (" + std::string(line.substr(comma + 2)) +
                          ")");
}

// A signal handler may interrupt flock(), which then has done nothing.
int flock_uninterrupted(int fd, int operation) {
  int result = flock(fd, operation);
  while (result != 0 && errno == EINTR) result = flock(fd, operation);
  return result;
}

// Whether the open file is still the one at `path`. If somebody removed or moved it, others lock another
// file, and this lock keeps nobody out.
bool is_at(int fd, const std::filesystem::path& path) {
  struct stat opened {};
  struct stat named {};
  return fstat(fd, &opened) == 0 && lstat(path.c_str(), &named) == 0 && opened.st_dev == named.st_dev &&
         opened.st_ino == named.st_ino;
}

}  // namespace

FileLock::FileLock(Options options) : options_(std::move(options)) {}

// First the gate of this object, then the file. catch (...), as utils::Cancelled is not a std::exception. The
// files are closed before leave(), so that the next thread finds the file free.
void FileLock::acquire(bool wait, const utils::Task& task) {
  const LockAttempt attempt(wait ? options_.timeout : milliseconds(0));
  gate_.enter(attempt, task);
  try {
    files_ = lock_files(attempt, task);
    write_holder(files_.file.get(), holder_line(options_.holder));
  } catch (...) {
    files_ = Files();
    gate_.leave();
    throw;
  }
}

// The holder's line is removed while the lock is still held; later it could be the line of the next holder.
// The folder is unlocked before the file: a process that gets the file and finds the folder locked has to
// pause and try again.
//
// Files are unlocked explicitly: if they were only closed, a child process that was just forked and has not
// yet closed its copy of the descriptor would keep the lock. They are closed at the end of the scope, after
// leave(); by then they are unlocked, and the next thread opens files of its own.
void FileLock::release() {
  const Files files = std::move(files_);
  write_holder(files.file.get(), "");
  flock_uninterrupted(files.folder.get(), LOCK_UN);
  const int result = flock_uninterrupted(files.file.get(), LOCK_UN);
  const int error = errno;
  gate_.leave();
  if (result != 0) throw utils::IoError("cannot unlock " + options_.path.string(), error);
}

// O_NOFOLLOW: a link at the path must not make us create or lock a file elsewhere. O_NONBLOCK: whatever
// somebody put there, such as a pipe, opening it must not block.
FileLock::Files FileLock::open_files(const std::filesystem::path& path) {
  Files files;
  files.folder = utils::open_directory(path.parent_path());
  files.file = utils::UniqueFd(openat(files.folder.get(), path.filename().c_str(),
                                      O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, kFileMode));
  if (!files.file) throw utils::IoError("cannot open the lock file " + path.string(), errno);
  return files;
}

// False when another holds the lock, or when the file was moved away between its opening and its locking. The
// order is always file, then folder, and neither lock waits, so two processes cannot block each other. The
// caller drops the files on false, and with them a lock that was taken.
bool FileLock::try_lock(const Files& files) const {
  if (flock_uninterrupted(files.file.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) return false;
    throw utils::IoError("cannot lock " + options_.path.string(), errno);
  }
  if (!is_at(files.file.get(), options_.path)) return false;
  if (!options_.guards_folder) return true;
  // Any other error passes as success: a network file system may be unable to lock a folder, and the lock on
  // the file still holds.
  return flock_uninterrupted(files.folder.get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

FileLock::Files FileLock::lock_files(const LockAttempt& attempt, const utils::Task& task) const {
  std::optional<Pauses> pauses;  // made only to wait: its seed takes a call to the system
  for (;;) {
    task.check();
    Files files = open_files(options_.path);
    if (try_lock(files)) return files;
    const Clock::time_point now = Clock::now();
    if (now >= attempt.deadline) throw lock_busy(holder_in(files.file.get()), now - attempt.began);
    if (!pauses) pauses.emplace();
    // Not beyond the deadline, at which there is a last try.
    std::this_thread::sleep_for(std::min<Clock::duration>(pauses->next(), attempt.deadline - now));
  }
}

}  // namespace ossilar::store
