// Which symbols of a file others can use, told by what its language says of it and by what headers name. A
// page is about these first (context_text.cc); the rest are helpers.
//
// Thread-safety: any thread may call; an Exports belongs to one. Failures: none; of a language without a rule
// every symbol counts that is not called private or protected, and whose name does not begin with `_` or `#`.
#pragma once

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "ossilar/source/source_index.h"

namespace ossilar::workers::wiki {

struct NamedSymbol {
  source::Symbol symbol;
  std::string signature;
  bool is_public = false;
  bool is_documented = false;  // a comment stands above it
};

// The words of headers: C and C++ say there what a source offers, and the symbol tool lists no prototypes.
class Exports {
 public:
  // `text` is that of a header of the page or beside its sources.
  void add_header(std::string_view text);
  bool names(const std::string& name) const { return words_.count(name) > 0; }
  bool empty() const { return words_.empty(); }

 private:
  std::set<std::string, std::less<>> words_;
};

// Whether the file is a C or C++ header.
bool is_header(const source::SourceFile& file);

// The symbols of the file in order, each with how it is declared in `text`.
std::vector<NamedSymbol> named_symbols(const source::SourceFile& file, std::string_view text,
                                       const Exports& exports);

}  // namespace ossilar::workers::wiki
