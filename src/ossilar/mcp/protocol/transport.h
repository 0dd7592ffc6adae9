// Messages as lines: whatever a line holds, it is a message to the layer above. Knows no methods.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>
#include <variant>

#include "ossilar/utils/files.h"

namespace ossilar::mcp {

// A longer line is no message. The longest content of a page (1 MiB), each byte as six characters of a JSON
// escape, fits twice.
inline constexpr std::size_t kLongestLine = std::size_t{12} * 1024 * 1024;

struct Line {
  std::string text;  // without its line feed, and without a carriage return before it
};
struct LineTooLong {
  std::string beginning;  // its first bytes
  std::string end;        // its last
};
struct EndOfInput {};

// Reads lines from a descriptor. Memory stays below kLongestLine and a block, however long a line is.
//
// Thread-safety: one thread at a time.
class LineReader {
 public:
  // Both stay the caller's. `answers_fd` is where answers go: when nobody reads them any more, the input is
  // at its end.
  LineReader(int fd, int answers_fd) : fd_(fd), answers_fd_(answers_fd) {}

  // The next line; a last one without line feed counts. LineTooLong stands for a line over the limit, whose
  // rest is passed over. A descriptor that fails to read is at its end.
  std::variant<Line, LineTooLong, EndOfInput> next();

 private:
  bool fill();
  bool wait_for_input() const;
  std::variant<Line, LineTooLong, EndOfInput> take(std::size_t size, std::size_t with_feed);

  const int fd_;
  const int answers_fd_;
  std::string buffer_;
  std::size_t searched_ = 0;  // of the buffer, known to hold no line feed
  bool too_long_ = false;     // the line being read is, and of its beginning only this is kept:
  std::string beginning_;
  bool ended_ = false;
};

// Writes lines to a descriptor, each whole: lines of several threads never mix. A reader that is slow is
// waited for; one that has ended its own lines and takes none of ours for a while is given up like one that
// is gone.
//
// Thread-safety: every member may be called from any thread.
class LineWriter {
 public:
  // Both stay the caller's. `input_fd` is where the reader's own lines come from.
  LineWriter(int fd, int input_fd, std::chrono::milliseconds patience = std::chrono::seconds(10))
      : fd_(fd), input_fd_(input_fd), patience_(patience) {}

  // Writes `text`, which holds no line feed, and a line feed. False when nobody reads any more; then nothing
  // is written again.
  bool write(std::string_view text);

  // The reader's lines have ended, also where the descriptor does not tell, as a file's.
  void input_has_ended() { input_ended_ = true; }

 private:
  bool write_all(std::string_view text);
  bool wait_for_room() const;

  const int fd_;
  const int input_fd_;
  const std::chrono::milliseconds patience_;
  std::atomic<bool> input_ended_ = false;
  std::mutex mutex_;
  bool broken_ = false;  // guarded by mutex_
};

// Takes standard output for messages: what anything else in this process prints there goes to standard error
// from now on. Gives a descriptor of what standard output was. Throws IoError.
utils::UniqueFd take_standard_output();

// Whether whoever read from the pipe or socket behind `fd` has closed its end.
bool reader_is_gone(int fd);

}  // namespace ossilar::mcp
