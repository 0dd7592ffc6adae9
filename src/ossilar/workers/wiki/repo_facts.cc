// _atomic_write() exchanges instead of renaming over the old file: a hand may edit the page between the look
// under the lock and this write, and what it wrote then lies beside the new file instead of being lost.
#include "ossilar/workers/wiki/repo_facts.h"

#include <array>
#include <ctime>

#include "ossilar/utils/atomic_file.h"
#include "ossilar/utils/files.h"
#include "ossilar/utils/hash.h"

namespace ossilar::workers::wiki {

std::string _text_hash(std::string_view text) { return utils::sha256_hex(text); }

std::string _now_iso() {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  gmtime_r(&now, &parts);       // std::gmtime() shares one result among threads
  std::array<char, 32> text{};  // 20 characters and a NUL
  std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text.data();
}

void _atomic_write(const std::filesystem::path& path, std::string_view text) {
  utils::atomic_exchange(path, text);
}

}  // namespace ossilar::workers::wiki
