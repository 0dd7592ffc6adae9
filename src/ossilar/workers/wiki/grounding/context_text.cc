// Every public symbol is named before any line of source is shown: an author can ask for lines (read_source),
// and not for what it never heard of. Where signatures of all do not fit, the files that tell least give
// names only.
#include "ossilar/workers/wiki/grounding/context_text.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/grounding/excerpts.h"
#include "ossilar/workers/wiki/grounding/public_symbols.h"
#include "ossilar/workers/wiki/plan/file_roles.h"

namespace ossilar::workers::wiki {
namespace {

using source::SourceFile;
using source::SourceIndex;

constexpr std::size_t kLastLine = 80;      // kept free for what is left out
constexpr std::size_t kMostListed = 40;    // files without symbols that are named; the rest is counted
constexpr std::size_t kMostHeaders = 200;  // that are read for what they name

// A file of the page with its symbols.
struct ReadFile {
  const SourceFile* file = nullptr;
  std::vector<NamedSymbol> symbols;
};

// Each file is read once, and only of files that have symbols or an excerpt.
class Sources {
 public:
  explicit Sources(const ReadSource& read) : read_(read) {}
  const std::string& text(const std::string& path) {
    auto [text, is_new] = texts_.try_emplace(path);
    if (is_new) text->second = read_(path).value_or("");
    return text->second;
  }

