// Keys of the server's advisory locks. Internal to this room.
#pragma once

#include <charconv>
#include <cstdint>
#include <string>

#include "ossilar/utils/hash.h"

namespace ossilar::store::postgresql {

// 60 bits of a hash of `what`, so two practically never share a key. The sign bit is left out: pg_locks shows
// the key in two halves without one.
inline std::int64_t advisory_key(const std::string& what) {
  const std::string digits = utils::sha256_hex(what).substr(0, 15);
  std::int64_t key = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), key, 16);
  return key;
}

}  // namespace ossilar::store::postgresql
