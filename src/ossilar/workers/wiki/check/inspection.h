// Finding what is wrong with a wiki. wiki_check.cc runs one inspection for a check and another after a
// repair, to see what is left.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ossilar/workers/wiki/check/finding.h"
#include "ossilar/workers/wiki/check/page_inspection.h"
#include "ossilar/workers/wiki/host/wiki.h"
#include "ossilar/workers/wiki/pages/manifest.h"

namespace ossilar::workers::wiki {

// One look at everything; each page file is read once. It changes nothing of the wiki.
//
// Threads: one, which holds the write lock for the object's whole life: a save that is half made would look
// like a fault. Page files are read on all cores meanwhile. Failures: a page file that cannot be read is a
// finding; a folder or a generated list that cannot be read ends the inspection with utils::Error, and so
// does the store with store::StorageError.
class Inspection {
 public:
  explicit Inspection(Wiki& wiki);
  // To be called once: it hands the findings out.
  std::vector<Finding> run();

  // What the manifests say, as far as they can be read.
  const ManifestContent& manifest() const { return manifest_; }

 private:
  void inspect_setup();
  void inspect_folder();
  // Whether the entry is a page file to be read.
  bool inspect_entry(const std::filesystem::directory_entry& entry, std::vector<Finding>& findings);
  std::optional<PageFile> inspect_page_file(const std::filesystem::path& file,
                                            std::vector<Finding>& findings) const;
  void inspect_differing(const PageFile& page, std::vector<Finding>& findings);
  void inspect_stranger(const PageFile& page, std::vector<Finding>& findings);
  void inspect_rows();
  void inspect_digests();
  void inspect_generated();
  // Paths of temporary files, each with whether a writer may just have created it.
  std::map<std::string, bool> leftover_files() const;
  void inspect_leftovers(std::map<std::string, bool> left);
  void inspect_states();
  void inspect_list(const ListFile& list);
  void inspect_former_files();
  Finding difference(const PageFile& page) const;
  bool is_whole(const PageFile& page) const;
  Finding unusable(const std::filesystem::path& file, const std::string& page_id,
                   const std::string& message) const;
  bool is_blocked(const std::string& page_id) const;
  std::string relative(const std::filesystem::path& path) const;
  std::string page_path(const std::string& page_id) const;
  void add(Finding finding) { findings_.push_back(std::move(finding)); }

  Wiki& wiki_;
  std::shared_ptr<const PlannedWiki> planned_;
  store::StoredRows rows_;
  store::PageDigests digests_;
  TitleIndex titles_;
  ManifestContent manifest_;
  StringSet seen_;                              // page ids with something in their file's place
  StringSet renamed_;                           // ids that pages had before a renaming that was cut short
  std::vector<std::filesystem::path> blocked_;  // symbolic links in the place of folders of pages
  std::vector<Finding> findings_;
};

// The directories that this program writes files in: the repository's root and those below it. Directories
// that cannot be listed are left out.
std::vector<std::filesystem::path> written_directories(const WikiPaths& paths);

}  // namespace ossilar::workers::wiki
