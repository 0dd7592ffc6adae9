// Read within the pages directory, not by its path alone: a page file comes by version control and may be a
// symbolic link to any file of this machine. A link is followed only as long as it stays inside.
#include "ossilar/workers/wiki/host/wiki_paths.h"

#include "ossilar/utils/files.h"

namespace ossilar::workers::wiki {

std::string page_text(const WikiPaths& paths, const std::string& page_id) {
  return utils::read_text_file_within(paths.pages, paths.page(page_id));
}

}  // namespace ossilar::workers::wiki
