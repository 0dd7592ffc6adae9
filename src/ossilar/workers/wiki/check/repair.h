// Setting right what an inspection found and what needs no author.
#pragma once

#include <string>
#include <vector>

#include "ossilar/workers/wiki/check/adoption.h"
#include "ossilar/workers/wiki/check/finding.h"

namespace ossilar::workers::wiki {

// The write lock is held for its whole life. Every step leaves the wiki at least as whole as it was, so that
// who is cut short can begin anew: a page file is never changed, rows follow the files, and what is derived
// from both comes last.
class Repair {
 public:
  // `manifest` is what could be read of the manifests.
  Repair(Wiki& wiki, const ManifestContent& manifest, const std::vector<Finding>& findings);
  void run();

 private:
  void mend(const Finding& finding);
  void take_over(const std::string& page_id);
  void chunk_again(const std::string& page_id);
  void settle_digest(const std::string& page_id);
  void settle_leftover(const Finding& finding) const;

  Wiki& wiki_;
  const std::vector<Finding>& findings_;
  const store::StoredRows rows_;  // as they were found
  Adoption adoption_;
};

}  // namespace ossilar::workers::wiki
