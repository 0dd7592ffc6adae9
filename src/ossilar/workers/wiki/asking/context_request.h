// The context of a page as its author asks for it: within a budget, with what the author names shown first.
//
// Threads: any thread may call. Failures: what the store and the sources throw; a focus that names nothing is
// told of in the answer.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "ossilar/workers/wiki/asking/wiki_reader.h"

namespace ossilar::workers::wiki {

struct ContextRequest {
  std::size_t room = 0;  // bytes of text
  // Each an indexed file, lines of one as a citation names them, a symbol's name, or a section's heading of
  // the stored page, for the lines that it cites.
  std::vector<std::string> focus = {};
};

struct ContextAnswer {
  std::string text;  // Markdown
  // The focus that names nothing, each with what may be meant.
  std::vector<std::string> unknown = {};
};

ContextAnswer requested_context(Wiki& wiki, const PageContext& context, const ContextRequest& request);

}  // namespace ossilar::workers::wiki
