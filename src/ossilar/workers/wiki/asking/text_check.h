// A text held against the sources as they are, without a save: what its citations cite, and which of its
// brackets mean nothing. For an author whose text was refused, and for one who asks before saving.
//
// Thread-safety: any thread may call. Nothing is written. Failures: what the scan of the sources and the
// store throw.
#pragma once

#include <string>
#include <vector>

#include "ossilar/workers/wiki/host/wiki.h"

namespace ossilar::workers::wiki {

struct QuotedCitation {
  std::string label;
  std::string
      line;  // the first of its lines that says something, shortened; "" if none does or the file is gone
};

struct TextCheck {
  std::vector<QuotedCitation> cited;  // the valid citations, in the order of the text
  std::vector<std::string> faults;    // as bracket_warnings() has them
};

// `content` is what a save of the page, or of one of its sections, would get.
TextCheck check_text(Wiki& wiki, const std::string& page_id, const std::string& content);

}  // namespace ossilar::workers::wiki
