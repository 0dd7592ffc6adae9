// A process for each file would spend its time on starting; so one process answers many texts, in the tool's
// interactive mode. Each request is a line of JSON with the size of the text, then the text itself. The tool
// answers with a line of JSON for each tag, and a "completed" line after each text. Only the order of those
// lines tells which text an answer belongs to: the names in the requests are made up and may repeat.
//
// A text can kill the tool: its sandbox ends it at a forbidden call, or a parser crashes. That text is given
// no symbols, and a new process goes on with the next one. So each run settles one text at least, and the
// loop ends.
#include "ossilar/source/ctags.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <memory>
#include <utility>

#include "ossilar/source/language.h"
#include "ossilar/utils/error.h"
#include "ossilar/utils/json.h"
#include "ossilar/utils/logging.h"
#include "ossilar/utils/process.h"
#include "ossilar/utils/text.h"

namespace ossilar::source {
namespace {

// Large enough that starting the tool costs little beside its work. Small enough for memory: there are three
// batches at most, two that run and one that is filled.
constexpr std::size_t kBatchBytes = std::size_t{4} << 20;
// By number too, so that a repository of small files is not one batch but work for both runs.
constexpr std::size_t kBatchFiles = 1000;
// Each run keeps one core busy, for longer than the reading of its texts takes. More at a time would shorten
// a first index on a large machine, and take the cores from other programs.
constexpr std::size_t kAtOnce = 2;
// The tool reads a request into a buffer of 1024 bytes; with this stem a request stays far below that.
constexpr std::size_t kLongestStem = 60;

constexpr const char* kInstall = "install Universal Ctags to get symbols";

// Whether one of the lines, each a name and a description after a blank, has the name `start`.
bool contains_line(const std::vector<std::string_view>& lines, std::string_view start) {
  return std::any_of(lines.begin(), lines.end(),
                     [&](std::string_view line) { return line.substr(0, line.find(' ')) == start; });
}

template <std::size_t N>
bool contains(const std::array<std::string_view, N>& words, std::string_view word) {
  return std::find(words.begin(), words.end(), word) != words.end();
}

// The file name that the tool is told: of plain characters alone, so that it is no option, leads to no other
// folder and needs no escapes in JSON. The ending makes the tool choose our language, also for endings that
// it does not know itself.
std::string tool_name(std::string_view path, std::string_view language) {
  std::string_view stem = path.substr(path.rfind('/') + 1);
  stem = stem.substr(0, std::min(stem.find('.'), kLongestStem));
  const auto is_plain = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
  };
  if (stem.empty() || !std::all_of(stem.begin(), stem.end(), is_plain)) stem = "text";
  return std::string(stem) + "." + std::string(symbol_ending(language));
}

// A reader looks for what is declared for others to use; fields, parameters, locals and imports are left out.
// The kinds of all the tool's languages share one list. Values count at the top level only, where they are no
// locals.
bool is_wanted(std::string_view kind, std::string_view scope_kind, std::string_view language) {
  static constexpr std::array<std::string_view, 36> kDeclarations = {
      "function",        "method",     "class",      "struct",      "union",  "enum",
      "interface",       "trait",      "typedef",    "type",        "alias",  "talias",
      "macro",           "module",     "namespace",  "constructor", "func",   "methodSpec",
      "procedure",       "subroutine", "subprogram", "generator",   "getter", "setter",
      "singletonMethod", "object",     "protocol",   "annotation",  "mixin",  "record",
      "message",         "service",    "rpc",        "table",       "task",   "typealias"};
  static constexpr std::array<std::string_view, 7> kValues = {"variable", "constant", "const", "var",
                                                              "value",    "val",      "define"};
  static constexpr std::array<std::string_view, 4> kTopLevel = {"", "namespace", "module", "package"};
  if (kind == "member") return language == "Python";  // a method; elsewhere a field
  if (scope_kind == "function" && (language == "C" || language == "C++")) return false;
  if (kind == "alias" && language == "PHP") return false;  // an import
  return contains(kDeclarations, kind) || (contains(kValues, kind) && contains(kTopLevel, scope_kind));
}

// "ns::__anon0b8855dc0311::Q" becomes "ns::Q": the names that the tool makes up for nameless scopes say
// nothing to a reader.
std::string without_nameless(std::string scope) {
  static constexpr std::string_view kMark = "__anon";
  for (std::size_t at = scope.find(kMark); at != std::string::npos; at = scope.find(kMark, at)) {
    std::size_t end = scope.find_first_not_of("0123456789abcdef", at + kMark.size());
    end = scope.find_first_not_of(":.", std::min(end, scope.size()));
    scope.erase(at, std::min(end, scope.size()) - at);
  }
  scope.erase(scope.find_last_not_of(":.") + 1);
  return scope;
}

// The rest of the line after `"key": `. A search does instead of a parser, because the tool writes flat
// objects and escapes quotes in values, so no value can look like a key. (To parse each tag as JSON would
// take longer than the tool itself.)
std::string_view after_key(std::string_view line, std::string_view key) {
  for (std::size_t at = line.find(key); at != std::string_view::npos; at = line.find(key, at + 1)) {
    const std::string_view after = line.substr(at + key.size());
    if (at > 0 && line[at - 1] == '"' && after.substr(0, 3) == "\": ") return after.substr(3);
  }
  return {};
}

std::string text_field(std::string_view line, std::string_view key) {
  const std::string_view value = after_key(line, key);
  if (value.substr(0, 1) != "\"") return {};
  std::size_t end = value.find_first_of("\"\\", 1);
  const bool is_plain = end != std::string_view::npos && value[end] == '"';
  while (end < value.size() && value[end] == '\\') end = value.find_first_of("\"\\", end + 2);
  if (end >= value.size()) return {};
  // Most values have no escapes and are copied; only the others go through the parser, which must not throw.
  if (is_plain) return std::string(value.substr(1, end - 1));
  const Map parsed = Map::parse(value.substr(0, end + 1), nullptr, false);
  return parsed.is_string() ? parsed.get<std::string>() : std::string();
}

// 0 when there is no such number.
std::int64_t number_field(std::string_view line, std::string_view key) {
  const std::string_view value = after_key(line, key);
  std::int64_t number = 0;
  std::from_chars(value.data(), value.data() + value.size(), number);
  return number;
}

std::optional<Symbol> symbol_of(std::string_view tag, std::string_view language) {
  std::string kind = text_field(tag, "kind");
  if (!is_wanted(kind, text_field(tag, "scopeKind"), language)) return std::nullopt;
  Symbol symbol{.name = text_field(tag, "name"),
                .kind = std::move(kind),
                .scope = without_nameless(text_field(tag, "scope")),
                .line = number_field(tag, "line")};
  if (symbol.name.empty() || symbol.line < 1) return std::nullopt;
  return symbol;
}

// Stable: symbols of one line stay in the tool's order.
std::vector<Symbol> in_order(std::vector<Symbol> symbols) {
  std::stable_sort(symbols.begin(), symbols.end(),
                   [](const Symbol& a, const Symbol& b) { return a.line < b.line; });
  if (symbols.size() > kMaxSymbols) symbols.resize(kMaxSymbols);
  return symbols;
}

// What one run of the tool answered: the symbols of the texts that it finished, in their order.
struct Answer {
  bool began = false;  // it wrote the line that says which program it is
  std::vector<std::vector<Symbol>> texts;
};

// `first` is the place in `languages` of the first text of this run. Symbols of a text that was not completed
// are dropped: the tool died there.
Answer read_answer(std::string_view output, const std::vector<std::string>& languages, std::size_t first) {
  Answer answer;
  std::vector<Symbol> symbols;
  for (const std::string_view line : utils::split_lines(output)) {
    const std::string type = text_field(line, "_type");
    if (type == "program") answer.began = true;
    // All texts are answered; a broken tool may go on writing.
    if (first + answer.texts.size() == languages.size()) break;
    if (type == "tag") {
      if (auto symbol = symbol_of(line, languages[first + answer.texts.size()]))
        symbols.push_back(*std::move(symbol));
    } else if (type == "completed") {
      answer.texts.push_back(in_order(std::exchange(symbols, {})));
    }
  }
  return answer;
}

}  // namespace

