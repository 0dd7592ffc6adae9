#include "ossilar/utils/identifiers.h"

#include <algorithm>
#include <cstdint>

#include "ossilar/utils/fold.h"
#include "ossilar/utils/text.h"

namespace ossilar::utils {
namespace {

std::uint8_t byte_at(std::string_view text, std::size_t at) { return static_cast<std::uint8_t>(text[at]); }

bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_upper(char c) { return c >= 'A' && c <= 'Z'; }
bool is_lower(char c) { return c >= 'a' && c <= 'z'; }

// Whether the character at `at` belongs to a word. Outside ASCII everything does but the blocks of white
// space, punctuation and symbols: Latin-1 up to U+00BF, U+2000 to U+2BFF and U+3000 to U+303F.
bool is_word_character(std::string_view text, std::size_t at) {
  const char c = text[at];
  const std::uint8_t first = byte_at(text, at);
  if (first < 0x80) return is_digit(c) || is_upper(c) || is_lower(c) || c == '_';
  const std::uint8_t second = at + 1 < text.size() ? byte_at(text, at + 1) : 0;
  return first != 0xC2 && !(first == 0xE2 && second < 0xB0) && !(first == 0xE3 && second == 0x80);
}

bool part_begins(std::string_view token, std::size_t at) {
  const char before = token[at - 1];
  const char here = token[at];
  if (is_digit(before) != is_digit(here)) return true;
  if (is_upper(here) && !is_upper(before)) return true;
  const bool next_is_lower = at + 1 < token.size() && is_lower(token[at + 1]);
  return is_upper(before) && is_upper(here) && next_is_lower;
}

// The parts of an identifier: snake_case, camelCase, HTTPHeader, utf8.
std::vector<std::string_view> parts_of(std::string_view token) {
  std::vector<std::string_view> parts;
  std::size_t begin = 0;
  const auto end_part = [&](std::size_t end) {
    if (end > begin) parts.push_back(token.substr(begin, end - begin));
  };
  for (std::size_t at = 0; at < token.size(); ++at) {
    if (token[at] == '_') {
      end_part(at);
      begin = at + 1;
    } else if (at > begin && part_begins(token, at)) {
      end_part(at);
      begin = at;
    }
  }
  end_part(token.size());
  return parts;
}

// fold(), which for ASCII is no more than this.
std::string folded(std::string_view word) {
  const bool ascii = std::all_of(word.begin(), word.end(), [](char c) { return (c & '\x80') == 0; });
  if (!ascii) return fold(word);
  std::string out(word);
  for (char& c : out) c = is_upper(c) ? static_cast<char>(c - 'A' + 'a') : c;
  return out;
}

}  // namespace

std::string Token::joined() const {
  std::string all;
  for (const std::string& part : parts) all += part;
  return all;
}

std::vector<Token> tokens_of(std::string_view text) {
  std::vector<Token> tokens;
  const auto add = [&](std::string_view run) {
    Token token;
    for (const std::string_view part : parts_of(run)) token.parts.push_back(folded(part));
    if (!token.parts.empty()) tokens.push_back(std::move(token));
  };
  std::size_t begin = 0;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t next = at + utf8_size(text, at);
    if (!is_word_character(text, at)) {
      add(text.substr(begin, at - begin));
      begin = next;
    }
    at = next;
  }
  add(text.substr(begin));
  return tokens;
}

}  // namespace ossilar::utils
