// A page of the wiki as a document: its text with marks on what is doubtful, what is missing of it, and what
// belongs to it.
//
// Thread-safety: any thread. Failures: a page file that cannot be read is said to be so on the page; what the
// store and the sources throw passes.
#pragma once

#include <string>

#include "ossilar/web/frame.h"

namespace ossilar::web {

struct Document {
  std::string html;
  bool has_mermaid = false;  // diagrams of an author's, which a library draws in the browser
};

// The document of the page, which the site has. A planned page that is not written says what it is for.
Document page_document(const Asked& asked, const workers::wiki::PageState& page);

}  // namespace ossilar::web
