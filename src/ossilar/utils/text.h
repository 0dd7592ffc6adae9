// Text as this program means it: UTF-8, lines ended by line feeds, white space as Unicode has it.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ossilar::utils {

// The offset of the first byte that is no part of well-formed UTF-8 (RFC 3629: no surrogates, no overlong
// forms, nothing above U+10FFFF), or none when all of `text` is.
std::optional<std::size_t> first_invalid_utf8(std::string_view text);

// `text` with each byte that is no part of well-formed UTF-8 replaced by U+FFFD. For display only.
std::string valid_utf8(std::string_view text);

// `text` without leading and trailing characters of Unicode's White_Space property (PropList.txt, Unicode
// 15). A byte that is not UTF-8 is no white space. The view points into `text`.
std::string_view strip(std::string_view text);

// `text` without a byte order mark at its start: some editors put one there, and it says nothing of a text
// that is UTF-8 anyway.
std::string_view without_byte_order_mark(std::string_view text);

// CR LF and lone CR each become one LF.
std::string normalise_line_ends(std::string_view text);

// The lines of `text` without their line feeds; a last line without one counts. The views point into `text`.
std::vector<std::string_view> split_lines(std::string_view text);

// How many lines split_lines() gives.
std::size_t count_lines(std::string_view text);

// The byte offset of the start of each line of `text`, and last the size of `text`.
std::vector<std::size_t> line_offsets(std::string_view text);

// The words of `text`: runs of characters that are not White_Space. The views point into `text`.
std::vector<std::string_view> split_words(std::string_view text);

// `text` fit for a terminal: control characters (C0 but tab and line feed, DEL, C1) and the bidirectional
// formatting characters stand as visible escapes such as <1B> and <U+202E>, bytes that are not UTF-8 as <FF>.
std::string printable(std::string_view text);

// The same on one line: a line feed stands as a blank.
std::string printable_line(std::string_view text);

// The JSON text `json` (UTF-8), which says the same but has \u escapes where printable() puts its own.
std::string printable_json(std::string_view json);

// `parts` with `separator` between each two.
std::string join(const std::vector<std::string>& parts, std::string_view separator);

// How many bytes the character at `at` of UTF-8 text has; a stray byte counts as one. `at` is below the size.
std::size_t utf8_size(std::string_view text, std::size_t at);

// The longest prefix of `text` of at most `limit` bytes that does not end inside a UTF-8 character.
std::string_view utf8_prefix(std::string_view text, std::size_t limit);

// `text` with its ASCII letters in lower case; other characters stay.
std::string lower_case(std::string_view text);

}  // namespace ossilar::utils
