// Rewriting and putting away a page's file outside a save. What is replaced or goes is looked at as a save
// looks at it (pages/former_file.h), so a manual edit of the last moment is kept.
//
// check/older_format.cc, check/renaming.cc and check/removal.cc use it.
//
// Threads: one, which holds the write lock. Failures: utils::Error, which names the file; its text is then
// where it was or in `.ossilar/replaced`.
#pragma once

#include <string>

#include "ossilar/workers/wiki/host/wiki.h"

namespace ossilar::workers::wiki {

// Replaces the page's file, of which `text` was read, by `changed`; makes it, if there is none.
void rewrite_page_file(Wiki& wiki, const std::string& page_id, const std::string& text,
                       const std::string& changed);

// Moves the page's file to `.ossilar/replaced` and gives its new path, relative to the repository's root; ""
// if there is no file. `row` is the page's, null for none. Folders that are empty then are removed.
std::string put_page_file_away(Wiki& wiki, const std::string& page_id, const Map* row);

// Writes the lists and the wiki state after rows came or went. By now they are stored, so a failure is only
// logged; the next save or `ossilar check --fix` puts lists and state right.
void publish_rows(Wiki& wiki);

}  // namespace ossilar::workers::wiki
