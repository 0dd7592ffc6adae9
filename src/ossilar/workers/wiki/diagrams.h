// A page's diagrams as one text. plan/page_diagrams.h draws them; the draft of a save (agent_save.cc) makes
// the text a part of the page's grounding hash.
//
// Threads: any. Failures: nlohmann::json::type_error for a caption or text that is not UTF-8.
#pragma once

#include <string>
#include <vector>

#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// A JSON list of [caption, Mermaid text]; the same text for the same diagrams in the same order.
std::string _serialize_diagrams(const std::vector<Diagram>& diagrams);

}  // namespace ossilar::workers::wiki
