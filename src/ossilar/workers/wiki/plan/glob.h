// Globs over the paths of a source index.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ossilar/source/source_index.h"

namespace ossilar::workers::wiki {

// A pattern made ready to be matched against many paths. `*` and `?` stay within a part of a path, `**`
// crosses parts (`**/` is any number of whole parts, none included), `[a-z]` and `[!a-z]` are sets, `\` takes
// the next character as it is. A pattern whose last part is plain text matches what lies below a folder of
// that name too; one that is a path as it stands matches it, so brackets in real paths need no escape.
//
// Thread-safety: like a value.
class Glob {
 public:
  explicit Glob(std::string_view pattern);

  // Costs at most the product of the lengths of pattern and path.
  bool matches(std::string_view path) const;

  // The paths of the index's text files that match, in the index's order.
  std::vector<std::string> matching_files(const source::SourceIndex& index) const;

 private:
  enum class Kind {
    literal,      // the character itself
    any,          // one character within a part
    any_run,      // characters within a part, or none
    deep_run,     // characters, or none
    whole_parts,  // whole parts, or none: stands between two parts of the pattern
    inside_part,  // the rest of a part that whole_parts has begun
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
  std::string plain_prefix_;  // every path that matches starts with it
  std::string plain_suffix_;  // every path that matches ends with it
  bool names_folder_ = false;
  std::u32string characters_;  // of pattern_
  std::vector<Token> tokens_;
};

// Whether the glob matches the whole path: `*` and `?` stay within a part, `**` crosses parts, `[a-z]` is a
// set; a pattern that names a folder matches everything below it. Linear in the product of the lengths, no
// recursion.
bool glob_matches(std::string_view pattern, std::string_view path);

}  // namespace ossilar::workers::wiki
