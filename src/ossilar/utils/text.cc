// Decoding follows the table of well-formed sequences in RFC 3629, section 4: the lead byte gives the length
// and the range of the second byte. That range alone keeps overlong forms, surrogates and values above
// U+10FFFF out, so no code point has to be checked afterwards.
//
// Most text is ASCII, so the functions that every page passes through take ASCII in larger steps. Bytes that
// are not UTF-8 are stepped over one at a time: every loop ends, whatever the text.

#include "ossilar/utils/text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <numeric>
#include <utility>
#include <vector>

namespace ossilar::utils {
namespace {

struct Decoded {
  char32_t code = 0;
  std::size_t size = 0;  // 0: the bytes here are not UTF-8
};

// Lead bytes from `first` to `last`: their second byte is from `low` to `high`, and they begin `size` bytes.
struct LeadByte {
  std::uint8_t first, last, low, high;
  std::size_t size;
};
constexpr std::array<LeadByte, 8> kLeadBytes{{
    {0xC2, 0xDF, 0x80, 0xBF, 2},
    {0xE0, 0xE0, 0xA0, 0xBF, 3},
    {0xE1, 0xEC, 0x80, 0xBF, 3},
    {0xED, 0xED, 0x80, 0x9F, 3},
    {0xEE, 0xEF, 0x80, 0xBF, 3},
    {0xF0, 0xF0, 0x90, 0xBF, 4},
    {0xF1, 0xF3, 0x80, 0xBF, 4},
    {0xF4, 0xF4, 0x80, 0x8F, 4},
}};

Decoded decode_sequence(std::string_view text, std::size_t at, const LeadByte& lead) {
  if (at + lead.size > text.size()) return {};
  const std::uint8_t second = byte_at(text, at + 1);
  if (second < lead.low || second > lead.high) return {};
  // The bits of the lead byte that belong to the code point: five of two bytes, four of three, three of four.
  char32_t code = byte_at(text, at) & (0xFFU >> (lead.size + 1));
  for (std::size_t i = 1; i < lead.size; ++i) {
    const std::uint8_t next = byte_at(text, at + i);
    if ((next & 0xC0U) != 0x80U) return {};
    code = (code << 6U) | (next & 0x3FU);
  }
  return {code, lead.size};
}

Decoded decode(std::string_view text, std::size_t at) {
  const std::uint8_t first = byte_at(text, at);
  if (first < 0x80) return {first, 1};
  for (const LeadByte& lead : kLeadBytes) {
    if (first >= lead.first && first <= lead.last) return decode_sequence(text, at, lead);
  }
  return {};
}

// The end of the run of ASCII that begins at `at`. Takes eight bytes at a time, by memcpy(), aligned or not.
std::size_t ascii_end(std::string_view text, std::size_t at) {
  std::uint64_t eight = 0;
  for (; at + sizeof eight <= text.size(); at += sizeof eight) {
    std::memcpy(&eight, text.data() + at, sizeof eight);
    if ((eight & 0x8080808080808080U) != 0) break;
  }
  while (at < text.size() && byte_at(text, at) < 0x80) ++at;
  return at;
}

// White_Space of PropList.txt. The C library's iswspace() depends on the locale.
bool is_white_space(char32_t c) {
  return (c >= 0x09 && c <= 0x0D) || c == 0x20 || c == 0x85 || c == 0xA0 || c == 0x1680 ||
         (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F ||
         c == 0x3000;
}

// The size of the white space character at `at`, or 0.
std::size_t white_space_size(std::string_view text, std::size_t at) {
  if (byte_at(text, at) < 0x80) return is_white_space(byte_at(text, at)) ? 1 : 0;
  const Decoded decoded = decode(text, at);
  return decoded.size > 0 && is_white_space(decoded.code) ? decoded.size : 0;
}

// The size of the white space character that ends at `end`, or 0. UTF-8 is not decoded backwards: each length
// that such a character can have, three bytes at most, is tried.
std::size_t white_space_size_before(std::string_view text, std::size_t end) {
  for (std::size_t size = 1; size <= std::min<std::size_t>(3, end); ++size) {
    if (white_space_size(text.substr(0, end), end - size) == size) return size;
  }
  return 0;
}

// What printable() escapes. Of C1, terminals obey U+009B as they do ESC [.
bool is_hidden(char32_t c) {
  const bool control = (c < 0x20 && c != '\t' && c != '\n') || (c >= 0x7F && c < 0xA0);
  const bool bidi = c == 0x061C || c == 0x200E || c == 0x200F || (c >= 0x202A && c <= 0x202E) ||
                    (c >= 0x2066 && c <= 0x2069);
  return control || bidi;
}

// Whether `text` is ASCII that is shown as it is. Reads to the end without a branch, so that the compiler can
// take many bytes at a time.
bool is_plain_ascii(std::string_view text) {
  unsigned found = 0;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    found |= byte >= 0x7F || (byte < 0x20 && c != '\t' && c != '\n') ? 1U : 0U;
  }
  return found == 0;
}

std::string formatted(const char* format, char32_t code) {
  std::array<char, 16> text{};  // more than "<U+10FFFF>" and a null
  std::snprintf(text.data(), text.size(), format, static_cast<unsigned>(code));
  return text.data();
}

std::string visible_escape(char32_t code) { return formatted(code < 0x100 ? "<%02X>" : "<U+%04X>", code); }

// Four digits are enough: is_hidden() is false above U+FFFF.
std::string json_escape(char32_t code) { return formatted("\\u%04x", code); }

// `text` with each hidden character, and each byte that is not UTF-8, replaced by what `escape` makes of it.
std::string with_escapes(std::string_view text, std::string (*escape)(char32_t)) {
  if (is_plain_ascii(text)) return std::string(text);
  std::string out;
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const Decoded decoded = decode(text, at);
    const std::size_t size = std::max<std::size_t>(decoded.size, 1);
    if (decoded.size == 0) {
      out += escape(byte_at(text, at));
    } else if (is_hidden(decoded.code)) {
      out += escape(decoded.code);
    } else {
      out += text.substr(at, size);
    }
    at += size;
  }
  return out;
}

}  // namespace

