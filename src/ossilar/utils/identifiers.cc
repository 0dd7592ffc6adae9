// One pass over the bytes. Every passage of a page goes through here, for the index and for the embedder, so
// words are not made strings of their own: parts are appended to one buffer, and a run of small ASCII
// letters, the most common word, is copied as it is.
//
// Runs are found without decoding: the lead byte, and for two of them the byte after it, tells whether a
// character belongs to a word. Only ASCII letters have a case here; identifiers in other scripts are not
// split.

#include "ossilar/utils/identifiers.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include "ossilar/utils/fold.h"
#include "ossilar/utils/text.h"

namespace ossilar::utils {
namespace {

bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_upper(char c) { return c >= 'A' && c <= 'Z'; }
bool is_lower(char c) { return c >= 'a' && c <= 'z'; }

// What a byte of ASCII is. Flags, so that or-ing those of a run tells whether it has small letters only.
enum ByteKind : std::uint8_t { kNoWord = 0, kSmallLetter = 1, kOtherInWord = 2 };
constexpr std::array<std::uint8_t, 128> kByteKinds = [] {
  std::array<std::uint8_t, 128> kinds{};
  for (std::size_t c = 0; c < kinds.size(); ++c) {
    const bool other = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || c == '_';
    kinds[c] = c >= 'a' && c <= 'z' ? kSmallLetter : other ? kOtherInWord : kNoWord;
  }
  return kinds;
}();

// What the character at `at` is. The excluded blocks are whole ranges of lead bytes: C2 is U+0080 to U+00BF,
// E2 below B0 is U+2000 to U+2BFF, and E3 80 is U+3000 to U+303F.
std::uint8_t kind_at(std::string_view text, std::size_t at) {
  const std::uint8_t first = byte_at(text, at);
  if (first < 0x80) return kByteKinds[first];
  const std::uint8_t second = at + 1 < text.size() ? byte_at(text, at + 1) : 0;
  const bool word = first != 0xC2 && !(first == 0xE2 && second < 0xB0) && !(first == 0xE3 && second == 0x80);
  return word ? kOtherInWord : kNoWord;
}

// Whether a part begins at `at`, which is not the start: where digits begin or end (utf8), at a capital that
// follows no capital (fooBar), and at the last of several capitals if a small letter follows (HTTPHeader).
bool part_begins(std::string_view token, std::size_t at) {
  const char before = token[at - 1];
  const char here = token[at];
  if (is_digit(before) != is_digit(here)) return true;
  if (is_upper(here) && !is_upper(before)) return true;
  const bool next_is_lower = at + 1 < token.size() && is_lower(token[at + 1]);
  return is_upper(before) && is_upper(here) && next_is_lower;
}

struct Run {
  std::size_t end = 0;
  std::uint8_t kinds = kNoWord;  // of its characters, or-ed
};

// The run of word characters at the start of `text`.
Run first_run(std::string_view text) {
  Run run;
  while (run.end < text.size()) {
    const std::uint8_t kind = kind_at(text, run.end);
    if (kind == kNoWord) break;
    run.kinds |= kind;
    run.end += kind == kSmallLetter ? 1 : utf8_size(text, run.end);
  }
  return run;
}

}  // namespace

std::string Token::joined() const {
  std::string all;
  for (const std::string& part : parts) all += part;
  return all;
}

bool TokenReader::next() {
  folded_.clear();
  ends_.clear();
  while (ends_.empty() && !rest_.empty()) {
    const Run run = first_run(rest_);
    if (run.kinds == kSmallLetter) {
      folded_ = rest_.substr(0, run.end);
      ends_.push_back(run.end);
    } else {
      take(rest_.substr(0, run.end));
    }
    rest_.remove_prefix(run.end);
    if (!rest_.empty()) rest_.remove_prefix(utf8_size(rest_, 0));  // the character that ended the run
  }
  return !ends_.empty();
}

std::string_view TokenReader::part(std::size_t number) const {
  const std::size_t begin = number == 0 ? 0 : ends_[number - 1];
  return std::string_view(folded_).substr(begin, ends_[number] - begin);
}

// Adds the parts of one run, which `_` separates and part_begins() divides further.
void TokenReader::take(std::string_view run) {
  std::size_t begin = 0;
  const auto end_part = [&](std::size_t end) {
    if (end > begin) add_part(run.substr(begin, end - begin));
  };
  for (std::size_t at = 0; at < run.size(); ++at) {
    if (run[at] == '_') {
      end_part(at);
      begin = at + 1;
    } else if (at > begin && part_begins(run, at)) {
      end_part(at);
      begin = at;
    }
  }
  end_part(run.size());
}

// Appends fold(part). For ASCII that is lower case, done in place: fold() would make a string of every part.
void TokenReader::add_part(std::string_view part) {
  const bool ascii = std::all_of(part.begin(), part.end(), [](char c) { return (c & '\x80') == 0; });
  if (ascii) {
    const std::size_t begin = folded_.size();
    folded_ += part;
    for (std::size_t at = begin; at < folded_.size(); ++at) {
      if (is_upper(folded_[at])) folded_[at] = static_cast<char>(folded_[at] - 'A' + 'a');
    }
  } else {
    folded_ += fold(part);
  }
  ends_.push_back(folded_.size());
}

std::vector<Token> tokens_of(std::string_view text) {
  std::vector<Token> tokens;
  for (TokenReader reader(text); reader.next();) {
    Token& token = tokens.emplace_back();
    token.parts.reserve(reader.size());
    for (std::size_t i = 0; i < reader.size(); ++i) token.parts.emplace_back(reader.part(i));
  }
  return tokens;
}

}  // namespace ossilar::utils
