// A page's record: what a clone needs to know about the page besides its text, as it was when the page was
// saved. It ends the generated part of the page file, as a comment that no forge shows:
//
//   <!-- ossilar:record
//   {"type": "module", "title": "Alpha"}
//   {"former_title": "The first"}
//   {"former_id": "src/first"}
//   {"source": "src/alpha.cpp", "hash": "2c26b46b..."}
//   {"cited": "src/alpha.cpp", "file": "2c26b46b68ffc68f", "blob": "30d74d25...", "commit": "cbf2d0a1..."}
//   {"cites": "src/alpha.cpp:L1-L3", "says": "81f2a37c", "text": "9f86d081884c7d65", ..., "file":
//   "2c26b46b68ffc68f"}
//   {"confirmed": "2026-11-25T09:30:00Z", "commit": "cbf2d0a1..."}
//   -->
//
// One fact a line and in a fixed order, so that a save changes few lines and git merges the others. An
// adopted page gets its source hashes from here. Those of the sources as they are today would be at hand too,
// but would make a page that is cloned, merged or copied look fresher than it is.
//
// host/orchestrator.cc writes records; check/adoption.cc and check/older_format.cc read them and write those
// of migrated pages. Pure functions: any thread may call, and no text of a page makes them fail.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ossilar/utils/json.h"
#include "ossilar/workers/wiki/citing/claims.h"

namespace ossilar::workers::wiki {

// A page of which nobody knows against which sources it was written has a record only once it was renamed,
// and the record has former ids alone.
struct PageRecord {
  std::string type;
  std::string title;
  std::string agent_title;                           // "" when no agent chose the title
  std::vector<std::string> former_titles;            // oldest first
  std::map<std::string, std::string> source_hashes;  // as in the page's row
  std::vector<KnownClaim> claims;                    // also those whose lines do not exist any more
  std::vector<Map> confirmations;                    // {"confirmed", "commit", "section"}
  std::vector<std::string> former_ids = {};          // oldest first

  // Whether it says more than which ids the page had.
  bool tells_of_text() const;
};

// The record as it stands in a page file, a line feed at its end. It never contains `-->` but as its end.
std::string record_text(const PageRecord& record);

// The record in the generated part of a page file's text; none if there is none or its end is missing. Skips
// lines that hold no fact, and facts of an unknown kind, which a later version may have written.
std::optional<PageRecord> record_of(std::string_view page_text);

// The page file's text with this record in the place of its own, at the end of a text that has none.
std::string with_record_replaced(std::string_view page_text, const PageRecord& record);

// A page file's text without its record, to compare what does not depend on when it was saved.
std::string without_record(std::string_view page_text);

// The record of the page whose row is `row`, for a page file that has none: from the row's type, title, build
// cache, source hashes and citations. Throws utils::Error if the JSON text of one is damaged.
PageRecord record_of_row(const Map& row);

}  // namespace ossilar::workers::wiki
