// _atomic_write() exchanges instead of renaming over the old file: a hand may edit the page between the look
// under the lock and this write, and what it wrote then lies beside the new file instead of being lost.
#include "ossilar/workers/wiki/repo_facts.h"

#include <ctime>

#include "ossilar/utils/atomic_file.h"
#include "ossilar/utils/files.h"
#include "ossilar/utils/hash.h"
#include "ossilar/utils/text.h"

namespace ossilar::workers::wiki {

std::string _text_hash(std::string_view text) { return utils::sha256_hex(text); }

std::string _now_iso() { return utils::iso_time(std::time(nullptr)); }

void _atomic_write(const std::filesystem::path& path, std::string_view text) {
  utils::atomic_exchange(path, text);
}

}  // namespace ossilar::workers::wiki
