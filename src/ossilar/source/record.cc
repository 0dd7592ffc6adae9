// A record is numbers, two lines and two texts whose sizes come first, so that reading it is little more than
// copying. (An earlier form, JSON with an object for each symbol, made every start slow.)
//
// Each part ends at a mark or has a size, so a cut-off record is noticed. Parts never throws and never reads
// beyond the text: what does not fit is remembered as damage, and read_record() asks once, at the end.
#include "ossilar/source/record.h"

#include <charconv>
#include <string_view>
#include <utility>

#include "ossilar/source/imports.h"

namespace ossilar::source {
namespace {

// Raise it when the form changes, or when languages, imports or symbols are found in another way: each record
// of another format makes its file be read again.
constexpr int kFormat = 500 + kImportRules;

// Takes a record apart from the front. A part that does not fit gives a zero, an empty or a shorter value,
// and marks the record as damaged.
class Parts {
 public:
  explicit Parts(std::string_view text) : left_(text) {}

  std::string_view up_to(char end) {
    const std::size_t at = left_.find(end);
    if (at == left_.npos) {
      damaged_ = true;
      return {};
    }
    const std::string_view part = left_.substr(0, at);
    left_.remove_prefix(at + 1);
    return part;
  }
  template <class Number>
  Number number() {
    const std::string_view digits = up_to(' ');
    Number value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    require(error == std::errc() && end == digits.data() + digits.size());
    return value;
  }
  bool flag() { return number<int>() != 0; }
  std::string bytes(std::size_t size) {
    require(left_.size() >= size);
    const std::string_view part = left_.substr(0, size);
    left_.remove_prefix(part.size());
    return std::string(part);
  }
  void end() { require(left_.empty()); }
  void require(bool is_so) { damaged_ = damaged_ || !is_so; }
  bool is_damaged() const { return damaged_; }

 private:
  std::string_view left_;
  bool damaged_ = false;
};

Stamp read_stamp(Parts& parts) {
  Stamp stamp;
  stamp.size = parts.number<std::uint64_t>();
  stamp.modified = parts.number<std::int64_t>();
  stamp.changed = parts.number<std::int64_t>();
  stamp.inode = parts.number<std::uint64_t>();
  stamp.device = parts.number<std::uint64_t>();
  return stamp;
}

SourceFile read_file(std::string_view path, Parts& parts) {
  SourceFile file;
  file.path = path;
  const auto kind = parts.number<unsigned>();
  parts.require(kind <= static_cast<unsigned>(FileKind::unreadable));
  file.kind = static_cast<FileKind>(kind);
  file.size = parts.number<std::uint64_t>();
  file.lines = parts.number<std::int64_t>();
  const auto import_bytes = parts.number<std::size_t>();
  const auto symbol_bytes = parts.number<std::size_t>();
  const std::string_view hash = parts.up_to('\n');
  file.sha256 = ContentHash(hash);
  parts.require(hash.empty() || !file.sha256.empty());  // none, for a file that was not read, or a whole one
  file.language = parts.up_to('\n');
  file.imports = ImportList::of_text(parts.bytes(import_bytes));
  file.symbols = SymbolList::of_text(parts.bytes(symbol_bytes));
  parts.end();
  return file;
}

}  // namespace

// Numbers, each with a blank behind it, and the hash; then a line with the language, the imports and the
// symbols. read_record() and read_file() take the parts in the same order.
std::string record_text(const Entry& entry) {
  const Stamp& stamp = entry.stamp;
  const SourceFile& file = *entry.file;
  std::string text;
  const auto add = [&](auto number) { text.append(std::to_string(number)) += ' '; };
  add(kFormat);
  add(stamp.size), add(stamp.modified), add(stamp.changed), add(stamp.inode), add(stamp.device);
  add(int{entry.is_settled}), add(int{entry.has_symbols});
  add(static_cast<unsigned>(file.kind)), add(file.size), add(file.lines);
  const std::string symbols = file.symbols.text();
  add(file.imports.text().size()), add(symbols.size());
  text.append(file.sha256.hex()) += '\n';
  text.append(file.language) += '\n';
  return text.append(file.imports.text()).append(symbols);
}

std::optional<Entry> read_record(std::string_view path, std::string_view text) {
  Parts parts(text);
  if (parts.number<int>() != kFormat) return std::nullopt;
  Entry entry;
  entry.stamp = read_stamp(parts);
  entry.is_settled = parts.flag();
  entry.has_symbols = parts.flag();
  SourceFile file = read_file(path, parts);
  if (parts.is_damaged()) return std::nullopt;
  entry.file = std::make_shared<const SourceFile>(std::move(file));
  return entry;
}

}  // namespace ossilar::source
