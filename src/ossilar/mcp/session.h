// Binds messages to what answers them: which revision a request speaks, which method it names, on which
// thread it runs, and how it is cancelled, watched and answered.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "ossilar/mcp/page_watch.h"
#include "ossilar/mcp/protocol/message.h"
#include "ossilar/mcp/protocol/revision.h"
#include "ossilar/mcp/protocol/scheduler.h"
#include "ossilar/mcp/protocol/transport.h"
#include "ossilar/mcp/subscriptions.h"
#include "ossilar/utils/logging.h"
#include "ossilar/utils/task.h"
#include "ossilar/workers/wiki/check/wiki_provider.h"

namespace ossilar::mcp {

// One client's session from its first line to its last. It begins either with `initialize` and then speaks
// the revision agreed on, or each request names a revision that knows no such beginning.
//
// Thread-safety: receive() and finish() belong to one thread; log() may be called from any. Answers are
// written by the threads of the pool, each line whole.
class Session {
 public:
  // `provider` and `output` must outlive the session.
  Session(workers::wiki::WikiProvider& provider, LineWriter& output);

  // Takes a line on. Returns before it is answered; waits while too much is unanswered.
  void receive(std::string_view line);
  // Takes on that there was a line over the limit.
  void receive_too_long(const LineTooLong& line);

  // Lets the requests under way end, within `patience`; those that do not are cancelled, and false is given
  // when some do not even then. With `abandoned` all are cancelled at once, as nobody reads the answers.
  bool finish(std::chrono::milliseconds patience, bool abandoned);

  // Passes a record on to a client that wants records of its level.
  void log(const utils::LogRecord& record);

 private:
  // Is called once for each request: with the message that answers it, or none when there is to be no answer.
  using Reply = std::function<void(std::optional<Map> message)>;
  struct UnderWay;

  void take(Message message, const Reply& reply);
  void take_batch(std::vector<Message> batch);
  void take_request(Request request, const Reply& reply);
  void take_notification(const Notification& notification);
  Revision revision_of(const Request& request) const;
  std::optional<Map> answer_at_once(const Request& request, Revision revision);
  Map initialize(const Map& params);
  std::optional<Map> result_of(const Request& request, Revision revision, utils::Task& task);
  void listen(const Request& request, const utils::Task& task);
  void run_later(Request request, Revision revision, const Reply& reply);
  void run(const Request& request, Revision revision, UnderWay& work, const Reply& reply);
  void cancel(const Map& id);
  void cancel_all();
  Reply write_reply();

  workers::wiki::WikiProvider& provider_;
  LineWriter& output_;
  std::optional<Revision> agreed_;  // by `initialize`; the receiving thread's, as is the next
  std::size_t line_bytes_ = 0;      // of the line at hand
  std::atomic<int> log_level_;      // of the session, as a rank; see session.cc
  Subscriptions subscriptions_;
  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<UnderWay>> under_way_;  // by the id as JSON; guarded by mutex_
  PageWatch watch_;
  Scheduler scheduler_;  // last: its threads use all else
};

}  // namespace ossilar::mcp
