// The parser says what is prose; citations are taken out afterwards. They are text to it, as the page's link
// definitions are not in `body`, and a page with many would otherwise seem longer than it reads.
#include "ossilar/workers/wiki/prose_words.h"

#include <algorithm>
#include <string>

#include "ossilar/utils/markdown.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/citations.h"

namespace ossilar::workers::wiki {
namespace {

// With blanks in place of each label, not without it: what is on both sides stays two words, and places stay
// valid. The brackets stay too, but are no words. All that has a citation's form is left out, valid or not.
std::string without_citations(std::string text) {
  std::vector<std::pair<std::size_t, std::size_t>> places;  // offset and size of each label
  for (const std::string_view label : bracketed(text)) {
    if (parse_citation(label)) places.emplace_back(label.data() - text.data(), label.size());
  }
  for (const auto& [at, size] : places)
    std::fill_n(text.begin() + static_cast<std::ptrdiff_t>(at), size, ' ');
  return text;
}

// A dash or a table's bar alone is no word. Bytes beyond ASCII count without a look at what character they
// are, so a run of Chinese, which has no blanks, counts as one word.
bool is_word(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
           static_cast<unsigned char>(c) >= 0x80;
  });
}

}  // namespace

std::int64_t prose_words(std::string_view body) {
  const std::string prose = without_citations(utils::prose_text(body));
  const auto words = utils::split_words(prose);
  return std::count_if(words.begin(), words.end(), is_word);
}

std::optional<std::string> word_budget_warning(const PageType& type, std::int64_t words) {
  const bool short_of = words < type.least_words;
  if (!short_of && words <= type.most_words) return std::nullopt;
  return "word-budget: " + std::to_string(words) + " words of prose; a page of type " + type.name + " has " +
         std::to_string(type.least_words) + " to " + std::to_string(type.most_words);
}

}  // namespace ossilar::workers::wiki
