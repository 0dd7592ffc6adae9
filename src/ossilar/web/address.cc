#include "ossilar/web/address.h"

#include <algorithm>
#include <cctype>
#include <vector>

#include "ossilar/utils/text.h"

namespace ossilar::web {
namespace {

constexpr std::string_view kEnding = ".html";

std::string percent_encoded(std::string_view text, std::string_view kept) {
  static constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool is_plain = byte < 0x80 && (std::isalnum(byte) != 0 || kept.find(c) != std::string_view::npos);
    if (is_plain) {
      out += c;
    } else {
      out += '%';
      out += kDigits[byte >> 4U];
      out += kDigits[byte & 15U];
    }
  }
  return out;
}

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string encoded_path(std::string_view text) { return percent_encoded(text, "-_.~/"); }
std::string encoded_value(std::string_view text) { return percent_encoded(text, "-_.~"); }

std::optional<std::string> decoded(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '%') {
      out += text[at];
      continue;
    }
    if (at + 2 >= text.size()) return std::nullopt;
    const int high = hex_value(text[at + 1]);
    const int low = hex_value(text[at + 2]);
    if (high < 0 || low < 0) return std::nullopt;
    out += static_cast<char>(high * 16 + low);
    at += 2;
  }
  if (out.find('\0') != std::string::npos || utils::first_invalid_utf8(out)) return std::nullopt;
  return out;
}

std::string page_address(std::string_view page_id) {
  return "pages/" + encoded_path(page_id) + std::string(kEnding);
}

std::string source_address(std::string_view path) {
  return "source/" + encoded_path(path) + std::string(kEnding);
}

std::string lines_fragment(std::int64_t first, std::int64_t last) {
  std::string fragment = "L" + std::to_string(first);
  if (last != first) fragment += "-L" + std::to_string(last);
  return fragment;
}

std::string lines_address(const workers::wiki::Citation& citation) {
  return source_address(citation.path) + "#" + lines_fragment(citation.first, citation.last);
}

std::string title_slug(std::string_view title) {
  std::string slug;
  for (const char c : utils::lower_case(title)) {
    const auto byte = static_cast<unsigned char>(c);
    if (std::isalnum(byte) != 0 || byte >= 0x80) {
      slug += c;
    } else if (!slug.empty() && slug.back() != '-') {
      slug += '-';
    }
  }
  slug = utils::utf8_prefix(slug, 100);
  while (!slug.empty() && slug.back() == '-') slug.pop_back();
  return slug;
}

std::optional<std::string> name_below(std::string_view folder, std::string_view path) {
  if (!path.starts_with(folder) || !path.ends_with(kEnding)) return std::nullopt;
  path.remove_prefix(folder.size());
  if (path.size() <= kEnding.size()) return std::nullopt;
  path.remove_suffix(kEnding.size());
  return std::string(path);
}

std::string way_to_root(std::string_view path) {
  std::string way;
  for (auto folders = std::count(path.begin(), path.end(), '/'); folders > 0; --folders) way += "../";
  return way;
}

std::optional<std::string> resolved_path(std::string_view from, std::string_view target) {
  std::vector<std::string_view> parts;
  const auto take = [&parts](std::string_view path) {
    while (true) {
      const std::size_t end = std::min(path.find('/'), path.size());
      const std::string_view part = path.substr(0, end);
      if (part == "..") {
        if (parts.empty()) return false;
        parts.pop_back();
      } else if (!part.empty() && part != ".") {
        parts.push_back(part);
      }
      if (end == path.size()) return true;
      path.remove_prefix(end + 1);
    }
  };
  const std::size_t folder_end = from.rfind('/');
  if (folder_end != std::string_view::npos && !take(from.substr(0, folder_end))) return std::nullopt;
  if (!take(target)) return std::nullopt;
  std::string path;
  for (const std::string_view part : parts) {
    if (!path.empty()) path += '/';
    path += part;
  }
  return path;
}

}  // namespace ossilar::web
