#include "ossilar/mcp/protocol/transport.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>

#include "ossilar/utils/error.h"

namespace ossilar::mcp {
namespace {

constexpr std::size_t kKept = 4096;  // of either end of a line that is too long
constexpr std::size_t kBlock = std::size_t{64} * 1024;

ssize_t read_uninterrupted(int fd, char* into, std::size_t size) {
  ssize_t got = read(fd, into, size);
  while (got < 0 && errno == EINTR) got = read(fd, into, size);
  return got;
}

}  // namespace

std::variant<Line, LineTooLong, EndOfInput> LineReader::next() {
  for (;;) {
    const std::size_t feed = buffer_.find('\n', searched_);
    if (feed != buffer_.npos) return take(feed, feed + 1);
    searched_ = buffer_.size();
    if (buffer_.size() > kLongestLine) {
      if (!too_long_) beginning_ = buffer_.substr(0, kKept);
      too_long_ = true;
      buffer_.erase(0, buffer_.size() - kKept);
      searched_ = buffer_.size();
    }
    if (fill()) continue;
    if (buffer_.empty() && !too_long_) return EndOfInput{};
    return take(buffer_.size(), buffer_.size());
  }
}

// False when nobody reads the answers.
bool LineReader::wait_for_input() const {
  std::array<pollfd, 2> ends{pollfd{.fd = fd_, .events = POLLIN, .revents = 0},
                             pollfd{.fd = answers_fd_, .events = 0, .revents = 0}};
  while (poll(ends.data(), ends.size(), -1) < 0) {
    if (errno != EINTR) return true;  // reading will tell
  }
  return ends[0].revents != 0;
}

bool LineReader::fill() {
  if (ended_) return false;
  if (!wait_for_input()) return !(ended_ = true);
  const std::size_t before = buffer_.size();
  buffer_.resize(before + kBlock);
  const ssize_t got = read_uninterrupted(fd_, buffer_.data() + before, kBlock);
  buffer_.resize(before + static_cast<std::size_t>(got > 0 ? got : 0));
  ended_ = got <= 0;
  return !ended_;
}

std::variant<Line, LineTooLong, EndOfInput> LineReader::take(std::size_t size, std::size_t with_feed) {
  const bool too_long = too_long_ || size > kLongestLine;
  LineTooLong cut;
  if (too_long) {
    cut.beginning = too_long_ ? std::move(beginning_) : buffer_.substr(0, kKept);
    cut.end = buffer_.substr(size - std::min(size, kKept), std::min(size, kKept));
  }
  Line line{too_long ? std::string() : buffer_.substr(0, size)};
  buffer_.erase(0, with_feed);
  // What a long line left reserved is given back.
  if (buffer_.capacity() > 4 * kBlock) buffer_ = std::string(buffer_);
  searched_ = 0;
  too_long_ = false;
  if (too_long) return cut;
  if (!line.text.empty() && line.text.back() == '\r') line.text.pop_back();
  return line;
}

bool LineWriter::write(std::string_view text) {
  std::string line(text);
  line += '\n';
  const std::lock_guard lock(mutex_);
  if (!broken_) broken_ = !write_all(line);
  return !broken_;
}

// In pieces that a pipe with room takes whole, so that no write waits: a wait is to end when the reader is
// gone.
bool LineWriter::write_all(std::string_view text) {
  while (!text.empty()) {
    if (!wait_for_room()) return false;
    const ssize_t written = ::write(fd_, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EINTR && errno != EAGAIN) {
      return false;
    }
  }
  return true;
}

// False when the reader's lines have ended and it makes no room within the patience.
bool LineWriter::wait_for_room() const {
  constexpr int kLookEvery = 100;  // milliseconds
  for (std::chrono::milliseconds waited(0); waited < patience_;) {
    std::array<pollfd, 2> ends{pollfd{.fd = fd_, .events = POLLOUT, .revents = 0},
                               pollfd{.fd = input_fd_, .events = 0, .revents = 0}};
    if (poll(ends.data(), ends.size(), 0) > 0 && ends[0].revents != 0) return true;
    if (input_ended_ || ends[1].revents != 0) waited += std::chrono::milliseconds(kLookEvery);
    if (poll(ends.data(), 1, kLookEvery) > 0) return true;
  }
  return false;
}

utils::UniqueFd take_standard_output() {
  utils::UniqueFd output(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
  if (!output) throw utils::IoError("cannot take standard output for messages", errno);
  if (dup2(STDERR_FILENO, STDOUT_FILENO) < 0)
    throw utils::IoError("cannot send standard output to standard error", errno);
  return output;
}

bool reader_is_gone(int fd) {
  pollfd state{.fd = fd, .events = 0, .revents = 0};
  return poll(&state, 1, 0) > 0 && (state.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0;
}

}  // namespace ossilar::mcp
