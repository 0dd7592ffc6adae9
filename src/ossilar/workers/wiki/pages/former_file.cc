// The plain way would be to decide by the text that the save read before the swap. It loses an edit made
// after that read. So the file that came out of the swap is read itself, and two things keep its last edit
// safe: whether it is open for writing is asked before its text is read, and a file that must be kept is
// moved rather than copied, so that an editor which still has it open goes on writing to the kept file.
//
// A page has one fixed name for its former file, and a swap is refused while that name is taken. So a save
// settles an old one before its swap, and its own one after it.
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
  // O_NOFOLLOW: a link put in its place is an error. O_NONBLOCK: a pipe put there must not block us.
  const utils::UniqueFd opened(open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!opened && errno == ENOENT) return "";
  if (!opened) throw utils::IoError("cannot open " + file.string(), errno);
  // Asked before the read: from the swap on, the page's name opens the new file, so a "no" stays true and
  // the bytes read below are the last ones.
  const bool may_change = utils::is_open_for_writing(opened.get());
  // Without a limit the read always gives a value.
  const std::string bytes = *utils::read_at_most(opened.get(), std::string::npos, file.string());
  const bool is_text = !utils::first_invalid_utf8(bytes);
  if (may_change || !is_known(is_text ? utils::text_of(bytes, file.string()) : bytes))
    return replaced.take(page_id, file, bytes);
  // The directory is not synced: a power cut may bring the file back, at worst for a needless copy in
  // `replaced`.
  if (unlink(file.c_str()) != 0) throw utils::IoError("cannot remove " + file.string(), errno);
  return "";
}

std::vector<fs::path> former_files(const fs::path& pages) {
  std::vector<fs::path> found;
  std::error_code ended;
  for (fs::recursive_directory_iterator at(pages, ended), end; !ended && at != end; at.increment(ended)) {
    const std::string name = at->path().filename().string();
    // The form of the names that utils::former_file() makes.
    if (name.starts_with(".ossilar-") && name.ends_with(".former")) found.push_back(at->path());
  }
  std::sort(found.begin(), found.end());
  return found;
}

// The name holds a hash of the page file's name, which cannot be reversed, so every page file in the folder
// is tried.
std::optional<fs::path> page_of_former(const fs::path& former) {
  std::error_code ended;
  for (fs::directory_iterator at(former.parent_path(), ended), end; !ended && at != end;
       at.increment(ended)) {
    if (at->path().extension() == ".md" && utils::former_file(at->path()) == former) return at->path();
  }
  return std::nullopt;
}

}  // namespace ossilar::workers::wiki
