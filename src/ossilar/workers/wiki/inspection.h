// Finding what is wrong with a wiki.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ossilar/workers/wiki/manifest.h"
#include "ossilar/workers/wiki/orchestrator.h"
#include "ossilar/workers/wiki/wiki_check.h"

namespace ossilar::workers::wiki {

// One look at everything; each page file is read once. The write lock is held for its whole life. Writes
// nothing.
class Inspection {
 public:
  explicit Inspection(WikiGenerator& wiki);
  std::vector<Finding> run();

  // The manifest as far as it can be read; valid after run().
  const ManifestContent& manifest() const { return manifest_; }

 private:
  void read_manifest();
  void inspect_setup();
  void inspect_folder();
  void inspect_entry(const std::filesystem::directory_entry& entry);
  void inspect_page(const std::filesystem::path& file, const std::string& page_id);
  void inspect_stranger(const std::string& page_id, const std::string& text);
  void inspect_difference(const std::string& page_id, const std::string& text, const Map& row);
  void inspect_derived(const std::string& page_id, const std::string& text, const Map& row);
  void inspect_citations(const std::string& page_id, const std::string& text);
  void inspect_rows();
  void inspect_digests();
  void inspect_generated();
  // To whether they may be new.
  std::map<std::string, bool> leftover_files() const;
  void inspect_leftovers(std::map<std::string, bool> left);
  void inspect_states();
  void inspect_list(Fault fault, const char* name, const std::string& expected);
  bool is_whole(const std::string& page_id, const std::string& text, const Map& row);
  bool is_blocked(const std::string& page_id) const;
  std::string relative(const std::filesystem::path& path) const;
  std::string page_path(const std::string& page_id) const;
  void add(Finding finding) { findings_.push_back(std::move(finding)); }
  void add_unusable(const std::filesystem::path& file, const std::string& page_id,
                    const std::string& message);

  WikiGenerator& wiki_;
  std::shared_ptr<const PlannedWiki> planned_;
  store::StoredRows rows_;
  store::PageDigests digests_;
  ManifestContent manifest_;
  std::optional<std::string> manifest_text_;  // none: there is no file
  std::string manifest_failure_;
  StringSet seen_;                              // page ids with something in their file's place
  std::vector<std::filesystem::path> blocked_;  // folders of pages that cannot be looked into
  std::vector<Finding> findings_;
};

// The directories, below the repository's root, that this program writes files in.
std::vector<std::filesystem::path> written_directories(const WikiPaths& paths);

}  // namespace ossilar::workers::wiki
