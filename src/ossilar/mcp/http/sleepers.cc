#include "ossilar/mcp/http/sleepers.h"

#include <poll.h>

#include <utility>

namespace ossilar::mcp::http {
namespace {

// The other end was closed. A client that closes only its sending half is treated alike: none does that and
// waits for an answer.
bool is_closed(int socket) {
  pollfd looked{.fd = socket, .events = POLLRDHUP, .revents = 0};
  return poll(&looked, 1, 0) > 0 && (looked.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

}  // namespace

void Sleepers::sleep(MHD_Connection* connection, std::atomic<bool>& is_gone, std::shared_ptr<Session> alone) {
  const std::lock_guard lock(mutex_);
  if (is_ended_) {
    is_gone = true;
    return;
  }
  const int socket = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
  MHD_suspend_connection(connection);
  asleep_[connection] = {.socket = socket, .is_gone = &is_gone, .alone = std::move(alone)};
}

void Sleepers::wake(MHD_Connection* connection) {
  const std::lock_guard lock(mutex_);
  if (asleep_.erase(connection) > 0) MHD_resume_connection(connection);
}

// A socket stays open as long as its connection sleeps, so the number is still this client's. Cancels without
// the lock: a session wakes its connections while it holds its own.
void Sleepers::look() {
  for (const auto& alone : wake_gone())
    if (alone) alone->cancel_all();
}

std::vector<std::shared_ptr<Session>> Sleepers::wake_gone() {
  std::vector<std::shared_ptr<Session>> gone;
  const std::lock_guard lock(mutex_);
  for (auto each = asleep_.begin(); each != asleep_.end();) {
    if (!is_closed(each->second.socket)) {
      ++each;
      continue;
    }
    *each->second.is_gone = true;
    gone.push_back(std::move(each->second.alone));
    MHD_resume_connection(each->first);
    each = asleep_.erase(each);
  }
  return gone;
}

void Sleepers::end() {
  const std::lock_guard lock(mutex_);
  is_ended_ = true;
  for (const auto& [connection, sleeper] : asleep_) {
    *sleeper.is_gone = true;
    MHD_resume_connection(connection);
  }
  asleep_.clear();
}

}  // namespace ossilar::mcp::http
