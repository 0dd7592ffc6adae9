// Stands between a PostgreSQL client and its server, counts what the client sends, and cuts the connection at
// a chosen message.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/temp_dir.h"

namespace ossilar::testing {

// Thread-safety: the counters may be used from any thread.
class CuttingProxy {
 public:
  enum class Cut { before, after };  // the message is lost; or it arrives, and its answer is lost

  explicit CuttingProxy(const std::filesystem::path& server) : server_(server / kName) {
    listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un own = address(dir_.path() / kName);
    if (bind(listener_, reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0 ||
        listen(listener_, 16) != 0)
      throw std::runtime_error("cannot listen");
    accepting_ = std::thread([this] { accept_all(); });
  }
  ~CuttingProxy() {
    ended_ = true;
    shutdown(listener_, SHUT_RDWR);
    accepting_.join();
    for (std::thread& serving : serving_) serving.join();
    close(listener_);
  }
  CuttingProxy(const CuttingProxy&) = delete;
  CuttingProxy& operator=(const CuttingProxy&) = delete;

  const std::filesystem::path& folder() const { return dir_.path(); }
  // From now on: cut at the message with this number, from 1; 0 never.
  void cut_at(int message, Cut cut = Cut::before) {
    cut_ = cut;
    seen_ = 0;
    round_trips_ = 0;
    cut_at_ = message;
  }
  // Messages since cut_at(). A long one may come in parts, each of which counts.
  int seen() const { return seen_; }
  // Since cut_at(), how often a client spoke after the server had.
  int round_trips() const { return round_trips_; }

 private:
  static constexpr const char* kName = ".s.PGSQL.5432";

  static sockaddr_un address(const std::string& path) {
    sockaddr_un result{};
    result.sun_family = AF_UNIX;
    path.copy(result.sun_path, sizeof result.sun_path - 1);
    return result;
  }

  void accept_all() {
    for (int client = accept(listener_, nullptr, nullptr); client >= 0;
         client = accept(listener_, nullptr, nullptr))
      serving_.emplace_back([this, client] { serve(client); });
  }

  void serve(int client) {
    const int server = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un to = address(server_);
    if (connect(server, reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0) {
      std::array<pollfd, 2> ends{pollfd{client, POLLIN, 0}, pollfd{server, POLLIN, 0}};
      bool has_server_spoken = true;
      while (!ended_) {
        if (poll(ends.data(), ends.size(), 50) < 0) break;
        if (ends[0].revents != 0) {
          if (std::exchange(has_server_spoken, false)) ++round_trips_;
          if (!pass(client, server, true)) break;
        }
        if (ends[1].revents != 0) {
          has_server_spoken = true;
          if (!pass(server, client, false)) break;
        }
      }
    }
    close(server);
    close(client);
  }

  // False at the end of the connection.
  bool pass(int from, int to, bool is_clients) {
    std::array<char, 65536> buffer{};
    const ssize_t size = read(from, buffer.data(), buffer.size());
    if (size <= 0) return false;
    const bool cuts = is_clients && ++seen_ == cut_at_;
    if (cuts && cut_ == Cut::before) return false;
    if (write(to, buffer.data(), static_cast<std::size_t>(size)) != size) return false;
    if (cuts) std::this_thread::sleep_for(std::chrono::milliseconds(30));  // so that it is done
    return !cuts;
  }

  const TempDir dir_;
  const std::string server_;
  int listener_ = -1;
  std::atomic<bool> ended_ = false;
  std::atomic<int> seen_ = 0;
  std::atomic<int> round_trips_ = 0;
  std::atomic<int> cut_at_ = 0;
  std::atomic<Cut> cut_ = Cut::before;
  std::thread accepting_;
  std::vector<std::thread> serving_;
};

}  // namespace ossilar::testing
