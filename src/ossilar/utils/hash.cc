#include "ossilar/utils/hash.h"

#include <openssl/evp.h>

#include <array>

#include "ossilar/utils/error.h"

namespace ossilar::utils {

std::string sha256_hex(std::string_view bytes) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int size = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), &size, EVP_sha256(), nullptr) != 1) {
    throw Error("cannot compute a SHA-256: the crypto library refused");
  }
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(std::size_t{2} * size);
  for (unsigned int i = 0; i < size; ++i) {
    out += kDigits[digest[i] >> 4U];
    out += kDigits[digest[i] & 0xFU];
  }
  return out;
}

}  // namespace ossilar::utils
