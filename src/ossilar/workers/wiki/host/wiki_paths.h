// Where the parts of a wiki lie. open_wiki.h works the paths out; Wiki::paths() gives those of an open wiki.
//
// Threads: any; they are values that nobody changes.
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
  // Does not check `page_id`: pass one that plan, rows or a manifest have; any other may lead out of `pages`.
  std::filesystem::path page(const std::string& page_id) const { return pages / (page_id + ".md"); }
  std::filesystem::path database() const { return state / "index.db"; }
  std::filesystem::path lock() const { return state / "write.lock"; }
  // Its bytes are locked by savers of one page in turn, see page_turn.h.
  std::filesystem::path turns() const { return state / "turns.lock"; }
  // The texts of refused saves.
  std::filesystem::path drafts() const { return state / "drafts"; }
  // The texts that a save or a repair replaced and that no save had stored: a hand's, above all.
  std::filesystem::path replaced() const { return state / "replaced"; }
};

// The text of the page's file, line ends normalised. Throws utils::IoError for a file that cannot be read,
// and utils::Error for one that is not UTF-8 or is a link out of the pages directory.
std::string page_text(const WikiPaths& paths, const std::string& page_id);

}  // namespace ossilar::workers::wiki
