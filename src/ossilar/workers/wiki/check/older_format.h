// Bringing a wiki of format 1 forward, whose pages have no record in their files. arrivals.cc calls it when
// it finds a manifest of that format.
//
// Threads: one, the holder of the write lock. A call that is cut short leaves whole page files, with a record
// or without; the next one does the rest.
#pragma once

#include <cstddef>

#include "ossilar/workers/wiki/host/wiki.h"

namespace ossilar::workers::wiki {

// Writes a record, made of its row, into each page file that has none and is the text of its row. Returns the
// number of pages brought forward. A page that cannot be read or written is logged and left for the next
// time. The caller holds the write lock and has prepared the wiki. Throws store::StorageError.
std::size_t give_records(Wiki& wiki);

}  // namespace ossilar::workers::wiki
