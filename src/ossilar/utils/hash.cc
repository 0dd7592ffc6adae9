// The library's one-line call would do, but it looks the algorithm up and allocates a context each time,
// which takes longer than hashing a short text; a save hashes many. So the algorithm is looked up once for
// the process and every thread keeps a context, which no other thread may use.

#include "ossilar/utils/hash.h"

#include <openssl/evp.h>

#include <array>
#include <memory>

#include "ossilar/utils/error.h"

namespace ossilar::utils {

namespace {

using Context = std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)>;
using Algorithm = std::unique_ptr<EVP_MD, decltype(&EVP_MD_free)>;

const EVP_MD* sha256() {
  static const Algorithm algorithm(EVP_MD_fetch(nullptr, "SHA256", nullptr), &EVP_MD_free);
  return algorithm.get();
}

EVP_MD_CTX* context_of_thread() {
  thread_local const Context context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
  return context.get();
}

}  // namespace

std::string sha256_hex(std::string_view bytes) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int size = 0;
  EVP_MD_CTX* const context = context_of_thread();
  const bool made = context != nullptr && sha256() != nullptr &&
                    EVP_DigestInit_ex2(context, sha256(), nullptr) == 1 &&
                    EVP_DigestUpdate(context, bytes.data(), bytes.size()) == 1 &&
                    EVP_DigestFinal_ex(context, digest.data(), &size) == 1;
  if (!made) {
    throw Error("cannot compute a SHA-256 hash: the crypto library failed");
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
