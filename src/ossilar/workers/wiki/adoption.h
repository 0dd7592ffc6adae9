// Making rows for page files that came with a clone.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>

#include "ossilar/workers/wiki/manifest.h"
#include "ossilar/workers/wiki/orchestrator.h"

namespace ossilar::workers::wiki {

// One run of WikiGenerator::adopt_pages(); the write lock is held for its whole life.
class Adoption {
 public:
  Adoption(WikiGenerator& wiki, ManifestContent manifest) : wiki_(wiki), manifest_(std::move(manifest)) {}
  AdoptionReport run();

 private:
  void adopt_file(const std::filesystem::path& file, const std::string& page_id);
  void adopt_text(const std::string& page_id, const std::string& text, const PagePlan* plan,
                  const Map* entry);
  store::PageFields fields_of(const std::string& page_id, const std::string& text, const PagePlan* plan,
                              const Map* entry, FinalizedPage page);

  WikiGenerator& wiki_;
  ManifestContent manifest_;
  std::shared_ptr<const PlannedWiki> planned_;
  AdoptionReport report_;
};

// The manifest of the wiki at `wiki_dir`; empty when there is none.
ManifestContent load_manifest(const std::filesystem::path& wiki_dir);

}  // namespace ossilar::workers::wiki
