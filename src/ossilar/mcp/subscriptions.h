// Keeps the subscribers to changed pages, and notifies them in the form of the client's revision. session.h
// owns one; its requests subscribe, and the PageWatch of its service reports the changes.
//
// Failure: a client that is gone is noticed by the LineWriter, and what is sent to it then is dropped.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "ossilar/mcp/protocol/outlet.h"
#include "ossilar/utils/json.h"

namespace ossilar::mcp {

// Addresses of one listener. With the limit on listeners (subscriptions.cc) it bounds what one client can
// make us keep; more addresses can be spread over several listeners.
inline constexpr std::size_t kMostAddresses = 1000;

// What a listener (revision 2026-07-28) asked for and will get: changes of the list of pages, and of the
// pages at these URIs.
struct ListenFilter {
  bool list_changed = false;
  std::set<std::string> uris;
};

// Thread-safety: every member may be called from any thread. Each that writes blocks while the client does
// not read, and lets the others wait.
class Subscriptions {
 public:
  explicit Subscriptions(std::shared_ptr<Outlet> output) : output_(std::move(output)) {}

  // Revisions before 2026-07-28 have one set of URIs for the whole session. Once the session has begun, it is
  // notified of changes of the list without asking.
  void begin_session();
  // False, with nothing changed, when kMostAddresses are subscribed to.
  bool subscribe(const std::string& uri);
  void unsubscribe(const std::string& uri);

  // Since then a listener is a request that stays open; `id` is the request's, `output` where its answer
  // goes. It is acknowledged here, before anything else is sent to it. False, with nothing sent, when the
  // session has as many listeners as it may have.
  bool listen(const Map& id, const ListenFilter& filter, const std::shared_ptr<Outlet>& output);
  // Ends the listener of this id, if there is one. Nothing is sent: its client cancelled it.
  void cancel(const Map& id);
  bool holds(const Map& id);
  // Ends all listeners, and sends each the result of its request.
  void finish();
  // The same without a word, as nobody would read it.
  void drop();

  // Notifies those who asked: the page at `uri` changed. With `listed` it came or went, so the list changed
  // too.
  void page_changed(const std::string& uri, bool listed);

 private:
  struct Listener {
    Map id;
    ListenFilter filter;
    std::shared_ptr<Outlet> output;
  };
  static void notify(Outlet& output, const char* method, Map params, const Map& subscription);

  const std::shared_ptr<Outlet> output_;
  std::mutex mutex_;  // held while a notification is written, so that none comes after its listener's end
  bool session_ = false;
  std::set<std::string> uris_;
  std::map<std::string, Listener> listeners_;  // by the id as JSON
};

}  // namespace ossilar::mcp
