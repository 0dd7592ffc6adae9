// Reads lines on the calling thread and hands each to the session, which answers on threads of its own; a
// slow request thus keeps no line from being read, and a cancellation is heard while the work goes on.
//
// The end is the difficult part. A thread that hangs cannot be stopped in C++ and must not lose what it uses,
// so that is kept for it, on the heap, and the process ends (cli/mcp.cc).
#include "ossilar/mcp/server.h"

#include "ossilar/mcp/session.h"

namespace ossilar::mcp {
namespace {

// A client that closes its end may still read the answers to what it sent, but a server must not outlive it
// for long. Ten seconds are also a writer's patience with a client that reads nothing (protocol/transport.h).
constexpr std::chrono::milliseconds kPatience = std::chrono::seconds(10);

// Sends log records to the client too, until it is destroyed: before the session, which the sink refers to.
class SessionLog {
 public:
  SessionLog(Session& session, const utils::LogSink& log) : log_(log) {
    utils::set_log_sink([&session, log](const utils::LogRecord& record) {
      if (log) log(record);
      session.log(record);
    });
  }
  ~SessionLog() { utils::set_log_sink(log_); }
  SessionLog(const SessionLog&) = delete;
  SessionLog& operator=(const SessionLog&) = delete;

 private:
  const utils::LogSink log_;
};

void receive_all(LineReader& reader, Session& session) {
  for (;;) {
    const auto next = reader.next();
    if (std::holds_alternative<EndOfInput>(next)) return;
    if (const auto* line = std::get_if<Line>(&next)) {
      session.receive(line->text);
    } else {
      session.receive_too_long(std::get<LineTooLong>(next));
    }
  }
}

// All that threads of a session use, in one allocation that can be left to them. Members are destroyed in the
// reverse order: the session first, as it uses the others.
struct Serving {
  explicit Serving(const ServerOptions& options)
      : provider(options.root), output(options.output, options.input) {}
  workers::wiki::WikiProvider provider;
  LineWriter output;
  Service service{provider};
  // Not owned: it must outlive the service, whose threads write to it.
  std::shared_ptr<Session> session = Session::begin(service, unowned(output));
};

}  // namespace

bool serve(const ServerOptions& options) {
  auto serving = std::make_unique<Serving>(options);
  const SessionLog log(*serving->session, options.log);
  LineReader reader(options.input, options.output);
  receive_all(reader, *serving->session);
  // From now on a client that reads nothing is waited for within a limit.
  serving->output.input_has_ended();
  if (serving->session->finish(kPatience, reader_is_gone(options.output))) return true;
  static_cast<void>(serving.release());  // on purpose: threads that did not end still use it
  return false;
}

}  // namespace ossilar::mcp
