// Splits text into words as programmers write them: an identifier is a word, and so is each of its parts.
//
// The word index (store/sqlite/word_index.cc), the questions put to it (workers/wiki/passages/wiki_search.cc)
// and the local embedder (search/embedder.cc) use the same words; otherwise a question would miss what is
// indexed.
//
// Thread-safety: tokens_of() may be called from any thread; a reader belongs to one. Any bytes are accepted,
// also such as are not UTF-8.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace ossilar::utils {

// An unbroken run of letters, digits and underscores. Outside ASCII every character counts as a letter,
// except in the blocks of white space, punctuation and symbols: Latin-1 up to U+00BF, U+2000 to U+2BFF and
// U+3000 to U+303F. Parts are folded for caseless comparison (see fold()).
struct Token {
  std::vector<std::string> parts;  // folded, in order: parseHTTPHeader is parse, http, header
  std::string joined() const;      // all of them with nothing between: parsehttpheader
};

// Reads the tokens of a text one after the other into one buffer, so a long text costs neither memory nor an
// allocation per word. What it returns is valid until the next call of next(). The text must outlive it.
class TokenReader {
 public:
  explicit TokenReader(std::string_view text) : rest_(text) {}
  // Goes to the next token; false when there is none. A token of underscores alone has no parts and is
  // skipped.
  bool next();
  std::size_t size() const { return ends_.size(); }  // how many parts the token has: at least one
  std::string_view part(std::size_t number) const;   // folded; `number` is below size()
  std::string_view joined() const { return folded_; }

 private:
  void take(std::string_view run);
  void add_part(std::string_view part);

  std::string_view rest_;
  std::string folded_;             // the parts of the present token, one after the other
  std::vector<std::size_t> ends_;  // where each part ends in it
};

// The tokens of `text` in order, without those of underscores alone. Takes linear time.
std::vector<Token> tokens_of(std::string_view text);

}  // namespace ossilar::utils
