// What this program is: its version, what it was built with, what it reads. app.cc prints it.
#pragma once

#include "ossilar/utils/json.h"

namespace ossilar::cli {

// The document of `ossilar --version --json`. The versions of libraries are those that are loaded now, which
// may be newer than those that it was built with. Thread-safety: any thread. Does not fail.
Map version_document();

}  // namespace ossilar::cli
