// Symbols, as Universal Ctags finds them. The tool is fed the text on its standard input and opens no file,
// in its sandbox where it has one, so the symbols are those of the text that was hashed and no name reaches
// the tool.
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

// Beyond this many, in the order of their lines, a file is a generated table that nobody reads as a list.
inline constexpr std::size_t kMaxSymbols = 2000;
// Files larger than this are generated or data, and some of the tool's parsers are slow on those.
inline constexpr std::size_t kLargestForSymbols = std::size_t{1} << 20;

// How the tool of this machine is run, or why it cannot be.
struct SymbolTool {
  std::vector<std::string> arguments;  // empty when it cannot be run
  std::string problem;
};

// Asks the `ctags` in PATH what it can do. Throws IoError when a process cannot be started for another reason
// than that there is no such program.
SymbolTool find_symbol_tool();

// Texts on their way to the tool, in the form in which it takes them.
class SymbolBatch {
 public:
  // `path` gives the tool a name for what the text does not name, such as a module, after its own pattern.
  void add(std::string_view path, std::string_view language, std::string_view text);
  std::size_t size() const { return languages_.size(); }
  std::size_t bytes() const { return input_.size(); }

  // The symbols of each text. A text that the tool does not survive has none. Throws Error when the tool does
  // not even start to work.
  std::vector<std::vector<Symbol>> symbols(const SymbolTool& tool) const;

 private:
  std::string input_;
  std::vector<std::size_t> begins_;
  std::vector<std::string> languages_;
};

// Runs batches beside the caller's own work.
//
// Thread-safety: one thread at a time. Its end waits for what is under way.
class SymbolQueue {
 public:
  explicit SymbolQueue(const SymbolTool& tool) : tool_(tool) {}

  // `id` is what the symbols will come back under.
  void add(std::size_t id, std::string_view path, std::string_view language, std::string_view text);
  // Waits for the rest. Files that are missing in the answer were not asked for, because of problem().
  std::map<std::size_t, std::vector<Symbol>> finish();
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
