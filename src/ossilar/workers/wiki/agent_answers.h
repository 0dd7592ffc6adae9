#pragma once

#include <optional>
#include <string>

#include "ossilar/workers/wiki/plans.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// Content over this many bytes is refused before anything is done with it.
inline constexpr std::size_t kLargestContent = std::size_t{1024} * 1024;

// Refuses a page id that no plan has: `error`, `page_id`, and `similar`, the planned ids that come nearest.
Answer not_planned(const std::string& page_id, const Plans& plans);

// What an agent or a user hands in for one save.
struct SaveRequest {
  std::string page_id = {};
  std::string content = {};
  std::optional<std::string> section = {};
  std::optional<std::string> title = {};
  // Save only if the page still is this version (see page_version.h), or with kNoVersion does not exist yet.
  std::optional<std::string> if_version = {};
};

// Refuses a request that may not go further: a text that is not UTF-8 (naming argument and byte), or content
// over kLargestContent. None when it may.
std::optional<Answer> refuse_request(const SaveRequest& request);

}  // namespace ossilar::workers::wiki
