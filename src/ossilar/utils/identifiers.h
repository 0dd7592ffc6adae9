// Words as programmers write them: an identifier is a word, and so is each of its parts.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace ossilar::utils {

// An unbroken run of letters, digits and underscores. Outside ASCII every character is a letter but the
// blocks of white space, punctuation and symbols: Latin-1 up to U+00BF, U+2000 to U+2BFF and U+3000 to
// U+303F. Folded words are fit for caseless comparison (see fold()).
struct Token {
  std::vector<std::string> parts;  // folded, in their order: parseHTTPHeader is parse, http, header
  std::string joined() const;      // all of them without anything between: parsehttpheader
};

// Reads the tokens of a text one after the other and keeps none, so that a long text costs no memory. What it
// gives is valid until the next call of next(); the text must outlive it.
class TokenReader {
 public:
  explicit TokenReader(std::string_view text) : rest_(text) {}
  // False when there is no more token; one of underscores alone has no parts and is left out.
  bool next();
  std::size_t size() const { return ends_.size(); }  // how many parts the token has: one at least
  std::string_view part(std::size_t number) const;   // folded
  std::string_view joined() const { return folded_; }

 private:
  void take(std::string_view run);
  void add_part(std::string_view part);

  std::string_view rest_;
  std::string folded_;             // the parts of the token at which the reader is
  std::vector<std::size_t> ends_;  // of the parts in it
};

// The tokens of `text` in order; one of underscores alone has no parts and is left out. Time is linear.
std::vector<Token> tokens_of(std::string_view text);

}  // namespace ossilar::utils
