// Links are neither listed nor followed: a linked file may lie outside the wiki, and saves refuse to write
// through links. Errors end the scan instead of failing it, because the caller only adds pages for the files
// found. Code that concludes something from a missing file lists for itself (Inspection::inspect_folder()).
#include "ossilar/workers/wiki/pages/page_files.h"

#include <algorithm>
#include <system_error>

namespace ossilar::workers::wiki {
namespace fs = std::filesystem;

std::vector<fs::path> page_files(const fs::path& pages) {
  std::vector<fs::path> files;
  std::error_code ended;
  for (fs::recursive_directory_iterator at(pages, ended), end; !ended && at != end; at.increment(ended)) {
    if (at->symlink_status().type() == fs::file_type::regular && at->path().extension() == ".md") {
      files.push_back(at->path());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::string page_id_of(const fs::path& pages, const fs::path& file) {
  return file.lexically_relative(pages).replace_extension().string();
}

}  // namespace ossilar::workers::wiki
