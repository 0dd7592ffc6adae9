// Symbols of one name, such as overloads, are compared together: which of them is which nobody can say.
#include "ossilar/workers/wiki/citing/symbol_changes.h"

#include <algorithm>
#include <map>

#include "ossilar/workers/wiki/citing/fingerprint.h"

namespace ossilar::workers::wiki {
namespace {

// What holds all others changes whenever one of them does.
bool is_told(const source::Symbol& symbol) { return symbol.kind != "namespace" && symbol.kind != "package"; }

// Names in the order of the file, and the lines of each without what formatting changes.
struct Named {
  std::vector<std::string> names;
  std::map<std::string, std::string> texts;
};

Named named(const LineText& text, const std::vector<source::Symbol>& symbols) {
  Named found;
  for (std::size_t i = 0; i < symbols.size(); ++i) {
    const std::int64_t end = i + 1 < symbols.size() ? symbols[i + 1].line - 1 : text.size();
    const LineRange lines{symbols[i].line,
                          std::clamp(end, symbols[i].line, std::max(symbols[i].line, text.size()))};
    if (!is_told(symbols[i])) continue;
    const auto [entry, is_new] = found.texts.try_emplace(full_name(symbols[i]));
    if (is_new) found.names.push_back(entry->first);
    if (text.has(lines)) entry->second += without_formatting(text.block(lines));
  }
  return found;
}

}  // namespace

SymbolChanges symbol_changes(const LineText& before, const std::vector<source::Symbol>& then,
                             const LineText& after, const std::vector<source::Symbol>& now) {
  const Named old_names = named(before, then);
  const Named new_names = named(after, now);
  SymbolChanges changes;
  for (const std::string& name : new_names.names) {
    const auto found = old_names.texts.find(name);
    if (found == old_names.texts.end()) {
      changes.added.push_back(name);
    } else if (found->second != new_names.texts.at(name)) {
      changes.changed.push_back(name);
    }
  }
  for (const std::string& name : old_names.names)
    if (new_names.texts.count(name) == 0) changes.removed.push_back(name);
  return changes;
}

}  // namespace ossilar::workers::wiki
