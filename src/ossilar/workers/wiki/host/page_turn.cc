// Each page locks one byte of one file by fcntl(2). flock(2) locks whole files, so it would take a file for
// each page, which could never be removed safely, or a few files that pages share, where a save waits for
// another page. Bytes past the end of a file can be locked, so the file stays empty.
//
// The lock is polled: F_OFD_SETLKW waits without a limit and cannot be cancelled.
#include "ossilar/workers/wiki/host/page_turn.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <random>
#include <thread>

#include "ossilar/utils/hash.h"

namespace ossilar::workers::wiki {
namespace {

using std::chrono::milliseconds;

// Milliseconds between two tries. A save takes a few milliseconds, or seconds with an embedding service:
// longer pauses would waste the time of short saves, shorter ones poll in vain during long ones.
constexpr milliseconds::rep kLongestPause = 20;

// 60 bits of the hash: an off_t has 63 for a positive offset, and a hexadecimal digit is 4 bits. With so many
// places two pages practically never share one; if they do, their savers only wait for each other.
off_t place_of(const std::string& page_id) {
  constexpr std::size_t kDigits = 15;
  const std::string digits = utils::sha256_hex(page_id).substr(0, kDigits);
  std::uint64_t place = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), place, 16);
  return static_cast<off_t>(place);
}

// F_OFD_SETLK, as its lock belongs to the open file. A lock by F_SETLK belongs to the process: it would not
// keep out the other threads of a server, and closing any descriptor of the file would drop it.
bool try_lock(int file, off_t place) {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = place;
  lock.l_len = 1;
  return fcntl(file, F_OFD_SETLK, &lock) == 0;
}

}  // namespace

// O_NOFOLLOW and O_NONBLOCK: a symbolic link or a pipe that lies in the file's place is neither followed nor
// waited for. The umask takes from 0666 what the user wants taken away.
PageTurn::PageTurn(const std::filesystem::path& file, const std::string& page_id, milliseconds patience,
                   const utils::Task& task)
    : file_(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0666)) {
  const off_t place = place_of(page_id);
  const auto deadline = std::chrono::steady_clock::now() + patience;
  std::minstd_rand random{std::random_device{}()};
  // Of random length, so that several waiters do not try in step.
  std::uniform_int_distribution<milliseconds::rep> pause(1, kLongestPause);
  while (file_ && !try_lock(file_.get(), place)) {
    // Read before anything else can change errno. POSIX lets a taken lock be either EAGAIN or EACCES; what is
    // left, such as a file system without locks, will not get better by waiting.
    const bool is_taken = errno == EAGAIN || errno == EACCES || errno == EINTR;
    task.check();
    if (!is_taken || std::chrono::steady_clock::now() >= deadline) return;
    std::this_thread::sleep_for(milliseconds(pause(random)));
  }
}

}  // namespace ossilar::workers::wiki
