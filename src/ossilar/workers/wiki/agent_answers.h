// What a save refuses before it does any work: an id that is not planned, content that is too large, text
// that is not UTF-8.
//
// Commands and sessions ask refuse_request() before they save (operations/saving_texts.cc). not_planned()
// answers a save of such a page (agent_save.cc, host/orchestrator.cc) and a question about it
// (asking/wiki_reader.cc).
//
// Threads: functions without state, to be called from any thread. Failures: a refusal is the answer that is
// returned; by then nothing has been written.
#pragma once

#include <optional>
#include <string>

#include "ossilar/workers/wiki/plans.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// Content over this many bytes is refused before anything is done with it. Far above what anybody reads as
// one page (the lint warns at kLargePage, 64 KiB), it bounds what one request makes a draft parse and embed.
inline constexpr std::size_t kLargestContent = std::size_t{1024} * 1024;

// The refusal of a page id that is not planned: `error`, `page_id`, and `similar`, at most five planned ids,
// the nearest first.
Answer not_planned(const std::string& page_id, const Plans& plans);

// What an agent or a user hands in for one save.
struct SaveRequest {
  std::string page_id = {};
  std::string content = {};
  std::optional<std::string> section = {};
  std::optional<std::string> title = {};
  // Save only if the page is still this version (see pages/page_version.h), or with kNoVersion only if it
  // does not exist yet.
  std::optional<std::string> if_version = {};
  // Add the section or remove it (see pages/section_place.h); none: replace it.
  std::optional<std::string> place = {};
};

// Refuses content over kLargestContent, and a text that is not UTF-8 (the error names the argument and the
// byte). None for any other request.
std::optional<Answer> refuse_request(const SaveRequest& request);

}  // namespace ossilar::workers::wiki
