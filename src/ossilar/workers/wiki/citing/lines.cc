// Blocks are searched as bytes with memmem(), whose time is linear in the text. Comparing line by line would
// be quadratic for a file of equal lines.
#include "ossilar/workers/wiki/citing/lines.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "ossilar/utils/text.h"

namespace ossilar::workers::wiki {

LineText::LineText(std::string_view text) {
  text_.reserve(text.size() + 2);
  text_ += '\n';
  for (std::string_view line : utils::split_lines(text)) {
    if (line.ends_with('\r')) line.remove_suffix(1);
    starts_.push_back(text_.size());
    text_.append(line) += '\n';
  }
  starts_.push_back(text_.size());
}

bool LineText::has(LineRange range) const {
  return range.first >= 1 && range.first <= range.last && range.last <= size();
}

std::string_view LineText::line(std::int64_t number) const {
  const std::string_view line = block({number, number});
  return line.substr(0, line.size() - 1);
}

std::string_view LineText::block(LineRange range) const {
  const std::size_t begin = starts_[static_cast<std::size_t>(range.first - 1)];
  return std::string_view(text_).substr(begin, starts_[static_cast<std::size_t>(range.last)] - begin);
}

std::vector<std::int64_t> LineText::places_of(std::string_view block, std::size_t most) const {
  std::vector<std::int64_t> places;
  const std::string searched = "\n" + std::string(block);
  const char* at = text_.data();
  const char* const end = text_.data() + text_.size();
  while (places.size() < most) {
    at = static_cast<const char*>(
        memmem(at, static_cast<std::size_t>(end - at), searched.data(), searched.size()));
    if (at == nullptr) break;
    const auto begin = static_cast<std::size_t>(at - text_.data()) + 1;
    const auto start = std::lower_bound(starts_.begin(), starts_.end(), begin);
    places.push_back(start - starts_.begin() + 1);
    ++at;
  }
  return places;
}

std::size_t letters_in(std::string_view text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte >= 0x80 || std::isalnum(byte) != 0;
  }));
}

std::string without_formatting(std::string_view text) {
  std::string bare;
  for (const std::string_view line : utils::split_lines(text)) {
    const auto words = utils::split_words(line);
    if (words.empty()) continue;
    for (const std::string_view word : words) bare.append(word) += ' ';
    bare.back() = '\n';
  }
  return bare;
}

}  // namespace ossilar::workers::wiki
