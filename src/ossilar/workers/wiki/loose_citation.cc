// A form that people write often is read rather than refused in silence: an author who writes `a.cpp:run`
// knows what it means, and only the lines are missing.
#include "ossilar/workers/wiki/loose_citation.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <vector>

#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/near_paths.h"

namespace ossilar::workers::wiki {
namespace {

using source::SourceFile;

// What people write between a path and the numbers of lines, and between these.
constexpr std::string_view kMarks = " :#,.-()\xE2\x80\x93";  // the last three bytes are an en dash
constexpr std::array<std::string_view, 6> kWords{"L", "l", "line", "lines", "to", "and"};

// One or two numbers of lines in `text`, with nothing but marks and words like "lines" around them.
std::optional<Citation> parse_loose_lines(std::string_view text) {
  std::vector<std::int64_t> numbers;
  while (!text.empty()) {
    const auto word = static_cast<std::size_t>(
        std::find_if_not(text.begin(), text.end(),
                         [](char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; }) -
        text.begin());
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (kMarks.find(text.front()) != std::string_view::npos) {
      text.remove_prefix(1);
    } else if (word > 0) {
      if (std::find(kWords.begin(), kWords.end(), text.substr(0, word)) == kWords.end()) return std::nullopt;
      text.remove_prefix(word);
    } else {
      if (error != std::errc() || numbers.size() == 2) return std::nullopt;
      numbers.push_back(number);
      text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    }
  }
  if (numbers.empty()) return std::nullopt;
  return Citation{.path = {}, .first = numbers.front(), .last = numbers.back()};
}

bool has_lines(const SourceFile* file) {
  return file != nullptr && file->kind == source::FileKind::text && file->lines > 0;
}

// The indexed file of this path, else the only one of this name; null if there is none.
const SourceFile* meant_file(const std::string& path, const source::SourceIndex& index) {
  if (const SourceFile* file = index.find(path)) return file;
  const auto named = path.find('.') == std::string::npos ? std::vector<std::string>() : index.named(path);
  return named.size() == 1 ? index.find(named.front()) : nullptr;
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
  if (const SourceFile* file = meant_file(label, index); has_lines(file))
    return Named{.file = file, .name = {}};
  const std::size_t mark = label.find_first_of(":#");
  if (mark == std::string::npos) return std::nullopt;
  const SourceFile* file = meant_file(label.substr(0, mark), index);
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

// Of the symbol of the file whose name is nearest, if it is a typing mistake away.
std::optional<std::int64_t> near_line_of(const SourceFile& file, const std::string& name) {
  std::optional<std::int64_t> line;
  std::size_t least = std::min(kMostWrong, name.size() / 3) + 1;
  if (name.size() > kLongestName) return line;
  for (const source::Symbol& symbol : file.symbols.all()) {
    if (symbol.name.size() > kLongestName) continue;
    const std::size_t apart = utils::edit_distance(name, symbol.name);
    if (apart >= least) continue;
    least = apart;
    line = symbol.line;
  }
  return line;
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
  if (const auto line = near_line_of(*named.file, named.name)) {
    return "the file has no symbol '" + named.name + "'; did you mean " + written(*named.file, *line, *line) +
           "?";
  }
  return "the file has no symbol '" + named.name + "'; write lines, as in " +
         written(*named.file, 1, named.file->lines);
}

}  // namespace

std::optional<Citation> parse_loose(std::string_view label) {
  const std::size_t mark = label.find_first_of(" :#,(");
  if (mark == std::string_view::npos || mark == 0) return std::nullopt;
  auto citation = parse_loose_lines(label.substr(mark));
  if (citation) citation->path = std::string(label.substr(0, mark));
  return citation;
}

bool is_loose_citation(const std::string& label, const source::SourceIndex& index) {
  const auto loose = parse_loose(label);
  return (loose && meant_file(loose->path, index) != nullptr) || named_in(label, index);
}

std::string loose_citation_warning(const std::string& label, const source::SourceIndex& index) {
  const auto loose = parse_loose(label);
  const SourceFile* file = loose ? meant_file(loose->path, index) : nullptr;
  if (file != nullptr && file->path != loose->path) {
    return malformed_citation_warning(file->path + ":" + std::to_string(loose->first) + "-" +
                                      std::to_string(loose->last));
  }
  const auto named = named_in(label, index);
  if (loose || !named) return malformed_citation_warning(label);
  const std::string start = "citation [" + utils::printable_line(label) + "]: ";
  if (!named->name.empty()) return start + symbol_advice(*named, index);
  return start + "a citation names lines; write " + written(*named->file, 1, named->file->lines) +
         ", or those that say it";
}

}  // namespace ossilar::workers::wiki
