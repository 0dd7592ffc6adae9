// Prefixes are compared as they are, and only then is the rest split and decoded: these URIs are our own,
// made by page_uri() and by the templates, so a general URI parser would only accept more spellings of the
// same name.
#include "ossilar/mcp/protocol/uri.h"

#include <algorithm>

#include "ossilar/utils/text.h"

namespace ossilar::mcp {
namespace {

constexpr std::string_view kPages = "ossilar://pages/";
constexpr std::string_view kDrafts = "ossilar://drafts/";

// The value of a hexadecimal digit, or -1. Setting bit 0x20 makes an ASCII letter lower case.
int digit_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  const char lower = static_cast<char>(c | 0x20);
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// Percent-encoding, RFC 3986, section 2.1. None for a percent sign without two digits, and for a result that
// is not UTF-8. A decoded byte is not decoded again, so "%2541" is "%41".
std::optional<std::string> decoded(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    if (i + 2 >= text.size()) return std::nullopt;
    const int high = digit_value(text[i + 1]);
    const int low = digit_value(text[i + 2]);
    if (high < 0 || low < 0) return std::nullopt;
    out += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return utils::first_invalid_utf8(out) ? std::nullopt : std::optional(std::move(out));
}

}  // namespace

// Nothing to encode: a page id has only characters that a URI holds as they are.
std::string page_uri(std::string_view page_id) { return std::string(kPages).append(page_id); }

std::optional<ResourceName> parse_uri(std::string_view uri) {
  const bool draft = uri.starts_with(kDrafts);
  if (!draft && !uri.starts_with(kPages)) return std::nullopt;
  uri.remove_prefix(draft ? kDrafts.size() : kPages.size());
  // Before decoding: a '#' that is written %23 belongs to the name.
  const std::size_t fragment = std::min(uri.find('#'), uri.size());
  const auto name = decoded(uri.substr(0, fragment));
  const auto section = decoded(uri.substr(std::min(fragment + 1, uri.size())));
  if (!name || !section || name->empty()) return std::nullopt;
  // A draft has no sections; a fragment is ignored.
  if (draft) return ResourceName{ResourceName::Kind::draft, *name, ""};
  const auto kind = fragment == uri.size() ? ResourceName::Kind::page : ResourceName::Kind::section;
  return ResourceName{kind, *name, *section};
}

}  // namespace ossilar::mcp
