// Taking over pages that lie in the wiki's folder and that the database does not know, or knows with another
// text. `ossilar init` calls adopt_pages(). Other commands (cli/), a session's requests (wiki_provider.cc)
// and a check (wiki_check.cc) call adopt_arrivals().
//
// Threads: any; each call takes the write lock itself. Failures: a page that cannot be read is reported or
// logged and the others are taken over. A call that is cut short leaves pages for the next one.
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
  std::vector<std::string> undescribed;  // page ids of adopted files that no manifest lists
  std::vector<std::string> unplanned;    // files under the pages directory that belong to no page
  std::vector<std::string> failed;       // messages on page files that could not be read
};

// Makes rows for the page files that have none on this branch, no matter how they got there, and writes the
// lists where they are missing. No text of an author is changed; pages of format 1 get their records. Waits
// for the write lock. Throws _WikiBusy, store::StorageError, and utils::IoError for lists that cannot be
// written.
AdoptionReport adopt_pages(Wiki& wiki);

// What to do while another process holds the write lock.
enum class WhenBusy { wait, skip };

// Takes over what version control brought: pages whose file is what a manifest describes and whose row is
// not. Forgets pages whose file is gone and that no manifest lists any more; their text is kept. Brings a
// wiki of format 1 forward: its pages get their records.
//
// Cheap when nothing came: it looks only when a manifest changed since the last call, or a page file that was
// then not yet what its manifest describes. Takes the write lock only when there is something to do; with
// WhenBusy::skip it leaves that to the next call while another holds the lock. What cannot be read is logged.
// Throws store::StorageError, and with WhenBusy::wait _WikiBusy.
AdoptionReport adopt_arrivals(Wiki& wiki, WhenBusy when_busy);

}  // namespace ossilar::workers::wiki
