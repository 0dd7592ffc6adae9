// A source file as a document: its lines with their numbers, and the pages that cite it.
//
// Thread-safety: any thread. Failures: as source::read_source().
#pragma once

#include <optional>
#include <string>

#include "ossilar/web/frame.h"

namespace ossilar::web {

// The document of an indexed text file; none for any other path, and for a file that is gone by now.
std::optional<std::string> source_document(const Asked& asked, const std::string& path);

}  // namespace ossilar::web
