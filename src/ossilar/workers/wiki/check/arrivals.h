// Taking over the pages that lie in the wiki's folder and that the database does not know, or knows
// otherwise.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "ossilar/workers/wiki/host/wiki.h"

namespace ossilar::workers::wiki {

struct AdoptionReport {
  std::size_t adopted = 0;
  std::size_t forgotten = 0;             // pages that version control removed
  std::size_t given_records = 0;         // page files of an older format that got a record
  std::vector<std::string> edited;       // page ids whose file is not the one that the manifest describes
  std::vector<std::string> undescribed;  // page ids of adopted files of which no manifest tells
  std::vector<std::string> unplanned;    // files under the pages directory that belong to no page
  std::vector<std::string> failed;       // messages on page files that could not be read
};

// Makes rows for the page files that have none on this branch, whoever wrote them, and writes the lists where
// they are missing. No text of an author is changed. Takes the write lock.
AdoptionReport adopt_pages(Wiki& wiki);

enum class WhenBusy { wait, skip };

// The same for pages that came or went by version control: those whose file is what a manifest describes and
// whose row is not, and those whose file is gone and that no manifest lists any more. Looks only when a
// manifest is another one than the last time, or a file that was not yet what one describes. Takes the write
// lock when there is something to adopt; with WhenBusy::skip, not while another holds it. What cannot be read
// is logged. A wiki of an older format is brought forward: its pages get their records.
AdoptionReport adopt_arrivals(Wiki& wiki, WhenBusy when_busy);

}  // namespace ossilar::workers::wiki
