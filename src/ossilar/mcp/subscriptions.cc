// Notifications are written under the lock. To collect the receivers and write after it is released would
// keep the lock shorter, but then a listener that is cancelled in between would get a notification after its
// end.
#include "ossilar/mcp/subscriptions.h"

#include "ossilar/mcp/protocol/message.h"
#include "ossilar/mcp/protocol/revision.h"

namespace ossilar::mcp {
namespace {

// Of one session. Every changed page goes through all of them, and each keeps a thousand URIs at most
// (session.cc); a client with more to listen to can ask for more pages in one request.
constexpr std::size_t kMostListeners = 64;

// The part of a filter that is served, for the acknowledgement: only what is true is named.
Map shown(const ListenFilter& filter) {
  Map honoured = Map::object();
  if (filter.list_changed) honoured["resourcesListChanged"] = true;
  if (!filter.uris.empty()) honoured["resourceSubscriptions"] = filter.uris;
  return honoured;
}

}  // namespace

void Subscriptions::begin_session() {
  const std::lock_guard lock(mutex_);
  session_ = true;
}

bool Subscriptions::subscribe(const std::string& uri) {
  const std::lock_guard lock(mutex_);
  if (uris_.size() >= kMostAddresses && uris_.count(uri) == 0) return false;
  uris_.insert(uri);
  return true;
}

void Subscriptions::unsubscribe(const std::string& uri) {
  const std::lock_guard lock(mutex_);
  uris_.erase(uri);
}

// `subscription` is the id of the listener's request, by which its client tells several apart; null in the
// older form, which has no such key.
void Subscriptions::notify(Outlet& output, const char* method, Map params, const Map& subscription) {
  if (!subscription.is_null()) params["_meta"] = Map{{meta_key::kSubscription, subscription}};
  output.write(notification_line(method, params));
}

bool Subscriptions::listen(const Map& id, const ListenFilter& filter, const std::shared_ptr<Outlet>& output) {
  const std::lock_guard lock(mutex_);
  if (listeners_.size() >= kMostListeners) return false;
  // Under the lock that page_changed() takes, so that nothing is sent to this listener before its
  // acknowledgement.
  notify(*output, "notifications/subscriptions/acknowledged", Map{{"notifications", shown(filter)}}, id);
  listeners_[id.dump()] = {id, filter, output};
  return true;
}

void Subscriptions::cancel(const Map& id) {
  const std::lock_guard lock(mutex_);
  listeners_.erase(id.dump());
}

bool Subscriptions::holds(const Map& id) {
  const std::lock_guard lock(mutex_);
  return listeners_.count(id.dump()) > 0;
}

void Subscriptions::finish() {
  const std::lock_guard lock(mutex_);
  for (const auto& [key, listener] : listeners_) {
    Map result = finished(Revision::r2026_07_28, Map::object());
    result["_meta"][meta_key::kSubscription] = listener.id;
    listener.output->write(result_line(listener.id, result));
  }
  listeners_.clear();
}

void Subscriptions::drop() {
  const std::lock_guard lock(mutex_);
  listeners_.clear();
}

void Subscriptions::page_changed(const std::string& uri, bool listed) {
  constexpr const char* kUpdated = "notifications/resources/updated";
  constexpr const char* kListChanged = "notifications/resources/list_changed";
  const std::lock_guard lock(mutex_);
  if (uris_.count(uri) > 0) notify(*output_, kUpdated, Map{{"uri", uri}}, {});
  if (listed && session_) notify(*output_, kListChanged, Map::object(), {});
  for (const auto& [key, listener] : listeners_) {
    if (listener.filter.uris.count(uri) > 0)
      notify(*listener.output, kUpdated, Map{{"uri", uri}}, listener.id);
    if (listed && listener.filter.list_changed)
      notify(*listener.output, kListChanged, Map::object(), listener.id);
  }
}

}  // namespace ossilar::mcp