SymbolTool find_symbol_tool() {
  utils::ProcessResult result;
  try {
    // --options=NONE: no configuration of the user's or the repository's may change what the tool does.
    result = utils::run_process({"ctags", "--quiet", "--options=NONE", "--list-features"}, "");
  } catch (const utils::IoError& error) {
    const std::string why = error.error() == ENOENT ? "ctags is not in PATH" : error.what();
    return {{}, why + "; " + kInstall};
  }
  const auto features = utils::split_lines(result.output);
  if (result.exit_code != 0 || !contains_line(features, "json") || !contains_line(features, "interactive")) {
    return {{}, std::string("the ctags in PATH cannot write JSON; ") + kInstall};
  }
  // Without a sandbox the tool opens no file either, as each request brings its text along.
  const std::string mode = contains_line(features, "sandbox") ? "sandbox" : "default";
  // Fields: N the name, K the kind in full, n the line, s the scope, p the scope's kind. Nameless
  // declarations get no tags, but still appear in scopes: without_nameless().
  return {{"ctags", "--quiet", "--options=NONE", "--fields=NKnsp", "--extras=-{anonymous}",
           "--_interactive=" + mode},
          ""};
}

void SymbolBatch::add(std::string_view path, std::string_view language, std::string_view text) {
  begins_.push_back(input_.size());
  languages_.emplace_back(language);
  input_ += R"({"command": "generate-tags", "filename": ")" + tool_name(path, language) + R"(", "size": )" +
            std::to_string(text.size()) + "}\n";
  input_ += text;
}

