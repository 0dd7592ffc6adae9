// One small function for each family of languages looks at one line at a time. Parsers would tell imports
// from comments and strings, but each language would need one. A false import costs little: it mostly means
// no file of the repository, and is dropped when imports are resolved.
//
// The work is linear in the text, minified files included: each function searches a line from left to right,
// and looks behind each call at no more than kLongestImport bytes.
#include "ossilar/source/imports.h"

#include <algorithm>
#include <array>
#include <unordered_set>

#include "ossilar/utils/text.h"

namespace ossilar::source {
namespace {

// Bytes. Real imports are far shorter; a longer one comes from text that only looks like an import.
constexpr std::size_t kLongestImport = 500;

class Imports {
 public:
  void add(std::string_view name) {
    if (name.empty() || name.size() > kLongestImport || names_.size() == kMaxImports) return;
    // A record of the index is UTF-8, and could not hold any other import.
    if (utils::first_invalid_utf8(name) || !seen_.emplace(name).second) return;
    names_.emplace_back(name);
  }
  std::vector<std::string> take() { return std::move(names_); }

 private:
  std::vector<std::string> names_;
  std::unordered_set<std::string> seen_;
};

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t\r\f");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r\f") - first + 1);
}

// Takes `prefix` and the blanks behind it from the front of `text`, when it stands there.
bool take_prefix(std::string_view& text, std::string_view prefix) {
  if (text.substr(0, prefix.size()) != prefix) return false;
  text = trimmed(text.substr(prefix.size()));
  return true;
}

// The same for a whole word. Callers ignore the result for words that may be missing, such as Java's
// `static`.
bool take_word(std::string_view& text, std::string_view word) {
  const std::string_view after = text.substr(std::min(word.size(), text.size()));
  if (!after.empty() && after.front() != ' ' && after.front() != '\t') return false;
  return take_prefix(text, word);
}

// What stands before the first of the characters `ends`, without blanks around it.
std::string_view until(std::string_view text, std::string_view ends) {
  return trimmed(text.substr(0, text.find_first_of(ends)));
}

// The first string in `text` whose opening quote is one of `quotes`, without its quotes.
std::string_view quoted(std::string_view text, std::string_view quotes) {
  const std::size_t open = text.find_first_of(quotes);
  if (open == std::string_view::npos) return {};
  const std::size_t close = text.find(text[open], open + 1);
  return close == std::string_view::npos ? std::string_view() : text.substr(open + 1, close - open - 1);
}

// `include_next` before `include`, which is a prefix of it. `#include MACRO` names no file.
void c_line(std::string_view line, Imports& out) {
  if (!take_prefix(line, "#")) return;
  if (!take_prefix(line, "include_next") && !take_prefix(line, "include") && !take_prefix(line, "import"))
    return;
  if (line.empty() || (line.front() != '"' && line.front() != '<')) return;
  const std::size_t close = line.find(line.front() == '<' ? '>' : '"', 1);
  if (close != std::string_view::npos) out.add(line.substr(0, close + 1));
}

void python_line(std::string_view line, Imports& out) {
  if (take_word(line, "from")) {
    const std::string_view module = until(line, " \t");
    line.remove_prefix(module.size());
    line = trimmed(line);
    if (take_word(line, "import")) out.add(module);
  } else if (take_word(line, "import")) {
    for (std::string_view rest = line.substr(0, line.find_first_of("#;")); !rest.empty();) {
      const std::size_t comma = std::min(rest.find(','), rest.size());
      out.add(until(trimmed(rest.substr(0, comma)), " \t"));
      rest.remove_prefix(std::min(comma + 1, rest.size()));
    }
  }
}

// The string argument of every call `name("...")` in the line. Of what follows the name only the start is
// looked at: with the rest of the line each time, a minified line of many calls would take quadratic time.
void calls(std::string_view line, std::string_view name, Imports& out) {
  for (std::size_t at = line.find(name); at != std::string_view::npos; at = line.find(name)) {
    line.remove_prefix(at + name.size());
    const std::string_view argument = trimmed(line.substr(0, kLongestImport));
    if (!argument.empty() && (argument.front() == '"' || argument.front() == '\'')) {
      out.add(quoted(argument, "\"'"));
    }
  }
}

// The `from "./x"` that ends an import or export, which may have begun on an earlier line. The last "from"
// counts, as names may hold one.
void from_clause(std::string_view line, Imports& out) {
  const std::size_t from = line.rfind("from");
  if (from == std::string_view::npos) return;
  const std::string_view module = trimmed(line.substr(from + 4));
  if (!module.empty() && (module.front() == '"' || module.front() == '\'')) out.add(quoted(module, "\"'"));
}

