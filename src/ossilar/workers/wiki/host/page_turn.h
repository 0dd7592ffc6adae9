// Taking turns at one page, among threads and processes.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>

#include "ossilar/utils/files.h"
#include "ossilar/utils/task.h"

namespace ossilar::workers::wiki {

// A page's turn, from its making to its end. Of several concurrent drafts of one page only one can be
// committed; with turns the others are not drafted in vain, and an agent is hardly ever told that the page
// kept changing. It is a courtesy: what keeps saves apart is the check of the commit. Nobody waits for
// another page, and for a saver that never ends not beyond `patience`.
class PageTurn {
 public:
  // `file`, made where it is missing, is the same for all pages: each locks a byte of its own, at a place
  // that a hash of its id names. Where the file cannot be locked there are no turns. Throws utils::Cancelled
  // when `task` is cancelled.
  PageTurn(const std::filesystem::path& file, const std::string& page_id, std::chrono::milliseconds patience,
           const utils::Task& task);

 private:
  utils::UniqueFd file_;  // closing it ends the turn
};

}  // namespace ossilar::workers::wiki
