#include "ossilar/mcp/http/clients.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "ossilar/utils/error.h"

namespace ossilar::mcp::http {
namespace {

// 128 bits of the kernel's randomness: who knows an id acts as its client.
std::string random_id() {
  std::array<unsigned char, 16> bytes{};
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
    throw utils::IoError("cannot make a session id", errno);
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string id;
  id.reserve(2 * bytes.size());
  for (const unsigned char byte : bytes) {
    id += kDigits[byte >> 4U];
    id += kDigits[byte & 15U];
  }
  return id;
}

class StreamOutlet final : public Outlet {
 public:
  explicit StreamOutlet(std::shared_ptr<EventStream> stream) : stream_(std::move(stream)) {}
  bool write(std::string_view text) override {
    stream_->push(text);
    return true;
  }
  void write_later(std::string text) override { stream_->push(text); }

 private:
  const std::shared_ptr<EventStream> stream_;
};

}  // namespace

Client::Client(Service& service, std::string id)
    : id_(std::move(id)),
      notifications_(std::make_shared<EventStream>(0)),
      session_(Session::begin(service, std::make_shared<StreamOutlet>(notifications_))) {}

Client::~Client() { end(); }

std::shared_ptr<EventStream> Client::new_stream() {
  const std::lock_guard lock(mutex_);
  streams_.push_back(std::make_shared<EventStream>(++last_stream_));
  if (streams_.size() > kMostStreams) streams_.pop_front();
  return streams_.back();
}

std::shared_ptr<EventStream> Client::stream(std::uint64_t name) const {
  if (name == 0) return notifications_;
  const std::lock_guard lock(mutex_);
  const auto found =
      std::find_if(streams_.begin(), streams_.end(), [&](const auto& each) { return each->name() == name; });
  return found == streams_.end() ? nullptr : *found;
}

void Client::end() {
  session_->cancel_all();
  notifications_->close();
  const std::lock_guard lock(mutex_);
  for (const auto& stream : streams_) stream->close();
}

void Client::touch(Clock::time_point now) {
  const std::lock_guard lock(mutex_);
  used_ = std::max(used_, now);
}

Clock::duration Client::unused(Clock::time_point now) const {
  if (notifications_->has_reader()) return {};
  const std::lock_guard lock(mutex_);
  return now - used_;
}

std::shared_ptr<Client> Clients::begin(Clock::time_point now) {
  end_idle(now);
  auto client = std::make_shared<Client>(service_, random_id());
  client->touch(now);
  if (size() >= kMostSessions) end_longest_unused(now);
  const std::lock_guard lock(mutex_);
  if (clients_.size() >= kMostSessions) return nullptr;
  clients_[client->id()] = client;
  return client;
}

std::shared_ptr<Client> Clients::find(const std::string& id, Clock::time_point now) {
  const std::lock_guard lock(mutex_);
  const auto found = clients_.find(id);
  if (found == clients_.end()) return nullptr;
  found->second->touch(now);
  return found->second;
}

bool Clients::end(const std::string& id) {
  std::shared_ptr<Client> ended;
  {
    const std::lock_guard lock(mutex_);
    const auto found = clients_.find(id);
    if (found == clients_.end()) return false;
    ended = std::move(found->second);
    clients_.erase(found);
  }
  ended->end();
  return true;
}

void Clients::end_idle(Clock::time_point now) {
  for (const auto& client : all())
    if (client->unused(now) > kIdleSession) end(client->id());
}

// Programs that begin a session for each call and never end one would fill the house.
void Clients::end_longest_unused(Clock::time_point now) {
  std::shared_ptr<Client> longest;
  for (const auto& client : all())
    if (!longest || client->unused(now) > longest->unused(now)) longest = client;
  if (longest && longest->unused(now) >= kLeastUnused) end(longest->id());
}

void Clients::end_all() {
  for (const auto& client : all()) end(client->id());
}

void Clients::beat() {
  for (const auto& client : all()) client->notifications()->beat();
}

std::size_t Clients::size() const {
  const std::lock_guard lock(mutex_);
  return clients_.size();
}

std::vector<std::shared_ptr<Client>> Clients::all() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::shared_ptr<Client>> clients;
  clients.reserve(clients_.size());
  for (const auto& [id, client] : clients_) clients.push_back(client);
  return clients;
}

}  // namespace ossilar::mcp::http
