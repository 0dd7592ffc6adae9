// Values between this program and the server: parameters of a statement and fields of its result, all in
// PostgreSQL's text form.
//
// A text of PostgreSQL cannot hold the character NUL, and ours may. So NUL is stored as \x01 and "0", and
// \x01 as \x01 and "1"; texts without these two characters, which is to say practically all, are stored as
// they are.
//
// Thread-safety: any.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ossilar::store::postgresql {

// Any bytes, stored as bytea.
struct Bytes {
  std::string_view bytes;
};

// A parameter. Throws utils::Error for text that is not UTF-8.
class Value {
 public:
  // NOLINTBEGIN(google-explicit-constructor): a statement's parameters are listed as they are
  Value(const std::string& text);
  Value(const char* text) : Value(std::string(text)) {}
  Value(std::int64_t number) : text_(std::to_string(number)) {}
  Value(int number) : text_(std::to_string(number)) {}
  Value(Bytes bytes);
  // Arrays; those of texts and bytes must be cast in the statement, as in $1::text[].
  Value(const std::vector<std::string>& texts);
  Value(const std::vector<std::int64_t>& numbers);
  Value(const std::vector<std::optional<Bytes>>& blobs);
  // NOLINTEND(google-explicit-constructor)

  const char* c_str() const { return text_.c_str(); }

 private:
  std::string text_;
};

// What Value made of a text, turned back.
std::string text_of_stored(std::string_view stored);
// The bytes of a bytea in its hexadecimal form: "\x00ff".
std::string bytes_of_stored(std::string_view stored);

}  // namespace ossilar::store::postgresql
