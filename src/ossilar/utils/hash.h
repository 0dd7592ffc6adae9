// The hash by which contents are compared: of pages and sources in rows, manifests and records, of passages,
// and in the names of kept texts and former files.
//
// Thread-safety: may be called from any thread.

#pragma once

#include <string>
#include <string_view>

namespace ossilar::utils {

// The SHA-256 (FIPS 180-4) of `bytes`, as 64 lower-case hexadecimal digits. Throws Error when the crypto
// library refuses, as it does without memory.
std::string sha256_hex(std::string_view bytes);

}  // namespace ossilar::utils
