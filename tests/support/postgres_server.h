// A PostgreSQL server of the tests' own: a temporary cluster that answers on a socket in its folder alone.
// One for a test program, started when it is first asked for.
#pragma once

#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/temp_dir.h"

namespace ossilar::testing {

// Not durable (fsync is off), as these tests end servers and not machines.
class PostgresServer {
 public:
  static PostgresServer& shared() {
    static PostgresServer server;
    return server;
  }

  ~PostgresServer() { stop(SIGINT); }
  PostgresServer(const PostgresServer&) = delete;
  PostgresServer& operator=(const PostgresServer&) = delete;

  // The address of a database, which need not exist; `socket` is the folder of another one that leads here.
  std::string url(const std::string& database, const std::filesystem::path& socket = {}) const {
    return "postgresql:///" + database + "?user=wiki&host=" + (socket.empty() ? folder() : socket).string();
  }
  // Of the server's socket.
  const std::filesystem::path& folder() const { return dir_.path(); }

  // Starts the server, and returns when it takes connections.
  void start() {
    server_ =
        spawn({program("postgres"), "-D", data(), "-k", dir_.path().string(), "-c", "listen_addresses=", "-c",
               "fsync=off", "-c", "max_connections=60", "-c", "log_min_messages=fatal"});
    for (int tries = 0; tries < 600; ++tries) {
      const pid_t asked = spawn({program("pg_isready"), "-q", "-h", dir_.path().string(), "-d", "postgres"});
      if (wait(asked) == 0) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    throw std::runtime_error("the PostgreSQL server does not start: " + dir_.read("log"));
  }
  // SIGINT ends it in order, SIGQUIT at once, as a crash would.
  void stop(int signal) {
    if (server_ <= 0) return;
    kill(server_, signal);
    wait(server_);
    server_ = -1;
  }

 private:
  PostgresServer() {
    if (const passwd* user = geteuid() == 0 ? getpwnam("nobody") : nullptr; user != nullptr) {
      user_ = user->pw_uid;
      group_ = user->pw_gid;
      if (chown(dir_.path().c_str(), user_, group_) != 0)
        throw std::runtime_error("cannot give the folder away");
    }
    const pid_t made = spawn({program("initdb"), "-D", data(), "-N", "--auth=trust", "--username=wiki",
                              "--encoding=UTF8", "--locale=C.UTF-8"});
    if (wait(made) != 0) throw std::runtime_error("initdb failed: " + dir_.read("log"));
    start();
  }

  std::string data() const { return (dir_ / "data").string(); }

  // Debian keeps the server's programs out of PATH.
  static std::string program(const std::string& name) {
    for (const char* version : {"15", "16", "17"}) {
      const std::string path = std::string("/usr/lib/postgresql/") + version + "/bin/" + name;
      if (std::filesystem::exists(path)) return path;
    }
    throw std::runtime_error("PostgreSQL is not installed (Debian's package postgresql)");
  }

  // Runs the program as a user that is not root, which it would refuse. It ends with this process.
  pid_t spawn(const std::vector<std::string>& arguments) {
    const pid_t child = fork();
    if (child != 0) return child;
    if (user_ != 0 && (setgroups(0, nullptr) != 0 || setgid(group_) != 0 || setuid(user_) != 0)) _exit(126);
    prctl(PR_SET_PDEATHSIG, SIGQUIT);
    if (chdir("/") != 0) _exit(126);
    if (std::freopen((dir_ / "log").c_str(), "a", stderr) == nullptr) _exit(126);
    if (std::freopen("/dev/null", "w", stdout) == nullptr) _exit(126);
    std::vector<char*> list;
    list.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments) list.push_back(const_cast<char*>(argument.c_str()));
    list.push_back(nullptr);
    execv(list[0], list.data());
    _exit(127);
  }

  static int wait(pid_t child) {
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
  }

  const TempDir dir_;
  uid_t user_ = 0;
  gid_t group_ = 0;
  pid_t server_ = -1;
};

}  // namespace ossilar::testing
