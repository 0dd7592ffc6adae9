// A small HTTP server on this machine that gives the answers of a test and records the requests.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "ossilar/utils/files.h"

namespace ossilar::testing {

class HttpServer {
 public:
  struct Request {
    std::string head;  // request line and headers
    std::string body;
  };
  // The whole answer to a request, its status line first; "" closes the connection without one. Called on the
  // server's thread, for one request after the other.
  using Answer = std::function<std::string(const Request& request)>;

  explicit HttpServer(Answer answer) : answer_(std::move(answer)), socket_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* any = reinterpret_cast<sockaddr*>(&address);
    if (bind(socket_.get(), any, size) != 0 || listen(socket_.get(), 16) != 0 ||
        getsockname(socket_.get(), any, &size) != 0)
      throw std::runtime_error("no server");
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~HttpServer() {
    shutdown(socket_.get(), SHUT_RDWR);
    thread_.join();
  }
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  std::string url(const std::string& path = "/v1") const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }
  std::vector<Request> requests() const {
    const std::lock_guard lock(mutex_);
    return requests_;
  }

  static std::string ok(const std::string& body) { return status("200 OK", body); }
  static std::string status(const std::string& line, const std::string& body = "",
                            const std::string& headers = "") {
    return "HTTP/1.1 " + line + "\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nConnection: close\r\n" + headers + "\r\n" + body;
  }

 private:
  void serve() {
    for (;;) {
      const utils::UniqueFd connection(accept(socket_.get(), nullptr, nullptr));
      if (!connection) return;
      const Request request = read_request(connection.get());
      {
        const std::lock_guard lock(mutex_);
        requests_.push_back(request);
      }
      const std::string answer = answer_(request);
      std::size_t sent = 0;
      while (sent < answer.size()) {
        const ssize_t size = send(connection.get(), answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
        if (size <= 0) break;
        sent += static_cast<std::size_t>(size);
      }
    }
  }

  static Request read_request(int fd) {
    std::string text;
    std::size_t head = std::string::npos;
    std::size_t wanted = std::string::npos;
    char block[4096];
    while (text.size() < wanted) {
      const ssize_t size = read(fd, block, sizeof block);
      if (size <= 0) break;
      text.append(block, static_cast<std::size_t>(size));
      if (head != std::string::npos || (head = text.find("\r\n\r\n")) == std::string::npos) continue;
      const std::size_t length = text.find("Content-Length: ");
      wanted = head + 4 + (length < head ? std::stoul(text.substr(length + 16)) : 0);
    }
    head = std::min(head, text.size());
    return {text.substr(0, head), text.substr(std::min(head + 4, text.size()))};
  }

  const Answer answer_;
  utils::UniqueFd socket_;
  int port_ = 0;
  mutable std::mutex mutex_;
  std::vector<Request> requests_;
  std::thread thread_;
};

}  // namespace ossilar::testing
