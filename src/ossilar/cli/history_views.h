// How the shell shows a page's history. views.cc lists these among the views of operations.
//
// Threads and failures: as views.h.
#pragma once

#include "ossilar/cli/output.h"
#include "ossilar/cli/views.h"

namespace ossilar::cli {

void print_history(const Given& given, Output& output);
void print_comparison(const Given& given, Output& output);

}  // namespace ossilar::cli
