// Words as programmers write them: an identifier is a word, and so is each of its parts.
#pragma once

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

// The tokens of `text` in order; one of underscores alone has no parts and is left out. Time is linear.
std::vector<Token> tokens_of(std::string_view text);

}  // namespace ossilar::utils
