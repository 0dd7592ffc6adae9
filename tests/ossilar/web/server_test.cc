// The server over real sockets: what only sockets show.
#include "ossilar/web/server.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/wiki_repo.h"

namespace ossilar::web {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

class Connection {
 public:
  explicit Connection(std::uint16_t port) : socket_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    is_open_ = connect(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  bool is_open() const { return is_open_; }
  // What the server does not take any more is dropped: it may have ended the connection.
  void send(const std::string& text) {
    static_cast<void>(::send(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL));
  }
  // Reads until `end` came, the connection ended, or nothing comes for 20 seconds.
  std::string read_until(const std::string& end) {
    while (end.empty() || read_.find(end) == std::string::npos) {
      pollfd waiting{socket_.get(), POLLIN, 0};
      char buffer[4096];
      if (poll(&waiting, 1, 20000) <= 0) break;
      const ssize_t size = recv(socket_.get(), buffer, sizeof buffer, 0);
      if (size <= 0) break;
      read_.append(buffer, static_cast<std::size_t>(size));
    }
    return read_;
  }

 private:
  utils::UniqueFd socket_;
  bool is_open_ = false;
  std::string read_;
};

class ServerTest : public ::testing::Test {
 protected:
  ServerTest() {
    const auto wiki = repo.open();
    EXPECT_TRUE(testing::is_saved(testing::save(*wiki, "alpha", testing::WikiRepo::text_about("alpha"))));
    server = std::make_unique<Server>(ServerOptions{.root = repo.dir.path()});
  }

  std::string host() const { return "Host: 127.0.0.1:" + std::to_string(server->port()) + "\r\n"; }
  // What is answered to the bytes, to the end of the connection or to `end`.
  std::string answer(const std::string& bytes, const std::string& end = "") const {
    Connection connection(server->port());
    connection.send(bytes);
    return connection.read_until(end);
  }
  std::string get(const std::string& path) const {
    return answer("GET " + path + " HTTP/1.1\r\n" + host() + "Connection: close\r\n\r\n");
  }

  testing::WikiRepo repo;
  std::unique_ptr<Server> server;
};

TEST_F(ServerTest, StaysAliveWhateverIsSent) {
  const std::string many = [] {
    std::string text;
    for (int i = 0; i < 20000; ++i) text += "X-" + std::to_string(i) + ": y\r\n";
    return text;
  }();
  const struct {
    std::string bytes;
    const char* starts;  // of the answer
  } kRows[] = {
      {"GET / HTTP/1.1\r\nHost: evil.example\r\n\r\n", "HTTP/1.1 403"},
      {"GET / HTTP/1.0\r\n\r\n", "HTTP/1.1 403"},
      {"POST / HTTP/1.1\r\n" + host() + "Content-Length: 1000000000\r\n\r\nab", "HTTP/1.1 405"},
      {"GET / HTTP/1.1\r\n" + host() + "Content-Length: 1000000000\r\n\r\nab", "HTTP/1.1 200"},
      {"GET / HTTP/1.1\r\n" + host() + "Transfer-Encoding: chunked\r\n\r\n", "HTTP/1.1 200"},
      {"GET /" + std::string(100000, 'a') + " HTTP/1.1\r\n" + host() + "\r\n", "HTTP/1.1 414"},
      {"GET / HTTP/1.1\r\n" + host() + "X: " + std::string(100000, 'a') + "\r\n\r\n", "HTTP/1.1 431"},
      {"GET / HTTP/1.1\r\n" + host() + many + "\r\n", "HTTP/1.1 431"},
      {"GET /source/..%2f..%2fetc/passwd.html HTTP/1.1\r\n" + host() + "Connection: close\r\n\r\n",
       "HTTP/1.1 404"},
      {"GET /pages/alpha%00.html HTTP/1.1\r\n" + host() + "Connection: close\r\n\r\n", "HTTP/1.1 400"},
      {"BREW / HTTP/1.1\r\n" + host() + "\r\n", "HTTP/1.1 405"},
  };
  for (const auto& row : kRows)
    EXPECT_THAT(answer(row.bytes, "\r\n\r\n"), StartsWith(row.starts)) << row.bytes.substr(0, 60);
  Connection noise(server->port());
  noise.send(std::string("\0\xFF\0\r\n\r\n", 7));  // no request, so no answer is due
  EXPECT_THAT(get("/pages/alpha.html"), StartsWith("HTTP/1.1 200"));
}

TEST_F(ServerTest, SlowAndManyClientsKeepNobodyWaiting) {
  std::vector<std::unique_ptr<Connection>> slow;
  for (int i = 0; i < 200; ++i) {
    slow.push_back(std::make_unique<Connection>(server->port()));
    slow.back()->send("GET / HTTP/1.1\r\n");  // and then nothing
  }
  EXPECT_THAT(get("/pages/alpha.html"), StartsWith("HTTP/1.1 200"));
}

TEST_F(ServerTest, TellsOpenPagesOfASave) {
  Connection events(server->port());
  events.send("GET /events HTTP/1.1\r\n" + host() + "\r\n");
  EXPECT_THAT(events.read_until(": connected"), HasSubstr("text/event-stream"));
  const auto other = repo.open();
  ASSERT_TRUE(testing::is_saved(testing::save(*other, "beta", testing::WikiRepo::text_about("beta"))));
  EXPECT_THAT(events.read_until("event: changed"), HasSubstr("event: changed"));
  EXPECT_THAT(get("/pages/beta.html"), HasSubstr("About beta."));
}

TEST_F(ServerTest, BoundsTheStreamsAndEndsThem) {
  std::vector<std::unique_ptr<Connection>> streams;
  for (int i = 0; i < 64; ++i) {
    streams.push_back(std::make_unique<Connection>(server->port()));
    streams.back()->send("GET /events HTTP/1.1\r\n" + host() + "\r\n");
    ASSERT_THAT(streams.back()->read_until(": connected"), HasSubstr("200 OK"));
  }
  EXPECT_THAT(get("/events"), StartsWith("HTTP/1.1 503"));
  server.reset();  // ends although they are open
  EXPECT_THAT(streams.front()->read_until(""), HasSubstr(": connected"));
}

TEST_F(ServerTest, APortInUseIsSaid) {
  try {
    const Server second({.root = repo.dir.path(), .port = server->port()});
    FAIL() << "two servers on one port";
  } catch (const utils::ConfigError& error) {
    EXPECT_THAT(error.what(), HasSubstr("is in use"));
  }
}

TEST_F(ServerTest, AnswersTheHeadAlone) {
  const std::string answered =
      answer("HEAD /pages/alpha.html HTTP/1.1\r\n" + host() + "Connection: close\r\n\r\n");
  EXPECT_THAT(answered, StartsWith("HTTP/1.1 200"));
  EXPECT_THAT(answered, ::testing::EndsWith("\r\n\r\n"));
}

}  // namespace
}  // namespace ossilar::web
