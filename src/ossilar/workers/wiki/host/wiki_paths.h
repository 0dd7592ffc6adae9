// Where the parts of a wiki lie.
#pragma once

#include <filesystem>
#include <string>

namespace ossilar::workers::wiki {

// All paths are absolute and free of symbolic links.
struct WikiPaths {
  std::filesystem::path root;   // of the repository
  std::filesystem::path wiki;   // the wiki's root
  std::filesystem::path pages;  // the directory of the page files
  std::filesystem::path state;  // `.ossilar`
  std::filesystem::path page(const std::string& page_id) const { return pages / (page_id + ".md"); }
  std::filesystem::path database() const { return state / "index.db"; }
  std::filesystem::path lock() const { return state / "write.lock"; }
  // The file whose bytes savers of one page take turns by.
  std::filesystem::path turns() const { return state / "turns.lock"; }
  // The texts of refused saves.
  std::filesystem::path drafts() const { return state / "drafts"; }
  // The texts that a save or a repair took the place of and that no author has read.
  std::filesystem::path replaced() const { return state / "replaced"; }
};

// The text of the page's file, line ends normalised. Throws utils::Error for what cannot be read as a page.
std::string page_text(const WikiPaths& paths, const std::string& page_id);

}  // namespace ossilar::workers::wiki
