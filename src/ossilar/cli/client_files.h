// The files by which agent clients of a repository start `ossilar mcp`: reading them, and writing those that
// lie in the repository. init.cc calls this, on the main thread.
//
// Failure: a file that cannot be read or changed is an exception before anything is written. A failure of
// write() leaves the files before it new and the others old, each whole.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "ossilar/cli/client_setup.h"
#include "ossilar/cli/output.h"

namespace ossilar::cli {

// Two steps, so that run_init() hears of a file that it cannot change before it creates a wiki.
class ClientFiles {
 public:
  // Reads the files of the clients of these names, which are among client_names(), and works out their new
  // texts. Writes nothing. Throws utils::ConfigError for a text that with_server() refuses or that is over 1
  // MiB, utils::IoError for a file that cannot be read or is a symbolic link, and utils::Error for one that
  // is not UTF-8.
  ClientFiles(const std::filesystem::path& root, const std::vector<std::string>& names);

  // Replaces the files whose text changes, one after the other, each whole. Throws utils::IoError.
  void write() const;

  // Whether all of the files start ossilar as they are; those that are not in the repository do not count.
  bool is_entered() const;

  // Both say what was written and what is left to the user: lines for a person, a list for a program.
  void print(Output& output) const;
  Map documents() const;

 private:
  struct File {
    const Client* client = nullptr;
    std::string text;
    bool changed = false;
  };
  void print(const File& file, Output& output) const;

  std::filesystem::path root_;
  std::vector<File> files_;
};

// Prints how to set a client up, for a user who named none.
void print_client_advice(const std::filesystem::path& root, Output& output);

// Whether a client that starts `ossilar` by its bare name finds one.
bool is_on_path();

// How a client on this machine starts the server, as the JSON that most clients read. It has absolute paths.
Map server_on_this_machine(const std::filesystem::path& root);

}  // namespace ossilar::cli
