// Globs over the paths of a source index. plan_entries.cc reads the `sources` of `ossilar.toml` with them.
//
// A pattern is text that a user wrote: none is an error, and none takes long to match.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ossilar/source/source_index.h"

namespace ossilar::workers::wiki {

// A pattern compiled once, to be matched against many paths. `*` and `?` stay within a part of a path, `**`
// crosses parts (`**/` is any number of whole parts, none included), `[a-z]` and `[!a-z]` are sets, `\` takes
// the next character as it is. A pattern whose last part is plain text matches what lies below a folder of
// that name too; one that is a path as it stands matches it, so brackets in real paths need no escape.
//
// Thread-safety: like a value; matching changes nothing, so one Glob may match on several threads at once.
class Glob {
 public:
  explicit Glob(std::string_view pattern);

  // Whether the pattern matches the whole path, or a folder above it. The empty pattern matches nothing. Time
  // is at most the product of the lengths of pattern and path.
  bool matches(std::string_view path) const;

  // The paths of the index's text files that match, in the index's order. Looks only at paths with the
  // pattern's plain beginning, so a pattern such as src/a/*.c does not cost a walk over the index.
  std::vector<std::string> matching_files(const source::SourceIndex& index) const;

 private:
  enum class Kind {
    literal,      // the character itself
    any,          // one character within a part
    any_run,      // characters within a part, or none
    deep_run,     // characters, or none
    whole_parts,  // whole parts, or none: stands between two parts of the pattern
    inside_part,  // the rest of a part that whole_parts has begun; always stands right after whole_parts
    set,          // a character of `set`
  };
  struct Token {
    Kind kind = Kind::literal;
    char32_t literal = 0;
    bool negated = false;
    std::vector<std::pair<char32_t, char32_t>> set;  // ranges, both ends included
  };
  class Run;

  void compile();
  std::size_t compile_stars(std::size_t at);
  std::size_t compile_set(std::size_t at);
  static bool accepts(const Token& token, char32_t character);

  std::string pattern_;
  std::string plain_prefix_;   // every path that matches starts with it
  std::string plain_suffix_;   // every path that matches ends with it; "" with names_folder_
  bool names_folder_ = false;  // the last part is plain text: what lies below such a folder matches too
  std::u32string characters_;  // of pattern_: `?` and sets are about characters and not bytes
  std::vector<Token> tokens_;
};

// Glob(pattern).matches(path), for a single match.
bool glob_matches(std::string_view pattern, std::string_view path);

}  // namespace ossilar::workers::wiki
