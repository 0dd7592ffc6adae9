// Plain blocking reads and writes hang at the end of a session: a write on a client that stays but no longer
// reads, and a read on one that has closed the pipe for answers but not the one for input. So both poll()
// first, and each also looks at the other descriptor. Lines are cut from one buffer in which each byte is
// searched once.
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

// Of either end of a line that is too long. The id is searched for there, and stands before or behind the
// long content; 4 KiB are room for what else stands with it, and little to keep.
constexpr std::size_t kKept = 4096;
constexpr std::size_t kBlock = std::size_t{64} * 1024;  // the default capacity of a Linux pipe

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
    searched_ = buffer_.size();  // so that no byte of a long line is searched twice
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

// False when nobody reads the answers and there is no input either: what was sent before is still taken. With
// no events asked for, poll() reports of `answers_fd_` only that its reader is gone.
bool LineReader::wait_for_input() const {
  std::array<pollfd, 2> ends{pollfd{.fd = fd_, .events = POLLIN, .revents = 0},
                             pollfd{.fd = answers_fd_, .events = 0, .revents = 0}};
  while (poll(ends.data(), ends.size(), -1) < 0) {
    if (errno != EINTR) return true;  // let read() report what is wrong
  }
  return ends[0].revents != 0;
}

// Appends a block to the buffer; false at the end of the input, and from then on.
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

// Takes the first `size` bytes of the buffer as a line and drops `with_feed` bytes. Each line moves what is
// behind it, which is less than a block, since more is only read once no line feed is left.
std::variant<Line, LineTooLong, EndOfInput> LineReader::take(std::size_t size, std::size_t with_feed) {
  if (size > 0 && buffer_[size - 1] == '\r') --size;
  const bool too_long = too_long_ || size > kLongestLine;
  LineTooLong cut;
  if (too_long) {
    cut.beginning = too_long_ ? std::move(beginning_) : buffer_.substr(0, kKept);
    cut.end = buffer_.substr(size - std::min(size, kKept), std::min(size, kKept));
  }
  Line line{too_long ? std::string() : buffer_.substr(0, size)};
  buffer_.erase(0, with_feed);
  // Frees what a long line reserved, by a copy: shrink_to_fit() need not shrink. Four blocks are kept, so
  // that ordinary lines reuse the buffer.
  if (buffer_.capacity() > 4 * kBlock) buffer_ = std::string(buffer_);
  searched_ = 0;
  too_long_ = false;
  if (too_long) return cut;
  return line;
}

bool LineWriter::write(std::string_view text) {
  std::string line(text);  // copied before the lock, so that others wait for the writing alone
  line += '\n';
  const std::lock_guard lock(mutex_);
  write_waiting();
  if (!broken_) broken_ = !write_all(line);
  return !broken_;
}

// With mutex_ held, so that nothing that is given later can come before.
void LineWriter::write_waiting() {
  for (;;) {
    std::string line;
    {
      const std::lock_guard lock(later_mutex_);
      if (later_.empty()) return;
      line = std::move(later_.front()) + '\n';
      later_.pop_front();
    }
    if (!broken_) broken_ = !write_all(line);
  }
}

void LineWriter::write_later(std::string text) {
  const std::lock_guard lock(later_mutex_);
  if (later_.size() >= kMostLater) return;
  later_.push_back(std::move(text));
  if (!later_thread_.joinable()) later_thread_ = std::thread([this] { write_later_lines(); });
  later_came_.notify_one();
}

void LineWriter::write_later_lines() {
  for (;;) {
    {
      std::unique_lock lock(later_mutex_);
      later_came_.wait(lock, [&] { return ending_ || !later_.empty(); });
      if (later_.empty()) return;
    }
    const std::lock_guard lock(mutex_);
    write_waiting();
  }
}

LineWriter::~LineWriter() {
  {
    const std::lock_guard lock(later_mutex_);
    ending_ = true;
    later_came_.notify_one();
  }
  if (later_thread_.joinable()) later_thread_.join();
}

// A plain write() of the whole line would wait in the kernel for as long as the reader stays. So each piece
// waits for room first, where giving up is possible, and is no larger than PIPE_BUF: a pipe that has room
// takes that at once.
bool LineWriter::write_all(std::string_view text) {
  while (!text.empty()) {
    if (!wait_for_room()) return false;
    const ssize_t written = ::write(fd_, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EINTR && errno != EAGAIN) {  // EAGAIN: the client made the descriptor non-blocking
      return false;
    }
  }
  return true;
}

// False when the reader's lines have ended and it makes no room within the patience. Only rounds in which
// they have ended count, so a reader that is there is waited for without a limit. True also when the reader
// is gone: the write that follows fails and tells.
bool LineWriter::wait_for_room() const {
  // Milliseconds. input_ended_ is set by another thread, which wakes no poll(), so it is looked at ten times
  // a second.
  constexpr int kLookEvery = 100;
  for (std::chrono::milliseconds waited(0); waited < patience_;) {
    std::array<pollfd, 2> ends{pollfd{.fd = fd_, .events = POLLOUT, .revents = 0},
                               pollfd{.fd = input_fd_, .events = 0, .revents = 0}};
    if (poll(ends.data(), ends.size(), 0) > 0 && ends[0].revents != 0) return true;
    if (input_ended_ || ends[1].revents != 0) waited += std::chrono::milliseconds(kLookEvery);
    // For the output alone: an input at its end is reported at once, and the wait would become a busy loop.
    if (poll(ends.data(), 1, kLookEvery) > 0) return true;
  }
  return false;
}

utils::UniqueFd take_standard_output() {
  // Above the three standard descriptors. Closed on exec, or a child (ctags) would keep the client's pipe
  // open.
  utils::UniqueFd output(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
  if (!output) throw utils::IoError("cannot duplicate standard output", errno);
  if (dup2(STDERR_FILENO, STDOUT_FILENO) < 0)
    throw utils::IoError("cannot redirect standard output to standard error", errno);
  return output;
}

// A pipe without a reader shows POLLERR, a closed socket POLLHUP; both are reported unasked.
bool reader_is_gone(int fd) {
  pollfd state{.fd = fd, .events = 0, .revents = 0};
  return poll(&state, 1, 0) > 0 && (state.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0;
}

}  // namespace ossilar::mcp
