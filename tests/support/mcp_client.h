// An agent's end of a session: sends lines to a server in this process and reads what comes back.
#pragma once

#include <unistd.h>

#include <array>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "ossilar/mcp/session.h"
#include "support/wiki_repo.h"

namespace ossilar::testing {

class McpClient {
 public:
  // A session on the wiki at `root`; with `revision` one that has agreed on it.
  explicit McpClient(const std::filesystem::path& root, const std::string& revision = "2025-11-25")
      : provider_(root) {
    if (pipe(ends_.data()) != 0) throw std::runtime_error("no pipe");
    output_ = std::make_unique<mcp::LineWriter>(ends_[1], -1);
    reader_ = std::make_unique<mcp::LineReader>(ends_[0], ends_[1]);
    service_ = std::make_unique<mcp::Service>(provider_);
    session_ = mcp::Session::begin(*service_, mcp::unowned(*output_));
    if (revision.empty()) return;
    call("initialize", Map{{"protocolVersion", revision}});
    session_->receive(R"({"jsonrpc":"2.0","method":"notifications/initialized"})");
  }
  ~McpClient() {
    session_.reset();
    service_.reset();  // waits for requests that run
    for (const int end : ends_) close(end);
  }
  McpClient(const McpClient&) = delete;
  McpClient& operator=(const McpClient&) = delete;

  mcp::Session& session() { return *session_; }

  // Sends a request without waiting for its answer; gives its id.
  int send(const std::string& method, const Map& params = Map::object()) {
    session_->receive(
        Map{{"jsonrpc", "2.0"}, {"id", ++last_id_}, {"method", method}, {"params", params}}.dump());
    return last_id_;
  }
  void notify(const std::string& method, const Map& params) {
    session_->receive(Map{{"jsonrpc", "2.0"}, {"method", method}, {"params", params}}.dump());
  }

  // The next message, waited for without end: the test's own time limit ends a test whose message never
  // comes.
  Map next() { return Map::parse(std::get<mcp::Line>(reader_->next()).text); }

  // The next message of this method or kind that `wanted` takes; others are kept in messages().
  template <class Wanted>
  Map next_that(Wanted wanted) {
    for (;;) {
      Map message = next();
      if (wanted(message)) return message;
      messages_.push_back(std::move(message));
    }
  }
  Map notification(const std::string& method) {
    return next_that([&](const Map& message) { return utils::string_member(message, "method") == method; });
  }

  // The answer to the request `id`; notifications and other answers on the way are kept in messages().
  Map answer(int id) {
    return next_that([&](const Map& message) { return utils::member(message, "id") == id; });
  }
  Map call(const std::string& method, const Map& params = Map::object()) {
    return answer(send(method, params));
  }

  // The value that a tool gave, read from its text; of a protocol error the error.
  Map tool(const std::string& name, const Map& arguments = Map::object()) {
    return value_of(call("tools/call", Map{{"name", name}, {"arguments", arguments}}));
  }
  static Map value_of(const Map& answer) {
    if (answer.contains("error")) return answer;
    return Map::parse(answer.at("result").at("content").at(0).at("text").get<std::string>());
  }

  const std::vector<Map>& messages() const { return messages_; }

 private:
  workers::wiki::WikiProvider provider_;
  std::array<int, 2> ends_{};
  std::unique_ptr<mcp::LineWriter> output_;
  std::unique_ptr<mcp::LineReader> reader_;
  std::unique_ptr<mcp::Service> service_;
  std::shared_ptr<mcp::Session> session_;
  std::vector<Map> messages_;
  int last_id_ = 0;
};

}  // namespace ossilar::testing
