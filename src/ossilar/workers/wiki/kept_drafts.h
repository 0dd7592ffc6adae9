// Texts whose save was refused, kept for their authors.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace ossilar::workers::wiki {

// A folder of refused texts, the newest fifty of them.
//
// Thread-safety: every member may be called from any thread, and several processes may use one folder.
class KeptDrafts {
 public:
  // `directory` is made when the first text is kept.
  explicit KeptDrafts(std::filesystem::path directory) : directory_(std::move(directory)) {}

  // Keeps `content`, which was meant for `page_id`, and gives the name of its file: the page id and a hash of
  // the content. The same content for the same page is kept once. "" when it cannot be kept, which is logged:
  // the refusal is what the author must hear of.
  std::string keep(const std::string& page_id, const std::string& content) const;

  // The text under a name that keep() gave, or none.
  std::optional<std::string> read(const std::string& name) const;

 private:
  void drop_oldest() const;
  const std::filesystem::path directory_;
};

}  // namespace ossilar::workers::wiki
