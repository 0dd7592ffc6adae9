// What the plan knows of pages that were saved. host/plan_maker.h takes it from the rows; moved_files.h and
// kept_ids.h read it.
//
// Thread-safety: plain values.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "ossilar/source/source_index.h"

namespace ossilar::workers::wiki {

// A file that a page rested on when it was saved.
struct SavedFile {
  std::string path;
  source::ContentHash content;  // as of that save; none where it is not known
  bool is_cited = false;
  bool operator==(const SavedFile&) const = default;
};

struct SavedPage {
  std::string type;              // the name of a PageType
  std::vector<SavedFile> files;  // in the order of their paths, each path once
  bool operator==(const SavedPage&) const = default;
};

// By page id: the plan must not depend on the order in which rows are read.
using SavedPages = std::map<std::string, SavedPage, std::less<>>;

}  // namespace ossilar::workers::wiki
