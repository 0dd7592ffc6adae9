// Brackets in a page's text: citations of the source and links to other pages.
//
// Whether a bracket is one is left to CommonMark: each candidate is given a link definition, and what then
// becomes a link counts. So code, HTML and escapes are seen exactly as a forge's renderer sees them.
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

// `path:L10-L20`, or `path:L10` with first = last.
struct Citation {
  std::string path;
  std::int64_t first = 0;
  std::int64_t last = 0;
  bool operator==(const Citation&) const = default;
  bool operator<(const Citation& other) const {
    return std::tie(path, first, last) < std::tie(other.path, other.first, other.last);
  }
};

// A citation as rows, chunks and answers hold it: {"path", "first", "last"}, and under kCitedTextKey what
// tells the text that was cited from another, where that is known (see add_cited_texts()).
inline constexpr const char* kCitedTextKey = "text_hash";
Map citation_map(const Citation& citation, const std::string& text_hash = "");
Citation citation_of(const Map& citation);
// What stands between the brackets: `path:L10-L20`.
std::string citation_label(const Map& citation);

// Gives each of `citations` the hash of the lines that it cites, the first 16 hexadecimal digits of their
// SHA-256, as they are in what `read` gives of the file; none where it gives nothing, or too few lines.
using ReadText = std::function<std::optional<std::string>(const std::string& path)>;
void add_cited_texts(std::vector<Map>& citations, const ReadText& read);

// Reads the text between a citation's brackets; none when it has not the form of one. The lines may be out of
// range.
std::optional<Citation> parse_citation(std::string_view label);

// The texts between the innermost brackets of `text`, in order, each as often as it stands; at most 999 bytes
// long, which is the longest label that CommonMark links.
std::vector<std::string_view> bracketed(std::string_view text);

// The page that a label names: its id, or none.
using PageByTitle = std::function<std::optional<std::string>(std::string_view label)>;

// What the brackets of an authored text mean.
struct Brackets {
  std::vector<Citation> valid;       // each once, in the order in which they first stand
  std::vector<std::string> invalid;  // labels of the form of a citation that is not valid, each once
  std::vector<std::string>
      malformed;  // labels that name an indexed file and lines in another form, each once
  std::vector<std::pair<std::string, Citation>> citation_labels;  // label to valid citation
  std::vector<std::pair<std::string, std::string>> page_labels;   // label to page id
};

Brackets read_brackets(std::string_view authored, const source::SourceIndex& index,
                       const PageByTitle& page_by_title);

// Why a citation of this label is not valid, and the nearest one that would be.
std::string invalid_citation_warning(const std::string& label, const source::SourceIndex& index);

// How a label that read_brackets() found malformed should be written.
std::string malformed_citation_warning(const std::string& label);

// The links of a page: citations to their lines, titles to their pages. `page_id` is the page that they stand
// on and `wiki_dir` the wiki's root relative to the repository's. Labels that CommonMark takes for the same
// but that mean different things get no link.
PageLinks page_links(const Brackets& brackets, const std::string& page_id, const std::string& wiki_dir);

}  // namespace ossilar::workers::wiki