std::optional<std::size_t> first_invalid_utf8(std::string_view text) {
  for (std::size_t at = ascii_end(text, 0); at < text.size(); at = ascii_end(text, at)) {
    const Decoded decoded = decode(text, at);
    if (decoded.size == 0) return at;
    at += decoded.size;
  }
  return std::nullopt;
}

std::string valid_utf8(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t size = decode(text, at).size;
    out += size > 0 ? text.substr(at, size) : std::string_view("\xEF\xBF\xBD");
    at += std::max<std::size_t>(size, 1);
  }
  return out;
}

std::string_view strip(std::string_view text) {
  std::size_t begin = 0;
  while (begin < text.size()) {
    const std::size_t size = white_space_size(text, begin);
    if (size == 0) break;
    begin += size;
  }
  std::size_t end = text.size();
  while (end > begin) {
    const std::size_t size = white_space_size_before(text, end);
    if (size == 0) break;
    end -= size;
  }
  return text.substr(begin, end - begin);
}

std::string_view without_byte_order_mark(std::string_view text) {
  constexpr std::string_view kMark = "\xEF\xBB\xBF";
  return text.substr(text.starts_with(kMark) ? kMark.size() : 0);
}

std::string normalise_line_ends(std::string_view text) {
  if (text.find('\r') == text.npos) return std::string(text);
  std::string out;
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '\r') {
      out += text[at];
      continue;
    }
    out += '\n';
    if (at + 1 < text.size() && text[at + 1] == '\n') ++at;
  }
  return out;
}

std::vector<std::string_view> split_lines(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    lines.push_back(text.substr(0, end));
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  return lines;
}

std::size_t count_lines(std::string_view text) {
  const auto feeds = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
  return feeds + (!text.empty() && text.back() != '\n' ? 1 : 0);
}

std::vector<std::size_t> line_offsets(std::string_view text) {
  std::vector<std::size_t> offsets;
  for (std::size_t at = 0; at < text.size();) {
    offsets.push_back(at);
    const std::size_t feed = text.find('\n', at);
    at = feed == std::string_view::npos ? text.size() : feed + 1;
  }
  offsets.push_back(text.size());
  return offsets;
}

std::vector<std::string_view> split_words(std::string_view text) {
  std::vector<std::string_view> words;
  std::size_t start = 0;
  const auto end_word = [&](std::size_t at) {
    if (at > start) words.push_back(text.substr(start, at - start));
  };
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t space = white_space_size(text, at);
    if (space > 0) {
      end_word(at);
      start = at + space;
    }
    at += space > 0 ? space : std::max<std::size_t>(decode(text, at).size, 1);
  }
  end_word(text.size());
  return words;
}

std::string printable(std::string_view text) { return with_escapes(text, visible_escape); }

std::string printable_line(std::string_view text) {
  std::string line = printable(text);
  std::replace(line.begin(), line.end(), '\n', ' ');
  return line;
}

std::string printable_json(std::string_view json) { return with_escapes(json, json_escape); }

std::string join(const std::vector<std::string>& parts, std::string_view separator) {
  std::string out;
  for (const std::string& part : parts) {
    if (&part != parts.data()) out += separator;
    out += part;
  }
  return out;
}

std::size_t utf8_size(std::string_view text, std::size_t at) {
  const auto first = static_cast<unsigned char>(text[at]);
  const std::size_t size = first < 0xC0 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  return std::min(size, text.size() - at);
}

std::string_view utf8_prefix(std::string_view text, std::size_t limit) {
  if (text.size() <= limit) return text;
  // Back to the start of the character that the limit would divide.
  std::size_t end = limit;
  while (end > 0 && (byte_at(text, end) & 0xC0U) == 0x80U) --end;
  return text.substr(0, end);
}

std::string lower_case(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  return out;
}

// One row of the table is kept; `diagonal` is what the row above had one column to the left.
std::size_t edit_distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i);
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t substituted = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
      diagonal = std::exchange(row[j], std::min({row[j] + 1, row[j - 1] + 1, substituted}));
    }
  }
  return row[b.size()];
}

std::string iso_time(std::time_t time) {
  std::tm parts{};
  gmtime_r(&time, &parts);      // std::gmtime() shares one result among threads
  std::array<char, 32> text{};  // 20 characters and a NUL
  return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

}  // namespace ossilar::utils
