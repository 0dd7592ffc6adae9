#include "ossilar/utils/fold.h"

#include <utf8proc.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

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

}  // namespace

std::string fold(std::string_view text) {
  return mapped(collapse_blanks(text),
                UTF8PROC_STABLE | UTF8PROC_COMPOSE | UTF8PROC_COMPAT | UTF8PROC_CASEFOLD | UTF8PROC_IGNORE);
}

std::string collapse_label(std::string_view text) {
  static constexpr std::string_view kBlanks = " \t\r\n";
  std::string out;
  for (std::size_t at = text.find_first_not_of(kBlanks); at != std::string_view::npos;) {
    const std::size_t end = std::min(text.find_first_of(kBlanks, at), text.size());
    if (!out.empty()) out += ' ';
    out += text.substr(at, end - at);
    at = text.find_first_not_of(kBlanks, end);
  }
  return out;
}

std::string fold_label(std::string_view text) { return mapped(collapse_label(text), UTF8PROC_CASEFOLD); }

}  // namespace ossilar::utils
