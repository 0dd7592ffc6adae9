// Finding what is wrong with one page: whether what was derived from its text is stored as it should be, and
// where its citations lead. inspection.cc asks for each page, on all cores.
#pragma once

#include <string>
#include <vector>

#include "ossilar/utils/json.h"
#include "ossilar/workers/wiki/check/finding.h"
#include "ossilar/workers/wiki/host/planned_wiki.h"
#include "ossilar/workers/wiki/host/title_index.h"

namespace ossilar::workers::wiki {

struct PageFile {
  std::string page_id;
  std::string text;
};

// What citations and page links are judged by. Both must outlive the call.
struct JudgedBy {
  const PlannedWiki& planned;
  const TitleIndex& titles;
};

inline constexpr const char* kRebuildsIt = "ossilar check --fix rebuilds it";

// Adds what is wrong with a page whose file is its row's. `digest` (null for none) and `chunks` are what the
// store has of it, and `subject` names its file to people.
//
// Thread-safety of both: any thread may call, with findings of its own.
void add_page_findings(const PageFile& page, const Map& row, const Map* digest,
                       const std::vector<Map>& chunks, const JudgedBy& by, const std::string& subject,
                       std::vector<Finding>& findings);

// The same of its citations alone.
void add_citation_findings(const PageFile& page, const JudgedBy& by, const std::string& subject,
                           std::vector<Finding>& findings);

}  // namespace ossilar::workers::wiki