std::vector<std::vector<Symbol>> SymbolBatch::symbols(const SymbolTool& tool) const {
  std::vector<std::vector<Symbol>> all;
  while (all.size() < size()) {
    const auto input = std::string_view(input_).substr(begins_[all.size()]);
    const utils::ProcessResult result = utils::run_process(tool.arguments, input);
    Answer answer = read_answer(result.output, languages_, all.size());
    if (!answer.began) throw utils::Error("ctags failed: " + utils::printable(result.errors));
    std::move(answer.texts.begin(), answer.texts.end(), std::back_inserter(all));
    // The tool died on the next text: give that one no symbols, and go on after it.
    if (all.size() < size()) all.emplace_back();
  }
  return all;
}

void SymbolQueue::add(std::size_t id, std::string_view path, std::string_view language,
                      std::string_view text) {
  if (!problem_.empty()) return;
  ids_.push_back(id);
  batch_.add(path, language, text);
  if (batch_.bytes() >= kBatchBytes || batch_.size() >= kBatchFiles) start();
}

std::map<std::size_t, std::vector<Symbol>> SymbolQueue::finish() {
  if (batch_.size() > 0) start();
  while (!running_.empty()) wait_for_oldest();
  return std::move(found_);
}

void SymbolQueue::start() {
  if (running_.size() == kAtOnce) wait_for_oldest();
  // launch::async, as the default policy may put the work off until finish() waits for it.
  auto work = [tool = tool_, batch = std::exchange(batch_, {})] { return batch.symbols(tool); };
  running_.push_back({std::exchange(ids_, {}), std::async(std::launch::async, std::move(work))});
}

void SymbolQueue::wait_for_oldest() {
  Running oldest = std::move(running_.front());
  running_.pop_front();
  try {
    auto answers = oldest.answer.get();
    for (std::size_t i = 0; i < answers.size(); ++i) found_.emplace(oldest.ids[i], std::move(answers[i]));
  } catch (const utils::Error& error) {
    // Symbols are a help, no condition: the refresh goes on, and add() takes no more texts.
    problem_ = error.what();
  }
}

}  // namespace ossilar::source
