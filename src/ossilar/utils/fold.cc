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

std::string mapped(std::string_view text, int options) {
  utf8proc_uint8_t* result = nullptr;
  const auto size = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                                 static_cast<utf8proc_ssize_t>(text.size()), &result,
                                 static_cast<utf8proc_option_t>(options));
  const std::unique_ptr<utf8proc_uint8_t, decltype(&std::free)> owned(result, &std::free);
  if (size < 0) return std::string(text);
  return {reinterpret_cast<const char*>(result), static_cast<std::size_t>(size)};
}

bool is_ascii(std::string_view text) {
  unsigned char all = 0;
  for (const char c : text) all |= static_cast<unsigned char>(c);
  return all < 0x80;
}

char small(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// What mapping comes to for ASCII.
std::string small_letters(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), small);
  return text;
}

// `text` with each run of white space, which `is_blank` tells, as one blank and none at the ends.
template <class IsBlank>
std::string collapsed(std::string_view text, IsBlank is_blank) {
  std::string out;
  out.reserve(text.size());
  bool blank = false;  // one that is written before the next character, if there is one
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
