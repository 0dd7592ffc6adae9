#include "ossilar/workers/wiki/host/wiki_paths.h"

#include "ossilar/utils/files.h"

namespace ossilar::workers::wiki {

std::string page_text(const WikiPaths& paths, const std::string& page_id) {
  return utils::read_text_file_within(paths.pages, paths.page(page_id));
}

}  // namespace ossilar::workers::wiki
