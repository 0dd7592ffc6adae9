// What a check finds: a finding is one thing that is wrong, where, and what to do about it. inspection.cc
// makes them, repair.cc mends those that are `fixable`, cli/check.cc shows them. Values only; any thread.
#pragma once

#include <array>
#include <cstddef>
#include <filesystem>
#include <string>

namespace ossilar::workers::wiki {

enum class Fault {
  database,          // the database is damaged
  setup,             // a file of the set-up is missing
  newer_page,        // a whole page that its row does not know: by a save cut short, version control, a hand
  edited_page,       // a page changed by hand: what ossilar adds below the marker does not fit its text
  file_without_row,  // a page file that no row knows
  row_without_file,  // a row whose page file is gone
  half_renamed,      // the new page file of a renaming that was cut short
  page_file,         // a page file that cannot be taken as one
  chunks,            // passages of another text than the page's
  digest,            // a digest of another text than the page's
  index,             // index.md is not what the rows make it
  manifest,          // manifest.json is not what the rows make it
  leftover,          // a temporary file of a write that was cut short
  citations,         // a citation of a file or of lines that do not exist (any more)
  stale,             // a page whose cited lines changed, or that is asked for something else
  unverified,        // a page that does not say against which sources it was written; the wiki is whole
  moved,             // a page of which cited text stands elsewhere
  drifted,           // a page whose sources changed where it cites nothing
  orphaned,          // a page that is no longer planned
};

struct FaultKind {
  const char* name;           // in messages and JSON documents; programs read it, so it stays
  bool leaves_clean = false;  // told of, and no fault of the wiki: `ossilar check` still ends with 0
};

// In the order of the enumeration.
inline constexpr std::array kFaultKinds{FaultKind{"database"},
                                        FaultKind{"setup"},
                                        FaultKind{"newer-page"},
                                        FaultKind{"edited-page"},
                                        FaultKind{"file-without-row"},
                                        FaultKind{"row-without-file"},
                                        FaultKind{"half-renamed"},
                                        FaultKind{"page-file"},
                                        FaultKind{"chunks"},
                                        FaultKind{"digest"},
                                        FaultKind{"index"},
                                        FaultKind{"manifest"},
                                        FaultKind{"leftover"},
                                        FaultKind{"citations"},
                                        FaultKind{"stale"},
                                        FaultKind{"unverified", true},
                                        FaultKind{"moved", true},
                                        FaultKind{"drifted", true},
                                        FaultKind{"orphaned", true}};
static_assert(kFaultKinds.size() == static_cast<std::size_t>(Fault::orphaned) + 1);

inline const FaultKind& kind_of(Fault fault) { return kFaultKinds.at(static_cast<std::size_t>(fault)); }
inline const char* fault_name(Fault fault) { return kind_of(fault).name; }

struct Finding {
  Fault fault = Fault::database;
  std::string subject;   // the file, relative to the repository's root
  std::string page_id;   // "" when it is not about one page
  std::string message;   // what is wrong, without the subject
  std::string advice;    // what to do
  bool fixable = false;  // by `ossilar check --fix`, without an author
  // Of a leftover. `subject` shows it as text, which the name of a file need not be.
  std::filesystem::path file = {};

  // Whether it is the same fault at the same place. Message and advice may differ: that is how a check after
  // a repair finds out what is left.
  bool operator==(const Finding& other) const {
    return fault == other.fault && subject == other.subject && page_id == other.page_id;
  }
};

}  // namespace ossilar::workers::wiki
