// Texts that did not become, or are no longer, a page's, kept for their authors: refused drafts, and what a
// save or a repair took the place of.
#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace ossilar::workers::wiki {

// A folder of texts.
//
// Thread-safety: every member may be called from any thread, and several processes may use one folder.
class KeptTexts {
 public:
  // `directory` is made when the first text is kept. Of more than `most` texts the oldest go; 0 keeps all.
  explicit KeptTexts(std::filesystem::path directory, std::size_t most = 0)
      : directory_(std::move(directory)), most_(most) {}

  // Keeps `content`, which is `page_id`'s, and gives the name of its file: the page id and a hash of the
  // content. The same content for the same page is kept once. It is on disk at the return. Throws IoError.
  std::string keep(const std::string& page_id, const std::string& content) const;

  // The name under which keep() keeps it.
  static std::string name_of(const std::string& page_id, const std::string& content);

  // Keeps the file `file` itself, whose bytes are `content`: what somebody who has it open still writes is
  // kept too. It is on disk at the return. Throws IoError.
  std::string take(const std::string& page_id, const std::filesystem::path& file,
                   const std::string& content) const;

  // The text under a name that keep() gave, or none.
  std::optional<std::string> read(const std::string& name) const;

 private:
  void drop_oldest() const;
  const std::filesystem::path directory_;
  const std::size_t most_;
};

}  // namespace ossilar::workers::wiki
