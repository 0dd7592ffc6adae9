// Saving a page as the command `ossilar save` and the tool save_page do (operations/save_page.cc): onto a
// version, in turns with others that save the same page, and with a text that is not saved kept for its
// author. The save itself is agent_save.h's.
#pragma once

#include <exception>
#include <string>

#include "ossilar/utils/task.h"
#include "ossilar/workers/wiki/agent_answers.h"
#include "ossilar/workers/wiki/host/wiki.h"
#include "ossilar/workers/wiki/orchestrator.h"

namespace ossilar::workers::wiki {

struct SaveOutcome {
  Answer answer;               // null when the save failed
  std::exception_ptr failure;  // what it failed with
  std::string version;         // the page's now; "" when nothing was saved
  std::string kept;            // the name of the kept draft when the text was not saved, else ""
};

// Saves the page. With `if_version` only onto that version: it is compared before the draft costs anything,
// and the commit replaces only the page file that was compared. The answer of such a save has `version`, the
// page's now. A text that is not saved, whatever the reason, is kept, unless it is blank. Failures are in the
// outcome; only utils::Cancelled is thrown.
//
// The caller has refused content that is too large or no text (refuse_request()).
//
// Thread-safety: may be called from any thread.
// `terms` say who saves, and what else than an author's text is saved, which is not kept then; their version
// is the request's.
SaveOutcome save_page(Wiki& wiki, const SaveRequest& request, utils::Task& task, SaveTerms terms = {});

// What a save would answer, with `saved` false and `dry_run` true in it. Nothing is written, a refused text
// is not kept, and no lock is taken, so the answer is true of the moment alone. Throws what a draft throws.
//
// Thread-safety: may be called from any thread.
Answer preview_page(Wiki& wiki, const SaveRequest& request);

}  // namespace ossilar::workers::wiki
