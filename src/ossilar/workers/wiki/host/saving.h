// Saving a page as sessions and commands do: onto a version, and with a text that is refused kept for its
// author. The save itself is agent_save.h's.
#pragma once

#include <exception>
#include <string>

#include "ossilar/utils/task.h"
#include "ossilar/workers/wiki/agent_answers.h"
#include "ossilar/workers/wiki/host/wiki.h"

namespace ossilar::workers::wiki {

struct SaveOutcome {
  Answer answer;               // null when the save failed
  std::exception_ptr failure;  // what it failed with
  std::string kept;            // the name of the kept draft when the text was not saved, else ""
};

// Saves the page. With `if_version` only onto that version: it is compared before anything is paid for, and
// the commit holds on to the page file that was looked at; the answer of a save that was made then has
// `version`, the page's now. A text that is not saved, whatever the
// reason, is kept, but for a blank one. utils::Cancelled passes.
//
// Thread-safety: may be called from any thread.
SaveOutcome save_page(Wiki& wiki, const SaveRequest& request, utils::Task& task);

// What a save would answer, with `saved` false and `dry_run` true in it; nothing is written.
Answer preview_page(Wiki& wiki, const SaveRequest& request);

}  // namespace ossilar::workers::wiki
