#include "ossilar/workers/wiki/page_turn.h"

#include "ossilar/utils/error.h"
#include "ossilar/utils/hash.h"

namespace ossilar::workers::wiki {
namespace {

// Two hexadecimal digits of the page id's hash: 256 files, so that savers of different pages seldom meet.
std::filesystem::path turn_file(const std::filesystem::path& directory, const std::string& page_id) {
  return directory / (utils::sha256_hex(page_id).substr(0, 2) + ".lock");
}

}  // namespace

PageTurn::PageTurn(const std::filesystem::path& directory, const std::string& page_id,
                   std::chrono::milliseconds patience)
    : lock_({.path = turn_file(directory, page_id), .timeout = patience, .holder = "a save of " + page_id}) {
  try {
    lock_.acquire(true);
    taken_ = true;
  } catch (const utils::Error&) {
    // Without the turn the save is as safe, and only more likely to be drafted again.
  }
}

PageTurn::~PageTurn() {
  if (!taken_) return;
  try {
    lock_.release();
  } catch (const utils::Error&) {
    // The lock is free even so.
  }
}

}  // namespace ossilar::workers::wiki
