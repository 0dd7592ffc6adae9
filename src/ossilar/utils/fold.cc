// There are two foldings on purpose. fold() asks whether a person reads two names as the same. fold_label()
// has to answer as the Markdown parser does, or a citation would be defined for a label that the parser takes
// for another; a test compares the two.
//
// ASCII has a way of its own with the same result: most names are ASCII, and utf8proc allocates and decodes
// every character.

#include "ossilar/utils/fold.h"

#include <utf8proc.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <utility>

#include "ossilar/utils/text.h"

namespace ossilar::utils {
namespace {

std::string collapse_blanks(std::string_view text) {
  std::string out;
  for (const std::string_view word : split_words(text)) {
    if (!out.empty()) out += ' ';
    out += word;
  }
  return out;
}

// `text` mapped by utf8proc, or as it is when it is not UTF-8. The library's result comes from malloc().
std::string mapped(std::string_view text, int options) {
  utf8proc_uint8_t* result = nullptr;
  const auto size = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                                 static_cast<utf8proc_ssize_t>(text.size()), &result,
                                 static_cast<utf8proc_option_t>(options));
  const std::unique_ptr<utf8proc_uint8_t, decltype(&std::free)> owned(result, &std::free);
  if (size < 0) return std::string(text);
  return {reinterpret_cast<const char*>(result), static_cast<std::size_t>(size)};
}

// Reads to the end without a branch, so that the compiler can take many bytes at a time.
bool is_ascii(std::string_view text) {
  unsigned char all = 0;
  for (const char c : text) all |= static_cast<unsigned char>(c);
  return all < 0x80;
}

char small(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// What mapped() returns for ASCII.
std::string small_letters(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), small);
  return text;
}

// `text` with each run of characters for which `is_blank` is true as one blank, and none at the ends.
template <class IsBlank>
std::string collapsed(std::string_view text, IsBlank is_blank) {
  std::string out;
  out.reserve(text.size());
  bool blank = false;  // to be written before the next character, so that none stands at the end
  for (const char c : text) {
    if (is_blank(c)) {
      blank = !out.empty();
      continue;
    }
    if (blank) out += ' ';
    blank = false;
    out += c;
  }
  return out;
}

}  // namespace

std::string fold(std::string_view text) {
  const auto is_blank = [](char c) { return c == ' ' || (c >= '\t' && c <= '\r'); };
  if (is_ascii(text)) return small_letters(collapsed(text, is_blank));
  // The options of NFKC_Casefold; IGNORE drops what is never visible, such as a soft hyphen.
  return mapped(collapse_blanks(text),
                UTF8PROC_STABLE | UTF8PROC_COMPOSE | UTF8PROC_COMPAT | UTF8PROC_CASEFOLD | UTF8PROC_IGNORE);
}

std::string collapse_label(std::string_view text) {
  return collapsed(text, [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; });
}

std::string fold_label(std::string_view text) {
  std::string label = collapse_label(text);
  return is_ascii(label) ? small_letters(std::move(label)) : mapped(label, UTF8PROC_CASEFOLD);
}

}  // namespace ossilar::utils
