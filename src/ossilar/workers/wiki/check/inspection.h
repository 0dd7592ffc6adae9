// Finding what is wrong with a wiki.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ossilar/workers/wiki/check/finding.h"
#include "ossilar/workers/wiki/host/wiki.h"
#include "ossilar/workers/wiki/pages/manifest.h"

namespace ossilar::workers::wiki {

// One look at everything; each page file is read once. The write lock is held for its whole life. Writes
// nothing.
class Inspection {
 public:
  explicit Inspection(Wiki& wiki);
  std::vector<Finding> run();

  // What the manifests say, as far as they can be read.
  const ManifestContent& manifest() const { return manifest_; }

 private:
  void inspect_setup();
  void inspect_folder();
  void inspect_entry(const std::filesystem::directory_entry& entry);
  void inspect_page(const std::filesystem::path& file, const std::string& page_id);
  void inspect_stranger(const std::string& page_id, const std::string& text);
  void inspect_difference(const std::string& page_id, const std::string& text);
  void inspect_derived(const std::string& page_id, const std::string& text, const Map& row);
  void inspect_citations(const std::string& page_id, const std::string& text);
  void inspect_rows();
  void inspect_digests();
  void inspect_generated();
  // To whether they may be new.
  std::map<std::string, bool> leftover_files() const;
  void inspect_leftovers(std::map<std::string, bool> left);
  void inspect_states();
  void inspect_list(const ListFile& list);
  void inspect_former_files();
  bool is_whole(const std::string& page_id, const std::string& text) const;
  bool is_blocked(const std::string& page_id) const;
  std::string relative(const std::filesystem::path& path) const;
  std::string page_path(const std::string& page_id) const;
  void add(Finding finding) { findings_.push_back(std::move(finding)); }
  void add_unusable(const std::filesystem::path& file, const std::string& page_id,
                    const std::string& message);

  Wiki& wiki_;
  std::shared_ptr<const PlannedWiki> planned_;
  store::StoredRows rows_;
  store::PageDigests digests_;
  TitleIndex titles_;
  ManifestContent manifest_;
  StringSet seen_;                              // page ids with something in their file's place
  std::vector<std::filesystem::path> blocked_;  // folders of pages that cannot be looked into
  std::vector<Finding> findings_;
};

// The directories, below the repository's root, that this program writes files in.
std::vector<std::filesystem::path> written_directories(const WikiPaths& paths);

}  // namespace ossilar::workers::wiki
