// Bringing a wiki of format 1 forward, whose pages have no record in their files.
#pragma once

#include <cstddef>

#include "ossilar/workers/wiki/host/wiki.h"

namespace ossilar::workers::wiki {

// Gives each page file that its row knows the record that the row knows; gives the number of files that
// changed. A page that cannot be read or written is logged and left for the next time. The caller holds the
// write lock. Throws store::StorageError.
std::size_t give_records(Wiki& wiki);

}  // namespace ossilar::workers::wiki
