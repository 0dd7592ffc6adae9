#pragma once

#include <string>
#include <string_view>

namespace ossilar::utils {

// The SHA-256 (FIPS 180-4) of `bytes`, as 64 lower-case hexadecimal digits.
std::string sha256_hex(std::string_view bytes);

}  // namespace ossilar::utils
