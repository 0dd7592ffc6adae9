// The agent clients that `ossilar init` sets up: where each reads its servers from, and how `ossilar mcp` is
// entered there. Text in, text out: client_files.cc reads and writes the files, and app.cc lists the names in
// the help.
//
// Thread-safety: every function may be called from any thread. A failure leaves nothing, as nothing is
// written.
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
  const char* folder;  // names the repository on any machine; "" where `file` is the user's own
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

// The text of a whole configuration with this one server, on several lines. Characters that
// utils::printable() would replace are written as \u escapes, so what a terminal shows can be pasted as it
// is.
std::string configuration(const Client& client, const Invocation& invocation);

// The same as a value, in the form that most clients read.
Map common_configuration(const Invocation& invocation);

// `text` with the server entered for everybody who checks the file out: by the program's bare name and
// client.folder. `text` is what `client.file` holds, or "" when there is no file. Everything else in it stays
// byte for byte; if the server is there already, all of it does. Throws utils::ConfigError when the text is
// not plain JSON, names servers in a way that is not understood, or has another server of the same name.
std::string with_server(const Client& client, const std::string& text);

}  // namespace ossilar::cli
