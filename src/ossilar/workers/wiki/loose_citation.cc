// A form that people write often is read rather than refused in silence: an author who writes `a.cpp:run`
// knows what it means, and only the lines are missing.
#include "ossilar/workers/wiki/loose_citation.h"

#include <algorithm>
#include <cctype>
#include <charconv>

#include "ossilar/utils/text.h"

namespace ossilar::workers::wiki {
namespace {

using source::SourceFile;

constexpr std::string_view kEnDash = "\xE2\x80\x93";

bool take(std::string_view& text, std::string_view mark) {
  if (!text.starts_with(mark)) return false;
  text.remove_prefix(mark.size());
  return true;
}

std::optional<std::int64_t> take_number(std::string_view& text) {
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || number < 0) return std::nullopt;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return number;
}

// `L10-L20`, `l10-20`, `10-20`, `10`, `lines 10-20`.
std::optional<Citation> parse_loose_lines(std::string_view lines) {
  lines = utils::strip(lines);
  if (take(lines, "lines") || take(lines, "line")) lines = utils::strip(lines);
  const auto take_line = [&] {
    if (!take(lines, "L")) take(lines, "l");
    return take_number(lines);
  };
  const auto first = take_line();
  if (!first) return std::nullopt;
  Citation citation{.path = {}, .first = *first, .last = *first};
  if (take(lines, "-") || take(lines, kEnDash)) {
    const auto last = take_line();
    if (!last) return std::nullopt;
    citation.last = *last;
  }
  return lines.empty() ? std::optional(citation) : std::nullopt;
}

bool has_lines(const SourceFile* file) {
  return file != nullptr && file->kind == source::FileKind::text && file->lines > 0;
}

// The file and the symbol of `a.cpp:run()`; an empty name for a path alone.
struct Named {
  const SourceFile* file = nullptr;
  std::string name;
};

bool is_name(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '$' || c == '~';
  });
}

std::optional<Named> named_in(const std::string& label, const source::SourceIndex& index) {
  if (const SourceFile* file = index.find(label); has_lines(file)) return Named{.file = file, .name = {}};
  const std::size_t mark = label.find_first_of(":#");
  if (mark == std::string::npos) return std::nullopt;
  const SourceFile* file = index.find(std::string_view(label).substr(0, mark));
  std::string_view name = std::string_view(label).substr(mark + 1);
  if (name.ends_with("()")) name.remove_suffix(2);
  name.remove_prefix(std::min(name.find_last_of(".:") + 1, name.size()));  // npos + 1 is 0
  if (!has_lines(file) || !is_name(name)) return std::nullopt;
  return Named{.file = file, .name = std::string(name)};
}

std::optional<std::int64_t> line_of(const SourceFile& file, const std::string& name) {
  if (file.symbols.text().find(name) == std::string::npos) return std::nullopt;  // spares decoding
  for (const source::Symbol& symbol : file.symbols.all())
    if (symbol.name == name) return symbol.line;
  return std::nullopt;
}

std::string written(const SourceFile& file, std::int64_t first, std::int64_t last) {
  return "[" + file.path + ":L" + std::to_string(first) + (last == first ? "" : "-L" + std::to_string(last)) +
         "]";
}

std::string symbol_advice(const Named& named, const source::SourceIndex& index) {
  if (const auto line = line_of(*named.file, named.name)) {
    return "a symbol has no place in a citation; write its lines, from " +
           written(*named.file, *line, *line) + " on";
  }
  for (const auto& file : index.files()) {
    const auto line = line_of(*file, named.name);
    if (!line) continue;
    return "the file has no symbol '" + named.name + "'; did you mean " + written(*file, *line, *line) + "?";
  }
  return "the file has no symbol '" + named.name + "'; write lines, as in " +
         written(*named.file, 1, named.file->lines);
}

}  // namespace

std::optional<Citation> parse_loose(std::string_view label) {
  const std::size_t mark = label.find_last_of(":#,");
  if (mark == std::string_view::npos || mark == 0) return std::nullopt;
  auto citation = parse_loose_lines(label.substr(mark + 1));
  if (citation) citation->path = std::string(label.substr(0, mark));
  return citation;
}

bool is_loose_citation(const std::string& label, const source::SourceIndex& index) {
  const auto loose = parse_loose(label);
  return (loose && index.find(loose->path) != nullptr) || named_in(label, index);
}

std::string loose_citation_warning(const std::string& label, const source::SourceIndex& index) {
  const auto named = named_in(label, index);
  if (parse_loose(label) || !named) return malformed_citation_warning(label);
  const std::string start = "citation [" + utils::printable_line(label) + "]: ";
  if (!named->name.empty()) return start + symbol_advice(*named, index);
  return start + "a citation names lines; write " + written(*named->file, 1, named->file->lines) +
         ", or those that say it";
}

}  // namespace ossilar::workers::wiki
