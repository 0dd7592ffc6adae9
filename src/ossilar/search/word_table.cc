// The table's bytes are used where they lie, so that a process reads only the vectors it needs from disk, and
// all processes share them. Its form: a line "words 1 COUNT DIMENSIONS", a line for each word, a byte for
// each weight in 255ths, and the vectors, a signed byte for each number. Each vector has its own scale, so
// that all of them use the whole range of a byte.
#include "ossilar/search/word_table.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "ossilar/search/word_bytes.h"

namespace ossilar::search {
namespace {

std::string_view take_line(std::string_view& rest) {
  const std::string_view line = rest.substr(0, rest.find('\n'));
  rest.remove_prefix(line.size() + 1);
  return line;
}

std::size_t take_number(std::string_view& rest) {
  std::size_t number = 0;
  for (; !rest.empty() && rest.front() >= '0' && rest.front() <= '9'; rest.remove_prefix(1))
    number = 10 * number + static_cast<std::size_t>(rest.front() - '0');
  return number;
}

}  // namespace

WordTable::WordTable() {
  constexpr std::string_view kTableHead = "words 1 ";
  std::string_view rest = word_bytes();
  std::string_view head = take_line(rest);
  head.remove_prefix(kTableHead.size());
  const std::size_t count = take_number(head);
  words_.reserve(count);
  for (std::size_t word = 0; word < count; ++word) words_.push_back(take_line(rest));
  weights_ = reinterpret_cast<const std::uint8_t*>(rest.data());
  vectors_ = reinterpret_cast<const std::int8_t*>(rest.data() + count);
}

std::optional<WordTable::Word> WordTable::find(std::string_view stem) const {
  const auto place = std::lower_bound(words_.begin(), words_.end(), stem);
  if (place == words_.end() || *place != stem) return std::nullopt;
  const auto at = static_cast<std::size_t>(place - words_.begin());
  const std::int8_t* vector = vectors_ + at * kDimensions;
  const int squares = std::inner_product(vector, vector + kDimensions, vector, 0);
  return Word{.weight = weights_[at] / 255.0, .vector = vector, .length = std::sqrt(squares)};
}

}  // namespace ossilar::search
