// A file's name is made of the page id and the content. So a text that is kept twice, even by two processes
// at once, ends up in one file. Numbered names would need a counter that processes share and lock.
//
// The name of a file that take() moved only tells its content at that moment, as an editor may write on.
// take() therefore looks for another name before it gives up on keeping a file itself.
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

// Enough to recognise the page. File systems allow 255 bytes a name, and the id may be longer than that.
constexpr std::size_t kLongestIdInName = 60;
// 48 bits: among a million texts of one page, two share a name with a chance of about 0.2 %.
constexpr std::size_t kHashDigits = 12;
// The characters of a page id, without the slash.
constexpr std::string_view kPlain = "abcdefghijklmnopqrstuvwxyz0123456789-_.";

}  // namespace

// The page id comes from a request and may be anything. Characters that could lead out of the folder, and a
// leading dot, are replaced or covered. That and the cut make different ids look alike, so the hash is over
// the whole id as well as the content.
std::string KeptTexts::name_of(const std::string& page_id, const std::string& content) {
  std::string name = page_id.substr(0, kLongestIdInName);
  std::replace_if(
      name.begin(), name.end(), [](char c) { return kPlain.find(c) == kPlain.npos; }, '-');
  if (name.empty() || name.front() == '.') name.insert(0, "page");
  return name + "-" + utils::sha256_hex(page_id + '\n' + content).substr(0, kHashDigits) + ".md";
}

std::string KeptTexts::keep(const std::string& page_id, const std::string& content) const {
  std::string name = name_of(page_id, content);
  // A text that is there already is written again: its time is renewed, so it counts as the newest.
  utils::atomic_write(directory_ / name, content);
  if (most_ > 0) drop_oldest();
  return name;
}

// If the name is taken, the same content was kept before. The file is moved all the same, under another name,
// as a process may have it open and write on; each line feed added to the hashed text gives a further name.
//
// move_file() gives false for a taken name and for another file system alike. In the second case every try
// fails, and the content is kept as a copy.
std::string KeptTexts::take(const std::string& page_id, const fs::path& file,
                            const std::string& content) const {
  // Bounds the tries. Each needs one more file that was kept of the same text and page.
  constexpr std::size_t kMostAlike = 16;
  for (std::size_t alike = 0; alike < kMostAlike; ++alike) {
    std::string name = name_of(page_id, content + std::string(alike, '\n'));
    if (utils::move_file(file, directory_ / name)) return name;
  }
  std::string name = keep(page_id, content);
  // The text is safe, so a failure to remove the file is ignored: the page's next save finds it again.
  std::error_code gone;
  fs::remove(file, gone);
  return name;
}

std::optional<std::string> KeptTexts::read(const std::string& name) const {
  // The name comes from a client: it must not lead out of the folder or to a write in progress, and a
  // symbolic link is not followed.
  if (name.empty() || name.front() == '.' || name.find('/') != name.npos) return std::nullopt;
  std::error_code error;
  if (!fs::is_regular_file(fs::symlink_status(directory_ / name, error))) return std::nullopt;
  return utils::read_text_file_within(directory_, directory_ / name);
}

void KeptTexts::drop_oldest() const {
  std::vector<std::pair<fs::file_time_type, fs::path>> kept;
  std::error_code ended;  // a folder that cannot be listed keeps all: the text just kept is what matters
  for (fs::directory_iterator at(directory_, ended), end; !ended && at != end; at.increment(ended)) {
    const fs::directory_entry& entry = *at;
    std::error_code gone;  // another process may have removed it since it was listed
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
