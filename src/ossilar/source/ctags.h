// Symbols of source texts, as Universal Ctags finds them. refresh.cc asks for the symbols of each text that
// it has read; indexer.cc asks whether the tool is there.
//
// The tool gets the text on its standard input and opens no file, in its sandbox mode if it has one. So the
// symbols are those of the text that was hashed, and no path of the repository reaches the tool.
//
// A missing or broken tool fails no refresh: files have no symbols then, and the reason is kept as a text.
#pragma once

#include <cstddef>
#include <deque>
#include <future>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ossilar/source/source_index.h"

namespace ossilar::source {

// Symbols that are kept of a file, the first ones by line. A file with more is a generated table, which
// nobody reads as a list.
inline constexpr std::size_t kMaxSymbols = 2000;
// Bytes. Larger files are generated or data, and some of the tool's parsers are slow on those; nothing else
// limits the time that the tool takes over a text.
inline constexpr std::size_t kLargestForSymbols = std::size_t{1} << 20;

// How to run the tool on this machine, or why it cannot be run.
struct SymbolTool {
  std::vector<std::string> arguments;  // empty when it cannot be run
  std::string problem;                 // why, and what to install; "" when it can be run
};

// Asks the `ctags` in PATH what it can do. One that is missing, cannot be started or is not able to do what
// is needed gives a problem, not an exception.
//
// Thread-safety: may be called from any thread. Starts a process and waits for its end.
SymbolTool find_symbol_tool();

// Texts for one run of the tool, kept as the requests that it reads.
//
// Thread-safety: one thread at a time.
class SymbolBatch {
 public:
  // `language` has a symbol_ending(). Of `path` only the stem of the file's name is used: some parsers name
  // after it what the text itself does not name, such as a module.
  void add(std::string_view path, std::string_view language, std::string_view text);
  std::size_t size() const { return languages_.size(); }
  std::size_t bytes() const { return input_.size(); }

  // The symbols of each text, in the order of add(). A text on which the tool dies has none. Throws
  // utils::Error when the tool cannot be started, or ends before it is ready for a text.
  std::vector<std::vector<Symbol>> symbols(const SymbolTool& tool) const;

 private:
  std::string input_;
  std::vector<std::size_t> begins_;
  std::vector<std::string> languages_;
};

// Runs batches on threads of their own, at most two at a time, while the caller reads further files.
//
// Thread-safety: one thread at a time. The destructor waits for the batches that run.
// Lifetime: `tool` must outlive the queue.
class SymbolQueue {
 public:
  explicit SymbolQueue(const SymbolTool& tool) : tool_(tool) {}

  // The symbols come back under `id`. Waits for a batch when two run and the next one is full. Does nothing
  // once there is a problem().
  void add(std::size_t id, std::string_view path, std::string_view language, std::string_view text);
  // Waits for all batches and gives their symbols by id. An id without an answer is missing, and problem()
  // says why.
  std::map<std::size_t, std::vector<Symbol>> finish();
  // Why the tool failed; "" while it has not.
  const std::string& problem() const { return problem_; }

 private:
  struct Running {
    std::vector<std::size_t> ids;
    std::future<std::vector<std::vector<Symbol>>> answer;
  };
  void start();
  void wait_for_oldest();

  const SymbolTool& tool_;
  SymbolBatch batch_;
  std::vector<std::size_t> ids_;
  std::deque<Running> running_;
  std::map<std::size_t, std::vector<Symbol>> found_;
  std::string problem_;
};

}  // namespace ossilar::source
