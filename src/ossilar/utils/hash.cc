// The algorithm is looked up once for the process: looking it up for each text takes longer than hashing a
// short one. The context that each call allocates costs some tens of nanoseconds beside hundreds for the
// hash, so none is kept.

#include "ossilar/utils/hash.h"

#include <openssl/evp.h>

#include <array>
#include <memory>

#include "ossilar/utils/error.h"

namespace ossilar::utils {

namespace {

using Algorithm = std::unique_ptr<EVP_MD, decltype(&EVP_MD_free)>;

const EVP_MD* sha256() {
  static const Algorithm algorithm(EVP_MD_fetch(nullptr, "SHA256", nullptr), &EVP_MD_free);
  return algorithm.get();
}

}  // namespace

std::string sha256_hex(std::string_view bytes) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int size = 0;
  if (sha256() == nullptr ||
      EVP_Digest(bytes.data(), bytes.size(), digest.data(), &size, sha256(), nullptr) != 1)
    throw Error("cannot compute a SHA-256 hash: the crypto library failed");
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
