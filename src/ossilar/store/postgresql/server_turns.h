// Turns at a page as advisory locks of the server, which gives them in the order of asking and frees them
// with their connection. Internal to this room.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "ossilar/store/page_turns.h"
#include "ossilar/store/postgresql/connections.h"

namespace ossilar::store::postgresql {

class ServerTurns final : public PageTurns {
 public:
  ServerTurns(std::shared_ptr<Connections> connections, std::string branch)
      : connections_(std::move(connections)), branch_(std::move(branch)) {}

  Turn take(const std::string& page_id, std::chrono::milliseconds patience, const utils::Task& task) override;

 private:
  const std::shared_ptr<Connections> connections_;
  const std::string branch_;
};

}  // namespace ossilar::store::postgresql
