// Brackets in a page's text: citations of the source and links to other pages.
//
// CommonMark decides whether a bracket is one: each candidate gets a link definition, and counts if it then
// becomes a link. So code, HTML and escapes are read exactly as a forge's renderer reads them.
//
// The draft of a save reads brackets and makes links (host/orchestrator.cc, host/planned_wiki.cc). The parts
// of the form alone, bracketed() and parse_citation(), serve word counts, section caches and page records.
//
// Threads: functions without state, to be called from any thread. Failures: whatever an author wrote is read
// as something; the functions throw only what `read` and `page_by_title` throw. citation_of() and
// citation_label() throw nlohmann::json::exception for a map that citation_map() did not make.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "ossilar/source/source_index.h"
#include "ossilar/utils/json.h"
#include "ossilar/workers/wiki/finalize.h"

namespace ossilar::workers::wiki {

// `path:L10-L20`, or `path:L10` with first = last. Lines count from 1, both ends included.
struct Citation {
  std::string path;
  std::int64_t first = 0;
  std::int64_t last = 0;
  bool operator==(const Citation&) const = default;
  bool operator<(const Citation& other) const {
    return std::tie(path, first, last) < std::tie(other.path, other.first, other.last);
  }
};

// A citation as chunks and answers hold it: {"path", "first", "last"}. Rows hold more (citing/claims.h).
Map citation_map(const Citation& citation);
Citation citation_of(const Map& citation);
// The text between the brackets: `path:L10-L20`.
std::string citation_label(const Citation& citation);

// Reads the text of a source file, none where it cannot be had.
using ReadText = std::function<std::optional<std::string>(const std::string& path)>;

// Reads the text between a citation's brackets; none when it does not have the form of one. Whether path and
// lines exist is not asked here.
std::optional<Citation> parse_citation(std::string_view label);

// The texts between the innermost brackets of `text`, in order and with repetitions, those of 1 to 999 bytes:
// CommonMark links no longer label. Code and HTML are not left out. The views point into `text`.
std::vector<std::string_view> bracketed(std::string_view text);

// `text` without its citations, the blanks before them included.
std::string without_citations(std::string_view text);

// Gives the id of the page that a label names, or none.
using PageByTitle = std::function<std::optional<std::string>(std::string_view label)>;

// What the brackets of an authored text mean.
struct Brackets {
  std::vector<Citation> valid;       // each once, in the order of their first places
  std::vector<std::string> invalid;  // labels of the right form, but no such file or lines; each once
  std::vector<std::string>
      malformed;                     // labels that name an indexed file and lines in another form, each once
  std::vector<std::string> unknown;  // labels that read like the title of a page, and are none; each once
  std::vector<std::pair<std::string, Citation>> citation_labels;  // label to valid citation
  std::vector<std::pair<std::string, std::string>> page_labels;   // label to page id
};

// Reads a whole authored text: a part of it would be read without the link definitions, and the open code, of
// the rest.
Brackets read_brackets(std::string_view authored, const source::SourceIndex& index,
                       const PageByTitle& page_by_title);

// Why the citation that read_brackets() found invalid is so, and the nearest valid one, if there is any.
std::string invalid_citation_warning(const std::string& label, const source::SourceIndex& index);

// How a label that read_brackets() found malformed should be written.
std::string malformed_citation_warning(const std::string& label);

// The links of a page: citations to their lines, titles to their pages. `page_id` is the page that they stand
// on, `wiki_dir` the wiki's root relative to the repository's. Labels that are the same to CommonMark but
// mean different things get no link: it would be wrong for one of them.
PageLinks page_links(const Brackets& brackets, const std::string& page_id, const std::string& wiki_dir);

}  // namespace ossilar::workers::wiki
