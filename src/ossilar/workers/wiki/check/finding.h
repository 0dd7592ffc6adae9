// What a check finds: a finding is one thing that is wrong, where, and what to do about it.
#pragma once

#include <string>

namespace ossilar::workers::wiki {

enum class Fault {
  database,          // the database is damaged
  setup,             // a file of the set-up is missing
  newer_page,        // a whole page that is not its row's: of a save cut short, of version control, of a hand
  edited_page,       // a page that a hand has changed: what ossilar adds to a page does not fit its text
  file_without_row,  // a page file that no row knows
  row_without_file,  // a row whose page file is gone
  page_file,         // a page file that cannot be taken as one
  chunks,            // passages of another text than the page's
  digest,            // a digest of another text than the page's
  index,             // index.md is not what the rows make it
  manifest,          // manifest.json is not what the rows make it
  leftover,          // a temporary file of a write that was cut short
  citations,         // a citation that the source does not bear out any more
  stale,             // a page whose sources changed
  unverified,        // a page that does not say what it was written against; no fault of the wiki
};

// As messages and documents name it: "newer-page".
const char* fault_name(Fault fault);

struct Finding {
  Fault fault = Fault::database;
  std::string subject;  // the file, relative to the repository's root
  std::string page_id;  // "" when it is not about one page
  std::string message;  // what is wrong, without the subject
  std::string advice;   // what to do
  bool fixable = false;

  bool operator==(const Finding& other) const {
    return fault == other.fault && subject == other.subject && page_id == other.page_id;
  }
};

}  // namespace ossilar::workers::wiki
