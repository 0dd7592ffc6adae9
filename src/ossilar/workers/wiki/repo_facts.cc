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
  gmtime_r(&now, &parts);
  std::array<char, 32> text{};
  std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text.data();
}

void _atomic_write(const std::filesystem::path& path, std::string_view text) {
  utils::atomic_exchange(path, text);
}

}  // namespace ossilar::workers::wiki
