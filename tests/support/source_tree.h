// Source indexes made by hand.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ossilar/source/language.h"
#include "ossilar/source/source_index.h"
#include "ossilar/utils/hash.h"

namespace ossilar::testing {

struct TreeFile {
  std::string path;
  std::int64_t lines = 100;
  source::FileKind kind = source::FileKind::text;
  std::vector<source::Symbol> symbols = {};
  std::vector<std::string> imports = {};
  std::string content = {};  // what tells it from other files; "" for one whose content was not read
};

// An index of these files, with lines of some 20 bytes and the language that their names tell.
inline source::SourceIndex tree_of(const std::vector<TreeFile>& files) {
  std::vector<std::shared_ptr<const source::SourceFile>> shared;
  for (const TreeFile& file : files) {
    source::SourceFile out;
    out.path = file.path;
    out.kind = file.kind;
    out.lines = file.lines;
    if (!file.content.empty()) out.sha256 = source::ContentHash(utils::sha256_hex(file.content));
    out.size = static_cast<std::uint64_t>(file.lines) * 20;
    out.language = std::string(source::language_of(file.path, ""));
    out.symbols = source::SymbolList(file.symbols);
    out.imports = source::ImportList(file.imports);
    shared.push_back(std::make_shared<const source::SourceFile>(std::move(out)));
  }
  return source::SourceIndex(std::move(shared));
}

}  // namespace ossilar::testing
