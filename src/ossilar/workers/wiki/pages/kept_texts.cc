#include "ossilar/workers/wiki/pages/kept_texts.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "ossilar/utils/atomic_file.h"
#include "ossilar/utils/files.h"
#include "ossilar/utils/hash.h"

namespace ossilar::workers::wiki {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kLongestPageId = 60;
constexpr std::size_t kHashDigits = 12;
constexpr std::string_view kPlain = "abcdefghijklmnopqrstuvwxyz0123456789-_.";

}  // namespace

// A page id comes from outside and may be anything.
std::string KeptTexts::name_of(const std::string& page_id, const std::string& content) {
  std::string name = page_id.substr(0, kLongestPageId);
  std::replace_if(
      name.begin(), name.end(), [](char c) { return kPlain.find(c) == kPlain.npos; }, '-');
  if (name.empty() || name.front() == '.') name.insert(0, "page");
  return name + "-" + utils::sha256_hex(page_id + '\n' + content).substr(0, kHashDigits) + ".md";
}

std::string KeptTexts::keep(const std::string& page_id, const std::string& content) const {
  std::string name = name_of(page_id, content);
  utils::atomic_write(directory_ / name, content);
  if (most_ > 0) drop_oldest();
  return name;
}

// A name that is taken is of the same content, kept before. Where the file cannot be moved, as to another
// file system, its content is kept.
std::string KeptTexts::take(const std::string& page_id, const fs::path& file,
                            const std::string& content) const {
  constexpr std::size_t kMostAlike = 16;
  for (std::size_t alike = 0; alike < kMostAlike; ++alike) {
    std::string name = name_of(page_id, content + std::string(alike, '\n'));
    if (utils::move_file(file, directory_ / name)) return name;
  }
  std::string name = keep(page_id, content);
  std::error_code gone;
  fs::remove(file, gone);
  return name;
}

std::optional<std::string> KeptTexts::read(const std::string& name) const {
  if (name.empty() || name.front() == '.' || name.find('/') != name.npos) return std::nullopt;
  std::error_code error;
  if (!fs::is_regular_file(fs::symlink_status(directory_ / name, error))) return std::nullopt;
  return utils::read_text_file_within(directory_, directory_ / name);
}

void KeptTexts::drop_oldest() const {
  std::vector<std::pair<fs::file_time_type, fs::path>> kept;
  for (const fs::directory_entry& entry : fs::directory_iterator(directory_)) {
    std::error_code gone;  // another process tidies up too
    const auto time = entry.last_write_time(gone);
    if (!gone && entry.path().extension() == ".md") kept.emplace_back(time, entry.path());
  }
  if (kept.size() <= most_) return;
  std::sort(kept.begin(), kept.end());
  for (std::size_t i = 0; i < kept.size() - most_; ++i) {
    std::error_code gone;
    fs::remove(kept[i].second, gone);
  }
}

}  // namespace ossilar::workers::wiki
