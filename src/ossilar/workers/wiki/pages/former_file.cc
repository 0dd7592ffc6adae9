#include "ossilar/workers/wiki/pages/former_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "ossilar/utils/atomic_file.h"
#include "ossilar/utils/error.h"
#include "ossilar/utils/files.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/agent_save.h"

namespace ossilar::workers::wiki {

namespace fs = std::filesystem;

std::string saved_hash(const Map* row) {
  const bool is_saved = row != nullptr && utils::string_member(*row, "model") == kAgentModel;
  return is_saved ? utils::string_member(*row, "content_hash") : "";
}

std::string settle_former(const std::filesystem::path& page, const std::string& page_id,
                          const IsKnown& is_known, const KeptTexts& replaced) {
  const std::filesystem::path file = utils::former_file(page);
  const utils::UniqueFd opened(open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!opened && errno == ENOENT) return "";
  if (!opened) throw utils::IoError("cannot open " + file.string(), errno);
  // Asked before it is read: who opens it later finds another file under the page's name.
  const bool may_change = utils::is_open_for_writing(opened.get());
  const std::string bytes = *utils::read_at_most(opened.get(), std::string::npos, file.string());
  const bool is_text = !utils::first_invalid_utf8(bytes);
  if (may_change || !is_known(is_text ? utils::text_of(bytes, file.string()) : bytes))
    return replaced.take(page_id, file, bytes);
  if (unlink(file.c_str()) != 0) throw utils::IoError("cannot remove " + file.string(), errno);
  return "";
}

std::vector<fs::path> former_files(const fs::path& pages) {
  std::vector<fs::path> found;
  std::error_code ended;
  for (fs::recursive_directory_iterator at(pages, ended), end; !ended && at != end; at.increment(ended)) {
    const std::string name = at->path().filename().string();
    if (name.starts_with(".ossilar-") && name.ends_with(".former")) found.push_back(at->path());
  }
  std::sort(found.begin(), found.end());
  return found;
}

// Its name is a hash of the page file's, so the files beside it are asked.
std::optional<fs::path> page_of_former(const fs::path& former) {
  std::error_code ended;
  for (fs::directory_iterator at(former.parent_path(), ended), end; !ended && at != end;
       at.increment(ended)) {
    if (at->path().extension() == ".md" && utils::former_file(at->path()) == former) return at->path();
  }
  return std::nullopt;
}

}  // namespace ossilar::workers::wiki
