// What a page file says of itself: all that a clone needs, beside the text, to know the page as it was when
// it was saved. It stands at the end of the generated part, in a comment that no forge shows:
//
//   <!-- ossilar:record
//   {"type": "module", "title": "Alpha"}
//   {"former_title": "The first"}
//   {"source": "src/alpha.cpp", "hash": "2c26b46b..."}
//   {"cites": "src/alpha.cpp:L1-L3", "text": "9f86d081884c7d65"}
//   -->
//
// One fact a line and in a fixed order, so that a save changes few lines and git merges the others. Nothing
// in it is derived from sources as they are today: a page that is copied, merged or cloned never looks
// fresher than it is.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ossilar/utils/json.h"

namespace ossilar::workers::wiki {

struct PageRecord {
  std::string type;
  std::string title;
  std::string agent_title;                           // "" when no agent chose the title
  std::vector<std::string> former_titles;            // oldest first
  std::map<std::string, std::string> source_hashes;  // as in the page's row
  std::vector<Map> citations;                        // as in the page's row
};

// The record as it stands in a page file, its line feed at the end.
std::string record_text(const PageRecord& record);

// The record in the generated part of a page file's text, or none. Lines that are no facts of a record, or
// facts that are not known here, are passed over.
std::optional<PageRecord> record_of(std::string_view page_text);

// A page file's text without its record.
std::string without_record(std::string_view page_text);

// The record that is known of a page by `row` (its title, build cache, source hashes and citations).
PageRecord record_of_row(const Map& row);

}  // namespace ossilar::workers::wiki
