#include "ossilar/mcp/service.h"

#include <algorithm>
#include <utility>

#include "ossilar/mcp/session.h"

namespace ossilar::mcp {
namespace {

// Requests that run at once. Most wait for a disk, a lock or an embedding service and not for a processor.
// Fewer would let some slow saves hold up every reader; each thread more costs a stack.
constexpr std::size_t kThreads = 8;
// How late a subscriber may hear of a page that another process saved. Shorter would ask the database more
// often.
constexpr std::chrono::milliseconds kLookEvery(1000);

}  // namespace

Service::Service(workers::wiki::WikiProvider& provider, Observer* observer)
    : provider_(provider),
      observer_(observer),
      watch_(provider, kLookEvery,
             [this](const std::string& page_id, bool listed) { tell(page_id, listed); }),
      scheduler_(kThreads) {}

void Service::enter(const std::shared_ptr<Session>& session) {
  const std::lock_guard lock(mutex_);
  std::erase_if(sessions_, [](const std::weak_ptr<Session>& each) { return each.expired(); });
  sessions_.push_back(session);
}

void Service::end_sessions() {
  for (const auto& session : sessions()) {
    session->cancel_all();
    session->end_listeners();
  }
}

std::vector<std::shared_ptr<Session>> Service::sessions() {
  const std::lock_guard lock(mutex_);
  std::vector<std::shared_ptr<Session>> living;
  living.reserve(sessions_.size());
  for (const std::weak_ptr<Session>& each : sessions_)
    if (auto session = each.lock()) living.push_back(std::move(session));
  return living;
}

// Without the lock while it tells: a session may block while its client does not read.
void Service::tell(const std::string& page_id, bool listed) {
  for (const auto& session : sessions()) session->page_changed(page_id, listed);
}

}  // namespace ossilar::mcp
