// Symbols are a text with one line each. To keep it short, a kind or scope that is the same as in the line
// before is one byte, and the line number is the distance to the symbol before. So a list can only be decoded
// whole, from its start; callers want it whole anyway. Only has_main() is worked out when the list is made.
//
// A text from a damaged record must do no harm: each step takes what is left up to a mark, and a missing one
// ends at the end of the text.
#include "ossilar/source/source_index.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>
#include <utility>

#include "ossilar/utils/text.h"

namespace ossilar::source {
namespace {

std::string_view last_part(std::string_view path) { return path.substr(path.rfind('/') + 1); }

// A symbol is a line: name, kind and scope, each with a tab behind it, and how many lines it is below the
// symbol before.
constexpr char kFieldEnd = '\t';
constexpr char kSymbolEnd = '\n';
constexpr std::string_view kAsBefore = "\x01";  // stands for the kind or scope of the symbol before

// A mark within a field becomes a blank: no name of a symbol needs one.
void append_field(std::string& text, std::string_view field, std::string_view before) {
  const std::size_t start = text.size();
  text.append(!field.empty() && field == before ? kAsBefore : field);
  for (std::size_t i = start; i < text.size(); ++i)
    if (text[i] == kFieldEnd || text[i] == kSymbolEnd) text[i] = ' ';
  text += kFieldEnd;
}

// Takes the next field and its mark from the front of `line`.
std::string_view take_field(std::string_view& line) {
  const std::string_view field = line.substr(0, line.find(kFieldEnd));
  line.remove_prefix(std::min(line.size(), field.size() + 1));
  return field;
}

std::string field_of(std::string_view& line, const std::string& before) {
  const std::string_view field = take_field(line);
  return field == kAsBefore ? before : std::string(field);
}

// More than 0xff for anything but a lower-case hexadecimal digit, so that the caller can check all digits at
// once.
unsigned digit_value(char digit) {
  if (digit >= '0' && digit <= '9') return static_cast<unsigned>(digit - '0');
  if (digit >= 'a' && digit <= 'f') return static_cast<unsigned>(digit - 'a') + 10;
  return 0x100;
}

std::string text_of(const std::vector<Symbol>& symbols) {
  std::string text;
  Symbol before;
  for (const Symbol& symbol : symbols) {
    append_field(text, symbol.name, "");
    append_field(text, symbol.kind, before.kind);
    append_field(text, symbol.scope, before.scope);
    text.append(std::to_string(symbol.line - before.line)) += kSymbolEnd;  // negative where lines go back
    before = symbol;
  }
  return text;
}

std::vector<Symbol> symbols_of(std::string_view left) {
  std::vector<Symbol> symbols;
  Symbol symbol;
  while (!left.empty()) {
    std::string_view line = left.substr(0, left.find(kSymbolEnd));
    left.remove_prefix(std::min(left.size(), line.size() + 1));
    symbol.name = take_field(line);
    symbol.kind = field_of(line, symbol.kind);
    symbol.scope = field_of(line, symbol.scope);
    std::int64_t lines = 0;  // stays when there is no number
    std::from_chars(line.data(), line.data() + line.size(), lines);
    // A damaged record may hold any number; the sum stays at the largest one.
    if (__builtin_add_overflow(symbol.line, lines, &symbol.line))
      symbol.line = std::numeric_limits<std::int64_t>::max();
    symbols.push_back(symbol);
  }
  return symbols;
}

// Whether the text of a list has a symbol of that name, told without decoding it. memmem() and not find(),
// which stops at each line feed, the first character of what is searched.
bool may_name(std::string_view text, std::string_view name) {
  const std::string line = kSymbolEnd + std::string(name) + kFieldEnd;
  return text.starts_with(std::string_view(line).substr(1)) ||
         memmem(text.data(), text.size(), line.data(), line.size()) != nullptr;
}

}  // namespace

SymbolList::SymbolList(const std::vector<Symbol>& symbols) : SymbolList(text_of(symbols)) {}

SymbolList SymbolList::of_text(std::string text) { return SymbolList(std::move(text)); }

SymbolList::SymbolList(std::string text) {
  const auto is_main = [](const Symbol& symbol) { return symbol.name == "main" && symbol.scope.empty(); };
  if (may_name(text, "main")) {
    const std::vector<Symbol> symbols = symbols_of(text);
    has_main_ = std::any_of(symbols.begin(), symbols.end(), is_main);
  }
  text.shrink_to_fit();  // the text grew by appending, and stays as long as the file is known
  text_ = std::move(text);
}

std::vector<Symbol> SymbolList::all() const { return symbols_of(text_); }

std::vector<std::string_view> SymbolList::names() const {
  std::vector<std::string_view> names;
  for (std::string_view left = text_; !left.empty();) {
    std::string_view line = left.substr(0, left.find(kSymbolEnd));
    left.remove_prefix(std::min(left.size(), line.size() + 1));
    names.push_back(take_field(line));
  }
  return names;
}

// All digits are decoded, and judged once at the end: this runs for each file of an index at each start.
ContentHash::ContentHash(std::string_view hex) {
  if (hex.size() != 2 * bytes_.size()) return;
  unsigned all = 0;
  for (std::size_t i = 0; i < bytes_.size(); ++i) {
    const unsigned byte = digit_value(hex[2 * i]) << 4U | digit_value(hex[2 * i + 1]);
    all |= byte;
    bytes_[i] = static_cast<std::uint8_t>(byte);
  }
  is_known_ = all <= 0xff;
  if (!is_known_) bytes_ = {};  // all hashes that are none are equal
}

std::string ContentHash::hex() const {
  static constexpr std::string_view kDigits = "0123456789abcdef";
  if (!is_known_) return "";
  std::string digits;
  digits.reserve(2 * bytes_.size());
  for (const unsigned byte : bytes_) {
    digits += kDigits[byte >> 4U];
    digits += kDigits[byte & 15U];
  }
  return digits;
}

ImportList::ImportList(const std::vector<std::string>& imports) : text_(utils::join(imports, "\n")) {}

ImportList ImportList::of_text(std::string text) {
  ImportList list;
  list.text_ = std::move(text);
  return list;
}

std::vector<std::string> ImportList::all() const {
  std::vector<std::string> imports;
  for (std::size_t begin = 0; begin < text_.size();) {
    const std::size_t end = std::min(text_.find('\n', begin), text_.size());
    imports.push_back(text_.substr(begin, end - begin));
    begin = end + 1;
  }
  return imports;
}

SourceIndex::SourceIndex(std::vector<std::shared_ptr<const SourceFile>> files) : files_(std::move(files)) {
  const auto before = [](const auto& a, const auto& b) { return a->path < b->path; };
  if (!std::is_sorted(files_.begin(), files_.end(), before)) std::sort(files_.begin(), files_.end(), before);
}

// Stable, so that files of one name stay in the order of their paths.
void SourceIndex::sort_by_name() const {
  by_name_.reserve(files_.size());
  for (const auto& file : files_) by_name_.push_back(file.get());
  std::stable_sort(by_name_.begin(), by_name_.end(), [](const SourceFile* a, const SourceFile* b) {
    return last_part(a->path) < last_part(b->path);
  });
}

const SourceFile* SourceIndex::find(std::string_view path) const {
  const auto found = std::lower_bound(files_.begin(), files_.end(), path,
                                      [](const auto& file, std::string_view p) { return file->path < p; });
  return found != files_.end() && (*found)->path == path ? found->get() : nullptr;
}

std::vector<std::string> SourceIndex::named(std::string_view name) const {
  std::call_once(named_once_, [this] { sort_by_name(); });
  std::vector<std::string> paths;
  const auto first =
      std::lower_bound(by_name_.begin(), by_name_.end(), name,
                       [](const SourceFile* file, std::string_view n) { return last_part(file->path) < n; });
  for (auto at = first; at != by_name_.end() && last_part((*at)->path) == name; ++at)
    paths.push_back((*at)->path);
  return paths;
}

}  // namespace ossilar::source
