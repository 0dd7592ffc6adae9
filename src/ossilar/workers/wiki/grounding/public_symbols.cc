// By naming rules and by the words of a declaration, as a reader tells it at a glance. A few helpers that
// pass for public cost a line each; a public function that is left out costs a page its subject, so doubt
// decides for it.
#include "ossilar/workers/wiki/grounding/public_symbols.h"

#include <algorithm>
#include <array>
#include <cctype>

#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/grounding/prototypes.h"
#include "ossilar/workers/wiki/grounding/signature.h"

namespace ossilar::workers::wiki {
namespace {

using source::SourceFile;
using source::Symbol;

bool is_word_byte(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '$'; }

template <class Take>
void for_each_word(std::string_view text, Take take) {
  for (std::size_t at = 0; at < text.size();) {
    std::size_t end = at;
    while (end < text.size() && is_word_byte(text[end])) ++end;
    if (end > at) take(text.substr(at, end - at));
    at = end + 1;
  }
}

bool has_word(std::string_view text, std::string_view word) {
  bool found = false;
  for_each_word(text, [&](std::string_view each) { found = found || each == word; });
  return found;
}

bool is_one_of(std::string_view language, std::initializer_list<std::string_view> names) {
  return std::find(names.begin(), names.end(), language) != names.end();
}

// The words that a module exports: those of its `export` and `exports` lines, and of a list that such a line
// opens.
std::set<std::string, std::less<>> exported_words(const std::vector<std::string_view>& lines) {
  std::set<std::string, std::less<>> words;
  bool is_open = false;
  for (const std::string_view line : lines) {
    const std::string_view text = utils::strip(line);
    if (is_open || text.starts_with("export") || text.find("exports") != std::string_view::npos) {
      for_each_word(text, [&](std::string_view word) { words.emplace(word); });
      const bool opens = !is_open && text.find('}') == std::string_view::npos && text.ends_with("{") &&
                         (text.find("= {") != std::string_view::npos || text == "export {");
      is_open = opens || (is_open && !text.starts_with("}"));
    }
  }
  return words;
}

// A namespace goes over many files, and an operator has no name to look for.
bool says_nothing(const Symbol& symbol) {
  return symbol.kind == "namespace" || symbol.kind == "package" || symbol.name.starts_with("operator ");
}

// What tells public symbols of one file.
class Rule {
 public:
  Rule(const SourceFile& file, const std::vector<std::string_view>& lines, const Exports& exports)
      : language_(file.language), is_header_(is_header(file)), exports_(exports) {
    if (is_script()) exported_ = exported_words(lines);
  }

  bool is_public(const NamedSymbol& named) const {
    const std::string& name = named.symbol.name;
    const std::string& signature = named.signature;
    if (has_word(signature, "private") || has_word(signature, "protected")) return false;
    if (language_ == "Go") return std::isupper(static_cast<unsigned char>(name.front())) != 0;
    if (language_ == "Rust") return has_word(signature, "pub") || !named.symbol.scope.empty();
    if (is_one_of(language_, {"C", "C++"})) return is_offered(named);
    if (name.front() == '_' || name.front() == '#') return false;
    return !is_script() || exported_.empty() || exported_.count(root_of(named.symbol)) > 0;
  }

 private:
  bool is_script() const { return is_one_of(language_, {"JavaScript", "TypeScript", "Vue", "Svelte"}); }

  // A source offers what a header names; without any header, what is not `static`.
  bool is_offered(const NamedSymbol& named) const {
    if (is_header_) return true;
    if (has_word(named.signature, "static") && named.symbol.scope.empty()) return false;
    if (exports_.names(named.symbol.name)) return true;
    return exports_.empty() && named.symbol.kind == "function";
  }

  // What a member belongs to, else the symbol itself.
  static std::string root_of(const Symbol& symbol) {
    if (symbol.scope.empty()) return symbol.name;
    return symbol.scope.substr(0, symbol.scope.find_first_of(".:/"));
  }

  const std::string& language_;
  bool is_header_;
  const Exports& exports_;
  std::set<std::string, std::less<>> exported_;
};

}  // namespace

void Exports::add_header(std::string_view text) {
  for_each_word(text, [&](std::string_view word) { words_.emplace(word); });
}

bool is_header(const SourceFile& file) {
  static constexpr std::array<std::string_view, 6> kEndings{".h", ".hh", ".hpp", ".hxx", ".inc", ".H"};
  return is_one_of(file.language, {"C", "C++"}) &&
         std::any_of(kEndings.begin(), kEndings.end(),
                     [&](std::string_view ending) { return file.path.ends_with(ending); });
}

std::vector<NamedSymbol> named_symbols(const SourceFile& file, std::string_view text,
                                       const Exports& exports) {
  const auto lines = utils::split_lines(text);
  const Rule rule(file, lines, exports);
  std::vector<NamedSymbol> named;
  for (Symbol& symbol : file.symbols.all()) {
    if (symbol.name.empty() || says_nothing(symbol)) continue;
    const bool is_twin =
        !named.empty() && named.back().symbol.name == symbol.name && named.back().symbol.line == symbol.line;
    if (is_twin) continue;  // the tool names the parts of `namespace a::b` by one line
    NamedSymbol each{.symbol = std::move(symbol), .signature = {}};
    each.signature = signature_of(lines, each.symbol.line);
    const auto above = each.symbol.line - 2;
    each.is_documented = above >= 0 && above < static_cast<std::int64_t>(lines.size()) &&
                         is_comment_line(lines[static_cast<std::size_t>(above)]);
    each.is_public = rule.is_public(each);
    named.push_back(std::move(each));
  }
  if (!is_header(file)) return named;
  for (NamedSymbol& prototype : prototypes_in(lines)) named.push_back(std::move(prototype));
  std::stable_sort(named.begin(), named.end(),
                   [](const NamedSymbol& a, const NamedSymbol& b) { return a.symbol.line < b.symbol.line; });
  return named;
}

}  // namespace ossilar::workers::wiki
