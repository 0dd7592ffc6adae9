#include "ossilar/store/stored_form.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <set>

#include "ossilar/utils/identifiers.h"

namespace ossilar::store {
namespace {

constexpr std::size_t kNumberBytes = 4;
static_assert(sizeof(float) == kNumberBytes);

// Bounds the work for a pasted text: each term is a list of matches to merge.
constexpr std::size_t kMostTerms = 64;

}  // namespace

Map read_json(const std::string& text, const std::string& what) {
  try {
    return utils::parse_json(text, what);
  } catch (const utils::Error& error) {
    throw DamagedError(error.what());
  }
}

// Parses what it made: a text that the parser refuses must be refused here, where the caller can still be
// told, not when it is read back.
std::string stored_json(const Map& value, const std::string& what) {
  std::string text = utils::json_text(value);
  utils::parse_json(text, what);
  return text;
}

StoredPage page_of_columns(const std::vector<std::string>& columns) {
  std::size_t at = 0;
  const auto text = [&] { return columns.at(at++); };
  const auto json = [&] { return read_json(columns.at(at++), "a list of the row"); };
  StoredPage page;
  page.title = text();
  PageFields& fields = page.fields;
  fields.description = text();
  fields.importance = text();
  fields.level = std::stoi(text());
  fields.parent_section = text();
  fields.rel_path = text();
  fields.source_files = json().get<std::vector<std::string>>();
  fields.source_hashes = json().get<std::map<std::string, std::string>>();
  fields.symbols = json().get<std::vector<Map>>();
  fields.related_pages = json().get<std::vector<std::string>>();
  fields.citations = json().get<std::vector<Map>>();
  fields.content_hash = text();
  fields.model = text();
  fields.status = text();
  fields.summary = text();
  fields.build_cache = text();
  fields.page_type = text();
  return page;
}

std::string vector_bytes(const Vector& vector) {
  std::string bytes;
  bytes.reserve(vector.size() * kNumberBytes);
  for (const float number : vector) {
    const auto bits = std::bit_cast<std::uint32_t>(number);
    for (unsigned shift = 0; shift < 32; shift += 8) bytes += static_cast<char>(bits >> shift & 0xffU);
  }
  return bytes;
}

Map embedding_form(const Vector& vector) {
  const std::string bytes = vector_bytes(vector);
  return Map::binary({bytes.begin(), bytes.end()});
}

Vector vector_of(std::string_view bytes) {
  Vector vector;
  read_vector(bytes, vector);
  return vector;
}

// Stored little-endian, as memory has it on nearly every machine: then the bytes are copied as they are.
void read_vector(std::string_view bytes, Vector& vector) {
  if (bytes.size() % kNumberBytes != 0) throw DamagedError("the vector of a passage is truncated");
  vector.resize(bytes.size() / kNumberBytes);
  if constexpr (std::endian::native == std::endian::little) {
    if (!bytes.empty()) std::memcpy(vector.data(), bytes.data(), bytes.size());
    return;
  }
  for (std::size_t number = 0; number < vector.size(); ++number) {
    std::uint32_t bits = 0;
    for (std::size_t i = kNumberBytes; i-- > 0;)
      bits = bits << 8U | static_cast<unsigned char>(bytes[number * kNumberBytes + i]);
    vector[number] = std::bit_cast<float>(bits);
  }
}

std::string embedded_bytes(const Map& embedding) {
  if (!embedding.is_binary()) return vector_bytes(embedding.get<Vector>());
  const Map::binary_t& bytes = embedding.get_binary();
  return {bytes.begin(), bytes.end()};
}

// Vectors of one model have one size; min() only keeps a damaged one from being read beyond its end. Several
// sums, as the compiler may not reorder one: it adds those side by side.
double dot(const Vector& a, const Vector& b) {
  constexpr std::size_t kSums = 8;
  const std::size_t size = std::min(a.size(), b.size());
  std::array<double, kSums> sums{};
  std::size_t at = 0;
  for (; at + kSums <= size; at += kSums)
    for (std::size_t i = 0; i < kSums; ++i) sums[i] += static_cast<double>(a[at + i]) * b[at + i];
  for (; at < size; ++at) sums[0] += static_cast<double>(a[at]) * b[at];
  return std::accumulate(sums.begin(), sums.end(), 0.0);
}

std::string required_text(const Map& chunk, const char* key) {
  const Map& value = utils::member(chunk, key);
  if (!value.is_string()) throw utils::Error(std::string("a chunk has no ") + key);
  return value.get<std::string>();
}

std::string spelled_out(std::string_view text) {
  std::string words;
  words.reserve(text.size() + text.size() / 2);  // a guess: identifiers come twice, other words once
  for (utils::TokenReader token(text); token.next();) {
    for (std::size_t i = 0; i < token.size(); ++i) words.append(token.part(i)).append(" ");
    if (token.size() > 1) words.append(token.joined()).append(" ");
  }
  return words;
}

std::vector<std::string> question_terms(std::string_view words) {
  std::vector<std::string> terms;
  std::set<std::string> seen;
  const auto add = [&](const std::string& term) {
    if (terms.size() < kMostTerms && seen.insert(term).second) terms.push_back(term);
  };
  for (const utils::Token& token : utils::tokens_of(words)) {
    for (const std::string& part : token.parts) add(part);
    if (token.parts.size() > 1) add(token.joined());
  }
  return terms;
}

}  // namespace ossilar::store
