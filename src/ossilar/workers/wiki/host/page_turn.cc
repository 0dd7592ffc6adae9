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

// A commit takes a few milliseconds, a draft as long or, with an embedding service, seconds.
constexpr milliseconds::rep kLongestPause = 20;

// 60 bits of the hash, so that an offset stays positive and no two pages are likely to meet.
off_t place_of(const std::string& page_id) {
  constexpr std::size_t kDigits = 15;
  const std::string digits = utils::sha256_hex(page_id).substr(0, kDigits);
  std::uint64_t place = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), place, 16);
  return static_cast<off_t>(place);
}

// A lock of the open file, not of the process: it keeps out other threads too, and goes with the descriptor.
bool try_lock(int file, off_t place) {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = place;
  lock.l_len = 1;
  return fcntl(file, F_OFD_SETLK, &lock) == 0;
}

}  // namespace

PageTurn::PageTurn(const std::filesystem::path& file, const std::string& page_id, milliseconds patience,
                   const utils::Task& task)
    : file_(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0666)) {
  const off_t place = place_of(page_id);
  const auto deadline = std::chrono::steady_clock::now() + patience;
  std::minstd_rand random{std::random_device{}()};
  std::uniform_int_distribution<milliseconds::rep> pause(1, kLongestPause);
  while (file_ && !try_lock(file_.get(), place)) {
    const bool is_taken = errno == EAGAIN || errno == EACCES || errno == EINTR;
    task.check();
    if (!is_taken || std::chrono::steady_clock::now() >= deadline) return;
    std::this_thread::sleep_for(milliseconds(pause(random)));
  }
}

}  // namespace ossilar::workers::wiki
