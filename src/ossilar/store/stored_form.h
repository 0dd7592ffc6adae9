// The form in which values are stored, the same in every database: JSON texts, vectors, the words of a text
// for an index. Internal to store/ and the rooms below it.
//
// Thread-safety: any.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "ossilar/store/repository.h"
#include "ossilar/utils/error.h"
#include "ossilar/utils/json.h"

namespace ossilar::store {

// Stored data has a form that this program never writes. Never leaves a store, which makes it a StorageError
// that is damaged().
class DamagedError : public utils::Error {
 public:
  explicit DamagedError(const std::string& message, utils::Place place = utils::Place::current())
      : Error(message, place) {}
};

// `value` as the JSON text that is stored. Throws utils::Error or Map::exception for what read_json() would
// refuse: text that is not UTF-8, nesting too deep. `what` names the value in messages.
std::string stored_json(const Map& value, const std::string& what);

// The value of a text that stored_json() made. Throws DamagedError for a text that is no such JSON.
Map read_json(const std::string& text, const std::string& what);

// A row from the texts of its columns: the title, then the fields of PageFields in their order. Throws
// DamagedError for a list that is no JSON.
StoredPage page_of_columns(const std::vector<std::string>& columns);

// The numbers in IEEE 754 single precision, least significant byte first whatever the machine is.
std::string vector_bytes(const Vector& vector);
// The vector whose stored form is `bytes`. Throws DamagedError if a part of a number is missing.
Vector vector_of(std::string_view bytes);
// The same into a vector whose memory is used again.
void read_vector(std::string_view bytes, Vector& vector);
// The stored form of a chunk's vector, which it may have already: see embedding_form().
std::string embedded_bytes(const Map& embedding);
// The cosine, as both have length 1.
double dot(const Vector& a, const Vector& b);

// A text of a chunk record; throws utils::Error where it has none under `key`.
std::string required_text(const Map& chunk, const char* key);

// The words of `text` for an index: each part of an identifier, and the identifier in one piece without its
// joints. So parse_http_header and parseHTTPHeader find each other, by their parts and as a whole.
std::string spelled_out(std::string_view text);

// The terms of a question, split as in spelled_out(), each once, in order. Cut to a number that bounds the
// work for a pasted text; real questions have fewer words.
std::vector<std::string> question_terms(std::string_view words);

}  // namespace ossilar::store
