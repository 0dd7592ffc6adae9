#include "ossilar/mcp/server.h"

#include "ossilar/mcp/session.h"

namespace ossilar::mcp {
namespace {

// A client that closes its end may still wait for answers to what it sent, but not for ever.
constexpr std::chrono::milliseconds kPatience = std::chrono::seconds(10);

// Sends log records to the client too, as long as the session lives.
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

struct Serving {
  explicit Serving(const ServerOptions& options)
      : provider(options.root), output(options.output, options.input) {}
  workers::wiki::WikiProvider provider;
  LineWriter output;
  Session session{provider, output};
};

}  // namespace

bool serve(const ServerOptions& options) {
  auto serving = std::make_unique<Serving>(options);
  const SessionLog log(serving->session, options.log);
  LineReader reader(options.input, options.output);
  receive_all(reader, serving->session);
  if (serving->session.finish(kPatience, reader_is_gone(options.output))) return true;
  static_cast<void>(serving.release());  // its threads use it still
  return false;
}

}  // namespace ossilar::mcp