void javascript_line(std::string_view line, Imports& out) {
  std::string_view rest = line;
  if (take_prefix(rest, "import") && !rest.empty() && (rest.front() == '"' || rest.front() == '\'')) {
    out.add(quoted(rest, "\"'"));
  } else {
    // "}" and "*" begin the last line of an import of several lines.
    static constexpr std::array<std::string_view, 4> kStarts = {"import", "export", "}", "*"};
    const auto starts = [&](std::string_view start) { return line.substr(0, start.size()) == start; };
    if (std::any_of(kStarts.begin(), kStarts.end(), starts)) from_clause(line, out);
  }
  calls(line, "require(", out);
  calls(line, "import(", out);
}

void java_line(std::string_view line, Imports& out) {
  if (!take_word(line, "import")) return;
  take_word(line, "static");
  out.add(until(line, "; \t"));
}

// `pub use a::b::{c, d};` imports `a::b`. A `mod m { ... }` has its module in this file and imports none.
void rust_line(std::string_view line, Imports& out) {
  if (take_prefix(line, "pub(")) {
    line = trimmed(line.substr(std::min(line.find(')'), line.size() - 1) + 1));
  } else {
    take_word(line, "pub");
  }
  if (take_word(line, "use")) {
    std::string_view path = until(line, ";{ \t");
    if (path.size() > 2 && path.substr(path.size() - 2) == "::") path.remove_suffix(2);
    out.add(path);
  } else if (take_word(line, "extern") && take_word(line, "crate")) {
    out.add(until(line, "; \t"));
  } else if (take_word(line, "mod") && line.find(';') != std::string_view::npos) {
    out.add("self::" + std::string(until(line, "; \t")));
  }
}

// `using D = E.F;` imports `E.F`. With a parenthesis it is a using statement, which imports nothing.
void c_sharp_line(std::string_view line, Imports& out) {
  take_word(line, "global");
  if (!take_word(line, "using")) return;
  take_word(line, "static");
  if (const std::size_t equals = line.find('='); equals != std::string_view::npos)
    line.remove_prefix(equals + 1);
  if (line.find('(') == std::string_view::npos) out.add(until(line, ";"));
}

void ruby_line(std::string_view line, Imports& out) {
  if (take_word(line, "require") || take_word(line, "require_relative")) out.add(quoted(line, "\"'"));
}

// The longer words first: each shorter one is a prefix of the one before it.
void php_line(std::string_view line, Imports& out) {
  if (take_word(line, "use")) out.add(until(line, ";{ \t"));
  for (const std::string_view word : {"require_once", "require", "include_once", "include"}) {
    if (take_prefix(line, word)) return out.add(quoted(line, "\"'"));
  }
}

// Go lists imports line by line between parentheses, so its scan must know whether it is inside them.
// The keyword and not the beginning of a name such as `importPath`; Go lets `import"a"` and `import(` stand
// without a blank.
bool take_import(std::string_view& line) {
  constexpr std::string_view kImport = "import";
  const std::string_view after = line.substr(std::min(kImport.size(), line.size())).substr(0, 1);
  return (after.empty() || std::string_view(" \t\"`(").find(after) != std::string_view::npos) &&
         take_prefix(line, kImport);
}

void go_lines(std::string_view text, Imports& out) {
  bool in_block = false;
  for (std::string_view line : utils::split_lines(text)) {
    line = trimmed(line);
    const bool is_import = in_block || take_import(line);
    if (!is_import || line.substr(0, 2) == "//") continue;
    if (!in_block && line.substr(0, 1) == "(") in_block = true;
    out.add(quoted(line, "\"`"));
    if (in_block && line.find(')') != line.npos) in_block = false;
  }
}

struct Scanner {
  std::string_view language;
  void (*line)(std::string_view line, Imports& out);
};

// Searched once for each file. Go is missing: its scan needs more than one line.
constexpr std::array kScanners = {
    Scanner{"C", c_line},
    Scanner{"C++", c_line},
    Scanner{"C#", c_sharp_line},
    Scanner{"CUDA", c_line},
    Scanner{"Groovy", java_line},
    Scanner{"Java", java_line},
    Scanner{"Kotlin", java_line},
    Scanner{"Objective-C", c_line},
    Scanner{"PHP", php_line},
    Scanner{"Python", python_line},
    Scanner{"Ruby", ruby_line},
    Scanner{"Rust", rust_line},
    Scanner{"Swift", java_line},
    Scanner{"JavaScript", javascript_line},
    Scanner{"Svelte", javascript_line},
    Scanner{"TypeScript", javascript_line},
    Scanner{"Vue", javascript_line},
};

}  // namespace

std::vector<std::string> imports_of(std::string_view language, std::string_view text) {
  Imports imports;
  if (language == "Go") go_lines(text, imports);
  const auto* scanner = std::find_if(kScanners.begin(), kScanners.end(),
                                     [&](const Scanner& row) { return row.language == language; });
  if (scanner != kScanners.end()) {
    for (const std::string_view line : utils::split_lines(text)) scanner->line(trimmed(line), imports);
  }
  return imports.take();
}

}  // namespace ossilar::source
