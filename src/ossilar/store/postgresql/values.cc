#include "ossilar/store/postgresql/values.h"

#include <algorithm>

#include "ossilar/store/stored_form.h"
#include "ossilar/utils/files.h"

namespace ossilar::store::postgresql {
namespace {

constexpr char kEscape = '\x01';

std::string stored_text(const std::string& text) {
  utils::require_utf8(text, "the text to store or look up");
  const auto is_special = [](char c) { return c == '\0' || c == kEscape; };
  if (std::none_of(text.begin(), text.end(), is_special)) return text;
  std::string stored;
  stored.reserve(text.size() + 8);
  for (const char c : text) {
    stored += is_special(c) ? kEscape : c;
    if (is_special(c)) stored += c == '\0' ? '0' : '1';
  }
  return stored;
}

std::string hexadecimal(std::string_view bytes) {
  static constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text = "\\x";
  text.reserve(2 + bytes.size() * 2);
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += kDigits[byte >> 4U];
    text += kDigits[byte & 0xfU];
  }
  return text;
}

unsigned digit_of(char c) {
  if (c >= '0' && c <= '9') return static_cast<unsigned>(c - '0');
  if (c >= 'a' && c <= 'f') return static_cast<unsigned>(c - 'a' + 10);
  throw DamagedError("a stored value is no hexadecimal number");
}

// An element of an array: quoted, so that no text means NULL or ends the array.
void append_quoted(std::string& array, std::string_view text) {
  array += array.size() > 1 ? ",\"" : "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') array += '\\';
    array += c;
  }
  array += '"';
}

}  // namespace

Value::Value(const std::string& text) : text_(stored_text(text)) {}

Value::Value(Bytes bytes) : text_(hexadecimal(bytes.bytes)) {}

Value::Value(const std::vector<std::string>& texts) : text_("{") {
  for (const std::string& text : texts) append_quoted(text_, stored_text(text));
  text_ += '}';
}

Value::Value(const std::vector<std::int64_t>& numbers) : text_("{") {
  for (const std::int64_t number : numbers)
    text_.append(text_.size() > 1 ? "," : "").append(std::to_string(number));
  text_ += '}';
}

Value::Value(const std::vector<std::optional<Bytes>>& blobs) : text_("{") {
  for (const auto& blob : blobs) {
    if (blob) {
      append_quoted(text_, hexadecimal(blob->bytes));
    } else {
      text_ += text_.size() > 1 ? ",NULL" : "NULL";
    }
  }
  text_ += '}';
}

std::string text_of_stored(std::string_view stored) {
  if (stored.find(kEscape) == stored.npos) return std::string(stored);
  std::string text;
  text.reserve(stored.size());
  for (std::size_t at = 0; at < stored.size(); ++at) {
    if (stored[at] != kEscape) {
      text += stored[at];
      continue;
    }
    if (++at == stored.size()) throw DamagedError("a stored text ends within an escape");
    text += stored[at] == '0' ? '\0' : kEscape;
  }
  return text;
}

std::string bytes_of_stored(std::string_view stored) {
  if (!stored.starts_with("\\x") || stored.size() % 2 != 0) throw DamagedError("a stored value is no bytea");
  std::string bytes;
  bytes.reserve(stored.size() / 2);
  for (std::size_t at = 2; at < stored.size(); at += 2)
    bytes += static_cast<char>(digit_of(stored[at]) << 4U | digit_of(stored[at + 1]));
  return bytes;
}

}  // namespace ossilar::store::postgresql
