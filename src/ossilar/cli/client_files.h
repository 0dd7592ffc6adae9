// The files by which agent clients of a repository start `ossilar mcp`: reading them, and writing those that
// lie in the repository.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "ossilar/cli/client_setup.h"
#include "ossilar/cli/output.h"

namespace ossilar::cli {

class ClientFiles {
 public:
  // Reads the files of the clients of these names and works out what they become, and writes nothing. Throws
  // utils::ConfigError or utils::IoError when one of them cannot be changed.
  ClientFiles(const std::filesystem::path& root, const std::vector<std::string>& names);

  // Replaces those that change, each whole.
  void write() const;

  // What was done and what is left to the user, for a person and for a program.
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

// Prints how agents get at the wiki, for a user who has named no client.
void print_client_advice(const std::filesystem::path& root, Output& output);

// The server as any client starts it on this machine: the JSON that most of them read.
Map server_on_this_machine(const std::filesystem::path& root);

}  // namespace ossilar::cli
