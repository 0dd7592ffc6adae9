// A page's diagrams as the row keeps them. plan/page_diagrams.h draws them.
#pragma once

#include <string>
#include <vector>

#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// The diagrams as one text, the same for the same diagrams.
std::string _serialize_diagrams(const std::vector<Diagram>& diagrams);

}  // namespace ossilar::workers::wiki
