// Who is to be told of changed pages, and in which form.
#pragma once

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "ossilar/mcp/protocol/transport.h"
#include "ossilar/utils/json.h"

namespace ossilar::mcp {

// What a listener of 2026-07-28 asked for and gets.
struct ListenFilter {
  bool list_changed = false;
  std::set<std::string> uris;
};

// Thread-safety: every member may be called from any thread. Lifetime: the writer must outlive it.
class Subscriptions {
 public:
  explicit Subscriptions(LineWriter& output) : output_(output) {}

  // Revisions before 2026-07-28: one set of addresses for the whole session, and whether it has begun, which
  // is when changes of the list are told to it unasked.
  void begin_session();
  void subscribe(const std::string& uri);
  void unsubscribe(const std::string& uri);

  // Since: each listener is the request with the id `id`, acknowledged here before anything else is sent to
  // it.
  // False, with nothing said, when there are as many listeners as one session may have.
  bool listen(const Map& id, const ListenFilter& filter);
  // Ends the listener of this id, if there is one, without a word: its client cancelled it.
  void cancel(const Map& id);
  bool holds(const Map& id);
  // Ends all listeners with their results.
  void finish();

  // The page at `uri` changed; with `listed`, it came or went, too.
  void page_changed(const std::string& uri, bool listed);

 private:
  struct Listener {
    Map id;
    ListenFilter filter;
  };
  void notify(const char* method, Map params, const Map& subscription);

  LineWriter& output_;
  std::mutex mutex_;  // held while a notification is written, so that none comes after its listener's end
  bool session_ = false;
  std::set<std::string> uris_;
  std::map<std::string, Listener> listeners_;  // by the id as JSON
};

}  // namespace ossilar::mcp
