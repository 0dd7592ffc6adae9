// Lines in and lines out over two descriptors. What a line holds is for message.h; this layer knows no
// methods and no JSON.
//
// server.cc reads with a LineReader on its own thread; session.cc and subscriptions.cc write through one
// LineWriter from many. cli/mcp.cc sets the descriptors up, and ignores SIGPIPE: without that the first write
// to a client that is gone would kill the process.
//
// Failure: a descriptor that cannot be read is at its end, and one that cannot be written stays broken.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <variant>

#include "ossilar/mcp/protocol/outlet.h"
#include "ossilar/utils/files.h"

namespace ossilar::mcp {

// A longer line is no message. The longest content of a page is 1 MiB, and 6 MiB if a client writes each byte
// as a JSON escape of six characters. Twice that leaves room for everything else in the message.
inline constexpr std::size_t kLongestLine = std::size_t{12} * 1024 * 1024;

struct Line {
  std::string text;  // without its line feed, and without a carriage return before it
};
// Of a line over the limit, enough to find the id of its request in (id_in_cut).
struct LineTooLong {
  std::string beginning;  // its first 4 KiB
  std::string end;        // its last 4 KiB
};
struct EndOfInput {};

// Reads lines from a descriptor. However long a line is, the buffer never holds more than kLongestLine and a
// block of 64 KiB.
//
// Thread-safety: one thread at a time.
class LineReader {
 public:
  // Both descriptors stay the caller's. `answers_fd` is where answers go: once nobody reads them any more,
  // next() says EndOfInput, or a server whose client is gone could wait for input for ever.
  LineReader(int fd, int answers_fd) : fd_(fd), answers_fd_(answers_fd) {}

  // Waits for the next line. A last line without a line feed counts as one. Of a line over the limit all is
  // read, but only its ends are kept. A failing read is the end of the input.
  std::variant<Line, LineTooLong, EndOfInput> next();

 private:
  bool fill();
  bool wait_for_input() const;
  std::variant<Line, LineTooLong, EndOfInput> take(std::size_t size, std::size_t with_feed);

  const int fd_;
  const int answers_fd_;
  std::string buffer_;
  std::size_t searched_ = 0;  // so many bytes of buffer_ are known to hold no line feed
  bool too_long_ = false;     // the line being read is over the limit; buffer_ holds only the end of it
  std::string beginning_;     // its beginning, if too_long_
  bool ended_ = false;
};

// Writes lines to a descriptor, each whole: lines of several threads never mix. A slow reader is waited for
// without a limit. A reader that has ended its own lines and then takes none of ours for `patience` is
// treated as gone, or the process could never end.
//
// Thread-safety: every member may be called from any thread.
class LineWriter final : public Outlet {
 public:
  // Both descriptors stay the caller's. `input_fd` is where the reader's own lines come from, -1 for none.
  // Ten seconds are also what the server grants requests under way at its end (server.cc).
  LineWriter(int fd, int input_fd, std::chrono::milliseconds patience = std::chrono::seconds(10))
      : fd_(fd), input_fd_(input_fd), patience_(patience) {}
  // Waits for the lines that were to be written later, as write() does.
  ~LineWriter() override;

  // Writes `text`, which must hold no line feed, and a line feed. False once nobody reads any more: the line
  // may be out in part, and nothing is written after it. Waits while other threads write.
  bool write(std::string_view text) override;

  // Writes `text` from a thread of this writer's own, so the caller never waits for the reader: for what is
  // said while others wait for the caller, as a log record under the write lock. Lines come in the order in
  // which they were given to either function. Beyond kMostLater lines that wait, the text is dropped.
  void write_later(std::string text) override;

  // Tells that the reader's lines have ended. A pipe shows that itself, a file and a half-closed socket do
  // not.
  void input_has_ended() { input_ended_ = true; }

 private:
  static constexpr std::size_t kMostLater = 1000;  // a client that reads nothing must not fill the memory

  void write_waiting();
  void write_later_lines();
  bool write_all(std::string_view text);
  bool wait_for_room() const;

  const int fd_;
  const int input_fd_;
  const std::chrono::milliseconds patience_;
  std::atomic<bool> input_ended_ = false;
  std::mutex mutex_;
  bool broken_ = false;  // guarded by mutex_; never reset, as half a line may be out

  // Taken after mutex_ where both are, and held for no wait.
  std::mutex later_mutex_;
  std::condition_variable later_came_;
  std::deque<std::string> later_;  // guarded by later_mutex_, as is the next
  bool ending_ = false;
  std::thread later_thread_;  // begun by the first line; guarded by later_mutex_ until then
};

// Takes standard output for messages and returns it as a new descriptor, which children do not inherit. From
// now on what anything in this process prints to standard output goes to standard error and cannot get
// between messages. Throws IoError. To be called before other threads print.
utils::UniqueFd take_standard_output();

// Whether the other end of the pipe or socket behind `fd` is closed. False for a file.
bool reader_is_gone(int fd);

}  // namespace ossilar::mcp
