// Whether a wiki is whole: its files, its rows and what is derived from them; and setting right what can be.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include "ossilar/source/indexer.h"

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

struct CheckReport {
  std::size_t pages = 0;          // that are stored
  std::vector<Finding> fixed;     // with `fix`: what was found and is gone
  std::vector<Finding> findings;  // what is left

  // Whether nothing is wrong; an unverified page is told of, and that is all.
  bool is_clean() const;
};

struct CheckOptions {
  bool fix = false;
  std::string writer;  // names this program to those who wait for its lock
  source::Progress indexing = {};
};

// Checks the wiki of the repository at `root` under its write lock, so that no save is seen half made. A
// damaged database is a finding, and with `fix` it is set aside and made anew from the wiki's files. `fix`
// takes page files as they stand and never changes one. As every command does, both first take over what came
// by version control and bring a wiki of an older format forward; beyond that a check changes nothing. Cut
// short at any point, `fix` can be run again.
//
// Throws utils::ConfigError for a repository that was never set up, _WikiBusy, and utils::Error for what it
// cannot read.
CheckReport check_wiki(const std::filesystem::path& root, const CheckOptions& options);

}  // namespace ossilar::workers::wiki
