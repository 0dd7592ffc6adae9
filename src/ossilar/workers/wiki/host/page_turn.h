// Taking turns at one page, among threads and processes. saving.cc takes a turn around each save.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>

#include "ossilar/utils/files.h"
#include "ossilar/utils/task.h"

namespace ossilar::workers::wiki {

// A page's turn, held from construction to destruction. Of several concurrent drafts of one page only one can
// be committed; with turns the others are not drafted in vain, and an agent is hardly ever told that the page
// kept changing. Turns only spare work: what keeps saves apart is the check under the write lock. So a turn
// that cannot be had is no failure, and the save goes on without it. Savers of different pages never wait for
// each other.
//
// Thread-safety: each object belongs to one thread; any number may wait for one page.
class PageTurn {
 public:
  // Waits for the turn, for `patience` at most. `file`, created if missing, is the same for all pages: each
  // locks one byte of it, at an offset that is a hash of the page id. Where the file cannot be opened or
  // locked there are no turns. Throws utils::Cancelled when `task` is cancelled while it waits.
  PageTurn(const std::filesystem::path& file, const std::string& page_id, std::chrono::milliseconds patience,
           const utils::Task& task);

 private:
  utils::UniqueFd file_;  // closing it ends the turn
};

}  // namespace ossilar::workers::wiki
