// Texts kept for their authors because they are not, or no longer, a page's: drafts whose save was refused
// (`.ossilar/drafts`), and texts that a save, a repair or a removal replaced (`.ossilar/replaced`).
//
// The Wiki (host/wiki.h) has one object for each folder. host/saving.cc keeps drafts and mcp/resources.cc
// reads them back; pages/former_file.cc, check/adoption.cc and check/repair.cc keep replaced texts.
#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace ossilar::workers::wiki {

// A folder with one Markdown file per text. A failed call leaves every other text as it was.
//
// Thread-safety: every member may be called from any thread, and several processes may use one folder.
// Nothing is cached and each file is written whole, so no lock is needed.
class KeptTexts {
 public:
  // `directory` is created with the first text. Beyond `most` texts the oldest are removed; 0 keeps all.
  explicit KeptTexts(std::filesystem::path directory, std::size_t most = 0)
      : directory_(std::move(directory)), most_(most) {}

  // Keeps `content`, a text of the page `page_id`, and gives the name of its file. The same content of the
  // same page is kept once. It is on disk when this returns. Throws utils::IoError if it cannot be written.
  std::string keep(const std::string& page_id, const std::string& content) const;

  // The file name that keep() gives the text, made of the page id and a hash: at most 80 bytes, without a
  // slash, never hidden. `page_id` may be any bytes.
  static std::string name_of(const std::string& page_id, const std::string& content);

  // Moves `file`, whose bytes are `content`, into the folder and gives its new name. Since the file itself is
  // moved, what a process that has it open still writes is kept too. From another file system only a copy of
  // `content` can be kept. It is on disk when this returns. Never removes old texts. Throws utils::IoError;
  // the text is then in the one place or the other.
  std::string take(const std::string& page_id, const std::filesystem::path& file,
                   const std::string& content) const;

  // The text under a name that keep() gave; none for any other name and for a text that is gone. Throws
  // utils::Error if the file cannot be read or is not UTF-8.
  std::optional<std::string> read(const std::string& name) const;

 private:
  void drop_oldest() const;
  const std::filesystem::path directory_;
  const std::size_t most_;
};

}  // namespace ossilar::workers::wiki
