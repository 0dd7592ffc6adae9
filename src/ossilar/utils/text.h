// Text as this program understands it: UTF-8, lines ended by line feeds, white space as Unicode defines it.
//
// Used by every room. Pages, requests and configuration are checked by require_utf8() (files.h) where they
// come in; what goes to a terminal passes printable().
//
// Thread-safety: every function may be called from any thread. None fails, and none recurses; each takes
// linear time. Views that are returned point into the argument, which must outlive them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ossilar::utils {

// The byte at `at`, which must be within `text`, without a sign: what a char has is up to the platform.
inline std::uint8_t byte_at(std::string_view text, std::size_t at) {
  return static_cast<std::uint8_t>(text[at]);
}

// The offset of the first byte that is not part of well-formed UTF-8 (RFC 3629: no surrogates, no overlong
// forms, nothing above U+10FFFF), or nothing when all of `text` is well-formed.
std::optional<std::size_t> first_invalid_utf8(std::string_view text);

// `text` with each byte that is not part of well-formed UTF-8 replaced by U+FFFD. For display: different
// texts may become the same.
std::string valid_utf8(std::string_view text);

// `text` without leading and trailing characters of Unicode's White_Space property (PropList.txt, Unicode
// 15). A byte that is not UTF-8 is no white space.
std::string_view strip(std::string_view text);

// `text` without a byte order mark at its start. Some editors write one; a text that is known to be UTF-8
// does not need it.
std::string_view without_byte_order_mark(std::string_view text);

// CR LF and lone CR each become one LF.
std::string normalise_line_ends(std::string_view text);

// The lines of `text` without their line feeds. What follows the last line feed is a line unless it is empty.
std::vector<std::string_view> split_lines(std::string_view text);

// How many lines split_lines() returns.
std::size_t count_lines(std::string_view text);

// The byte offset at which each line of `text` starts, followed by the size of `text`.
std::vector<std::size_t> line_offsets(std::string_view text);

// The words of `text`: runs of characters that are not White_Space.
std::vector<std::string_view> split_words(std::string_view text);

// `text` made safe for a terminal. Control characters (C0 but tab and line feed, DEL, C1), which a terminal
// would obey, and bidirectional formatting characters, which change the order in which text is shown, become
// visible escapes such as <1B> and <U+202E>; bytes that are not UTF-8 become <FF>.
std::string printable(std::string_view text);

// The same on one line: each line feed becomes a blank.
std::string printable_line(std::string_view text);

// The JSON text `json` (UTF-8) with \u escapes for what printable() would replace: it still parses to the
// same value.
std::string printable_json(std::string_view json);

// `parts` with `separator` between each two.
std::string join(const std::vector<std::string>& parts, std::string_view separator);

// How many bytes the character at `at` has, by its lead byte and never beyond the end of `text`; a
// continuation byte counts as one. `at` is below the size.
std::size_t utf8_size(std::string_view text, std::size_t at);

// The longest prefix of `text` of at most `limit` bytes that does not end inside a UTF-8 character.
std::string_view utf8_prefix(std::string_view text, std::size_t limit);

// `text` with its ASCII letters in lower case; other characters stay.
std::string lower_case(std::string_view text);

// The Levenshtein distance of `a` and `b`: how many bytes are inserted, deleted or replaced at least. By the
// Wagner-Fischer table, in time of the product of their lengths, so callers limit both.
std::size_t edit_distance(std::string_view a, std::string_view b);

// A moment in UTC as ISO 8601: "2026-01-02T03:04:05Z".
std::string iso_time(std::time_t time);

}  // namespace ossilar::utils
