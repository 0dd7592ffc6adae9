// Setting right what an inspection found and what needs no author. wiki_check.cc runs it for `check --fix`.
#pragma once

#include <string>
#include <vector>

#include "ossilar/workers/wiki/check/adoption.h"
#include "ossilar/workers/wiki/check/finding.h"

namespace ossilar::workers::wiki {

// Threads: one, which holds the write lock from before the inspection until the repair has ended. Lifetime:
// the findings must outlive it.
//
// Failures: run() throws utils::Error for the first thing that it cannot read or write, and ends there. Every
// step leaves the wiki at least as whole as it was, so a repair that fails or is killed can be run again: no
// text of an author is changed, rows follow the files, and what is derived from both comes last.
class Repair {
 public:
  // `manifest` and `findings` are an inspection's.
  Repair(Wiki& wiki, const ManifestContent& manifest, const std::vector<Finding>& findings);
  // Mends the findings that are fixable, then digests and lists. To be called once.
  void run();

 private:
  void mend(const Finding& finding);
  void take_over(const std::string& page_id);
  void finish_renaming(const std::string& page_id);
  void chunk_again(const std::string& page_id);
  void settle_digest(const std::string& page_id);
  void settle_leftover(const Finding& finding) const;

  Wiki& wiki_;
  const std::vector<Finding>& findings_;
  const store::StoredRows rows_;  // as the inspection found them
  Adoption adoption_;
};

}  // namespace ossilar::workers::wiki
