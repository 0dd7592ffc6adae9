#include "ossilar/workers/wiki/plan/grouping/name_words.h"

#include <algorithm>

#include "ossilar/utils/text.h"

namespace ossilar::workers::wiki {
namespace {

constexpr std::string_view kSeparators = "_-.+ ";

bool is_separator(char c) { return kSeparators.find(c) != std::string_view::npos; }
bool is_upper(char c) { return c >= 'A' && c <= 'Z'; }
bool is_digit(char c) { return c >= '0' && c <= '9'; }
// What a capital may follow to begin a word: digits too, as in "Base64Codec".
bool is_lower(char c) { return (c >= 'a' && c <= 'z') || is_digit(c); }

}  // namespace

std::vector<std::size_t> word_ends(std::string_view name) {
  // The number at the end is a word of its own; digits within a name, as in utf8_decode, are part of one.
  std::size_t number = name.size();
  while (number > 0 && is_digit(name[number - 1])) --number;
  std::vector<std::size_t> ends;
  for (std::size_t i = 1; i < name.size(); ++i) {
    const bool begins = is_separator(name[i]) || (is_upper(name[i]) && is_lower(name[i - 1])) || i == number;
    if (begins && !is_separator(name[i - 1])) ends.push_back(i);
  }
  if (!name.empty()) ends.push_back(name.size());
  return ends;
}

std::vector<std::string> words_of(std::string_view name) {
  std::vector<std::string> words;
  std::size_t start = 0;
  for (const std::size_t end : word_ends(name)) {
    while (start < end && is_separator(name[start])) ++start;
    if (start < end) words.push_back(utils::lower_case(name.substr(start, end - start)));
    start = end;
  }
  return words;
}

}  // namespace ossilar::workers::wiki
