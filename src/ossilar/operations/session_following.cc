// Only sentences that stand as they stood are followed, so nothing that an author wrote now is touched.
#include "ossilar/operations/session_following.h"

#include "ossilar/utils/logging.h"
#include "ossilar/workers/wiki/asking/following.h"

namespace ossilar::operations {
namespace {

const utils::Logger following_logger("ossilar.operations.following");

bool is_wanted(const Asked& asked) { return asked.caller == Caller::session && asked.wiki.config().follow; }

}  // namespace

void follow_before_reading(const Asked& asked, const std::string& page_id) {
  if (!is_wanted(asked)) return;
  try {
    workers::wiki::sync_pages(asked.wiki, page_id, false, asked.client, asked.task);
  } catch (const std::exception& error) {
    following_logger.warning("cannot follow the moved citations of " + page_id, error);
  }
}

std::string follow_before_saving(const Asked& asked, const std::string& page_id, const std::string& content,
                                 std::vector<workers::wiki::Doubt>& followed) {
  if (!is_wanted(asked)) return content;
  return workers::wiki::followed_content(asked.wiki, page_id, content, followed);
}

}  // namespace ossilar::operations
