// The agent clients that `ossilar init` sets up: where each reads its servers from, and how `ossilar mcp` is
// entered there. Text in, text out.
//
// Thread-safety: every function may be called from any thread.
#pragma once

#include <string>
#include <vector>

#include "ossilar/utils/json.h"

namespace ossilar::cli {

struct Client {
  enum class Form { command_and_args, with_type, command_list, toml };

  const char* name;    // as --client takes it
  const char* file;    // relative to the repository; "~/..." is the user's own and not ours to write
  const char* table;   // the object in it that holds the servers by their names
  const char* folder;  // what names the repository in a file that others check out
  Form form;

  bool in_repository() const { return file[0] != '~'; }
};

// In the order of their names.
const std::vector<Client>& clients();
std::vector<std::string> client_names();
// Throws std::out_of_range for a name that is not among client_names().
const Client& client_named(const std::string& name);

// How the server is started: by the program of this name or path, on this repository.
struct Invocation {
  std::string program = "ossilar";
  std::string repository;
};

// A whole configuration that has this one server, on several lines; in one with_server() reads alike. What
// utils::printable() would replace stands as \u escapes, so that a terminal shows it as it is to be pasted.
std::string configuration(const Client& client, const Invocation& invocation);

// The same as the JSON that most clients read.
Map common_configuration(const Invocation& invocation);

// `text`, which is what `client.file` holds, or "" when there is none, with the server entered for everybody
// who checks it out: by its bare name and client.folder. The rest of the text stays byte for byte, and the
// whole when the server is there already. Throws utils::ConfigError when the text is not plain JSON (or names
// servers in a way that is not understood) or has another server of the same name.
std::string with_server(const Client& client, const std::string& text);

}  // namespace ossilar::cli