 private:
  const ReadSource& read_;
  std::map<std::string, std::string> texts_;
};

// Headers of the page, and those beside its sources or of the same name elsewhere: `include/x.h` for
// `src/x.c`.
Exports exports_of(const std::vector<const SourceFile*>& files, const SourceIndex& index, Sources& sources) {
  Exports exports;
  std::set<std::string> read;
  const auto add = [&](const SourceFile* file) {
    if (file == nullptr || !is_header(*file) || read.size() >= kMostHeaders) return;
    if (read.insert(file->path).second) exports.add_header(sources.text(file->path));
  };
  for (const SourceFile* file : files) add(file);
  for (const SourceFile* file : files) {
    if (file->language != "C" && file->language != "C++") continue;
    for (const char* ending : {".h", ".hpp", ".hh"}) {
      for (const std::string& path : index.named(std::string(file_stem(file->path)) + ending))
        add(index.find(path));
    }
  }
  return exports;
}

std::string name_line(const NamedSymbol& named) {
  return "`" + one_line(named.symbol.name) + "` L" + std::to_string(named.symbol.line);
}

std::string signature_line(const NamedSymbol& named) {
  const bool says_name = named.signature.find(named.symbol.name) != std::string::npos;
  const std::string scope = named.symbol.scope.empty() ? "" : " (" + one_line(named.symbol.scope) + ")";
  return "- L" + std::to_string(named.symbol.line) + " `" +
         one_line(says_name ? named.signature : named.symbol.kind + " " + named.symbol.name) + "`" + scope;
}

// Each name once on the page: a prototype and what it declares are one symbol to a reader.
std::string names_of(const std::vector<const NamedSymbol*>& symbols, std::set<std::string>& named) {
  std::vector<std::string> names;
  for (const NamedSymbol* symbol : symbols)
    if (named.insert(symbol->symbol.name).second) names.push_back(name_line(*symbol));
  return names.empty() ? "" : utils::join(names, ", ") + "\n";
}

std::string signatures_of(const std::vector<const NamedSymbol*>& symbols) {
  std::string text;
  for (const NamedSymbol* named : symbols) text += signature_line(*named) + "\n";
  return text;
}

// The public symbols of a file, the documented ones first, and the other ones.
std::pair<std::vector<const NamedSymbol*>, std::vector<const NamedSymbol*>> parted(const ReadFile& read) {
  std::vector<const NamedSymbol*> offered, helpers;
  for (const NamedSymbol& named : read.symbols) (named.is_public ? offered : helpers).push_back(&named);
  std::stable_partition(offered.begin(), offered.end(),
                        [](const NamedSymbol* named) { return named->is_documented; });
  return {std::move(offered), std::move(helpers)};
}

// "src/a.cc (C++, 12 lines)"
std::string shown_file(const SourceFile& file) {
  return one_line(file.path) + " (" + (file.language.empty() ? "" : file.language + ", ") +
         std::to_string(file.lines) + " lines)";
}

std::string heading_of(const SourceFile& file) { return "### " + shown_file(file) + "\n\n"; }

// What is shown of a file: names or signatures of what it offers, and names of its helpers.
struct ShownFile {
  std::string offered, helpers;
};

// Names of all, then signatures in the place of names while there is room, then helpers by name.
std::vector<ShownFile> shown_files(const std::vector<ReadFile>& files, std::size_t share) {
  std::vector<ShownFile> shown(files.size());
  std::vector<std::vector<const NamedSymbol*>> offered(files.size());
  std::set<std::string> named;
  std::size_t size = 0;
  for (std::size_t i = 0; i < files.size(); ++i) {
    auto [open, rest] = parted(files[i]);
    shown[i] = {.offered = names_of(open, named), .helpers = ""};
    std::set<std::string> of_file;
    if (!rest.empty()) shown[i].helpers = "helpers: " + names_of(rest, of_file);
    offered[i] = std::move(open);
    size += heading_of(*files[i].file).size() + shown[i].offered.size() + 1;
  }
  for (std::size_t i = 0; i < files.size(); ++i) {
    std::string longer = signatures_of(offered[i]);
    if (longer.empty() || size - shown[i].offered.size() + longer.size() > share) continue;
    size += longer.size() - shown[i].offered.size();
    shown[i].offered = std::move(longer);
  }
  for (ShownFile& file : shown) {
    if (size + file.helpers.size() > share) file.helpers.clear();
    size += file.helpers.size();
  }
  return shown;
}

// `share` is what signatures and helpers may take, `room` what all may: a page of hundreds of files has more
// names than any author reads.
std::string symbols_part(const std::vector<ReadFile>& files, std::size_t share, std::size_t room) {
  if (files.empty()) return "";
  const std::vector<ShownFile> shown = shown_files(files, share);
  std::string text = "## Files, and what each offers\n\n";
  for (std::size_t i = 0; i < files.size(); ++i) {
    const std::string next = heading_of(*files[i].file) + shown[i].offered + shown[i].helpers + "\n";
    if (text.size() + next.size() + kLastLine > room) {
      return text + "and " + std::to_string(files.size() - i) +
             " more files; name one as `focus`, or search for a symbol\n\n";
    }
    text += next;
  }
  return text;
}

// Files without symbols by name alone.
std::string others_part(const std::vector<const SourceFile*>& files) {
  if (files.empty()) return "";
  std::string text = "## Other files\n\n";
  for (std::size_t i = 0; i < std::min(files.size(), kMostListed); ++i)
    text += "- " + shown_file(*files[i]) + "\n";
  if (files.size() > kMostListed) text += "and " + std::to_string(files.size() - kMostListed) + " more\n";
  return text + "\n";
}

// The documented public symbols first, then the other public ones, then helpers.
std::vector<source::Symbol> api_order(const ReadFile& read) {
  std::vector<source::Symbol> symbols;
  const auto [offered, helpers] = parted(read);
  for (const auto* list : {&offered, &helpers})
    for (const NamedSymbol* named : *list) symbols.push_back(named->symbol);
  return symbols;
}

std::string focus_part(const std::vector<FocusPlace>& focus, Sources& sources, std::size_t room) {
  if (focus.empty()) return "";
  std::string text = "## What you asked for\n\n";
  for (std::size_t i = 0; i < focus.size(); ++i) {
    const auto& [file, lines] = focus[i];
    const std::size_t left = room > text.size() ? (room - text.size()) / (focus.size() - i) : 0;
    const std::string& source = sources.text(file->path);
    text += lines ? lines_excerpt(file->path, source, lines->first, lines->last, left)
                  : lines_excerpt(file->path, source, 1, file->lines, left);
  }
  return text;
}

std::string excerpts_part(const std::vector<ReadFile>& files, const std::vector<const SourceFile*>& others,
                          Sources& sources, std::size_t room) {
  std::string text = "## Excerpts\n\nEach line of a file follows its number; `...` marks lines left out.\n\n";
  std::vector<std::pair<const SourceFile*, std::vector<source::Symbol>>> shown;
  shown.reserve(files.size() + others.size());
  for (const ReadFile& read : files) shown.emplace_back(read.file, api_order(read));
  for (const SourceFile* file : others) shown.emplace_back(file, std::vector<source::Symbol>());
  // READMEs tell most, and have no symbols.
  std::stable_partition(shown.begin(), shown.end(),
                        [](const auto& each) { return is_readme(each.first->path); });
  const std::size_t count = std::min(shown.size(), kExcerptFiles);
  for (std::size_t i = 0; i < count && text.size() < room; ++i) {
    const auto& [file, symbols] = shown[i];
    text += file_excerpt(*file, sources.text(file->path), (room - text.size()) / (count - i), symbols);
  }
  return text;
}

}  // namespace

std::string context_text(const PagePlan& plan, const Plans& plans, const SourceIndex& index,
                         const std::string& steering, const std::vector<std::string>& files,
                         const ReadSource& read, const ContextWish& wish) {
  const std::vector<const SourceFile*> telling = telling_files(files, index);
  Sources sources(read);
  const Exports exports = exports_of(telling, index, sources);
  std::vector<ReadFile> with_symbols;
  std::vector<const SourceFile*> others;
  for (const SourceFile* file : telling) {
    if (file->symbols.text().empty() && !is_header(*file)) {
      others.push_back(file);
      continue;
    }
    const std::string& text = sources.text(file->path);
    with_symbols.push_back({file, named_symbols(*file, text, exports)});
  }
  std::string text =
      brief_text(plan, plans, steering, telling.empty() ? nullptr : telling.front(), wish.abstracts);
  const auto left = [&] { return wish.room > text.size() ? wish.room - text.size() : 0; };
  text += focus_part(wish.focus, sources, left() / 2);
  // Lines of source get a third of what is left, unless names alone need it.
  text += symbols_part(with_symbols, left() * 2 / 3, left());
  if (left() > kMostListed * kLastLine / 2) text += others_part(others);
  if (left() > 0) text += excerpts_part(with_symbols, others, sources, left());
  return text;
}

}  // namespace ossilar::workers::wiki
