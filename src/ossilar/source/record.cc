#include "ossilar/source/record.h"

#include "ossilar/utils/json.h"

namespace ossilar::source {
namespace {

// Goes up when the form changes, and when languages, imports or symbols are found in another way: every file
// is read again then.
constexpr int kFormat = 2;

Stamp stamp_of(const Map& form) {
  return {.size = form.at(0).get<std::uint64_t>(),
          .modified = form.at(1).get<std::int64_t>(),
          .changed = form.at(2).get<std::int64_t>(),
          .inode = form.at(3).get<std::uint64_t>(),
          .device = form.at(4).get<std::uint64_t>()};
}

SourceFile file_of(const std::string& path, const Map& form) {
  SourceFile file;
  file.path = path;
  file.kind = static_cast<FileKind>(form.at("kind").get<unsigned>());
  file.size = form.at("size").get<std::uint64_t>();
  file.sha256 = form.at("sha256").get<std::string>();
  file.lines = form.at("lines").get<std::int64_t>();
  file.language = form.at("language").get<std::string>();
  file.symbols = SymbolList::of_text(form.at("symbols").get<std::string>());
  for (const Map& import : form.at("imports")) file.imports.push_back(import.get<std::string>());
  return file;
}

}  // namespace

std::string record_text(const Entry& entry) {
  const Stamp& stamp = entry.stamp;
  const SourceFile& file = *entry.file;
  const Map form = {
      {"format", kFormat},
      {"stamp", Map::array({stamp.size, stamp.modified, stamp.changed, stamp.inode, stamp.device})},
      {"settled", entry.is_settled},
      {"has_symbols", entry.has_symbols},
      {"kind", static_cast<unsigned>(file.kind)},
      {"size", file.size},
      {"sha256", file.sha256},
      {"lines", file.lines},
      {"language", file.language},
      {"symbols", file.symbols.text()},
      {"imports", file.imports}};
  return form.dump();
}

std::optional<Entry> read_record(const std::string& path, const std::string& text) {
  try {
    const Map form = Map::parse(text);
    const unsigned last_kind = static_cast<unsigned>(FileKind::unreadable);
    if (form.at("format") != kFormat || form.at("kind").get<unsigned>() > last_kind) return std::nullopt;
    return Entry{.stamp = stamp_of(form.at("stamp")),
                 .is_settled = form.at("settled").get<bool>(),
                 .has_symbols = form.at("has_symbols").get<bool>(),
                 .file = std::make_shared<const SourceFile>(file_of(path, form))};
  } catch (const Map::exception&) {
    return std::nullopt;
  }
}

}  // namespace ossilar::source
