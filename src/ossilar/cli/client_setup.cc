// The plain way, to parse a file and print it again, would change what a person wrote: layout, the spelling
// of numbers, and comments in TOML. So the entry is inserted into the text itself. For JSON the result is
// then parsed and compared with what was wanted. TOML is not parsed: a table is appended, and a file with any
// line that may be about servers of this name is refused.
//
// In doubt a file is refused, with the entry to add by hand. Adding it costs the user a moment; a
// configuration that we broke would cost more.
#include "ossilar/cli/client_setup.h"

#include <algorithm>
#include <stdexcept>
#include <string_view>

#include "ossilar/cli/json_insert.h"
#include "ossilar/utils/error.h"
#include "ossilar/utils/text.h"

namespace ossilar::cli {
namespace {

using Form = Client::Form;
using utils::ConfigError;

constexpr const char* kServer = "ossilar";

Map arguments_of(const Invocation& invocation) { return {"--repo", invocation.repository, "mcp"}; }

Map entry(Form form, const Invocation& invocation) {
  if (form == Form::command_list) {
    Map command = arguments_of(invocation);
    command.insert(command.begin(), invocation.program);
    return {{"type", "local"}, {"command", command}};
  }
  Map made;
  if (form == Form::with_type) made["type"] = "stdio";
  made["command"] = invocation.program;
  made["args"] = arguments_of(invocation);
  return made;
}

std::string toml_table(const Client& client, const Invocation& invocation) {
  const Map server = entry(client.form, invocation);
  // A string or a list of strings in JSON is the same in TOML, escapes and all.
  return "[" + std::string(client.table) + "." + kServer +
         "]\ncommand = " + utils::json_text(server["command"]) +
         "\nargs = " + utils::json_text(server["args"]) + "\n";
}

// Throws the refusal, with the entry to add by hand. On one line, like every failure that the command prints.
[[noreturn]] void refuse(const Client& client, const std::string& what) {
  const Map server = entry(client.form, {.repository = client.folder});
  throw ConfigError(std::string(client.file) + " " + what + "; nothing was changed. Add under " +
                    client.table + ": \"" + kServer + "\": " + utils::json_text(server) +
                    (client.form == Form::toml ? " (in TOML syntax)" : ""));
}

// The text as a JSON object. A byte order mark is skipped here only: the text that is written keeps it.
Map parsed(const Client& client, const std::string& text) {
  try {
    Map file = utils::parse_json(utils::without_byte_order_mark(text), client.file);
    if (file.is_object()) return file;
  } catch (const utils::Error& error) {
    refuse(client, std::string("is not plain JSON (") + error.what() + ")");
  }
  refuse(client, "is not a JSON object");
}

// Whether the entry has every field of ours. Fields that the user added, such as an environment, do not
// matter.
bool has_all_of(const Map& entered, const Map& ours) {
  return std::all_of(ours.items().begin(), ours.items().end(),
                     [&](const auto& field) { return utils::member(entered, field.key()) == field.value(); });
}

// An entry that is ours is left alone, whatever was added to it. Another one of the same name is the user's:
// to replace it might stop a server that works.
std::string with_json_server(const Client& client, const std::string& text) {
  const Map ours = entry(client.form, {.repository = client.folder});
  Map file = parsed(client, text);
  const bool has_table = file.contains(client.table);
  const Map& servers = utils::member(file, client.table);
  if (has_table && !servers.is_object())
    refuse(client, "has no object under \"" + std::string(client.table) + '"');
  const Map& entered = utils::member(servers, kServer);
  if (has_all_of(entered, ours)) return text;
  if (!entered.is_null()) refuse(client, "already has a different server named ossilar");

  const auto made = has_table ? insert_member(text, client.table, kServer, ours)
                              : insert_member(text, "", client.table, Map{{kServer, ours}});
  file[client.table][kServer] = ours;
  // insert_member() compares keys as they are written, the parser compares them decoded. Where the two
  // differ, the server landed in the wrong place. (With `false`, a text that does not parse gives a value
  // that equals nothing.)
  if (!made || Map::parse(*made, nullptr, false) != file)
    refuse(client, "has keys in a form that ossilar cannot edit");
  return *made;
}

// Whether `line`, without white space at its ends, may define this server or the table of all servers. Broad
// on purpose: a false alarm is a refusal that shows the line, a miss would define the server twice and break
// the file.
bool enters_servers(std::string_view line, std::string_view table) {
  const bool header = line.substr(0, 1) == "[";
  if (header) return line.find(table) != line.npos && line.find(kServer) != line.npos;
  const std::string_view key = line.substr(std::min(line.find_first_not_of("\"'"), line.size()));
  return key.rfind(table, 0) == 0 || key.rfind(kServer, 0) == 0;
}

// Appends a table. It may stand at the end of any TOML text, unless its parent was given inline or the table
// is there already; both are searched for line by line. Our own table is looked for before that, since its
// header would be taken for another server's; line ends are normalised for it, as a checkout may have changed
// them.
std::string with_toml_server(const Client& client, const std::string& text) {
  std::string ours = toml_table(client, {.repository = client.folder});
  if (("\n" + utils::normalise_line_ends(text) + "\n").find("\n" + ours) != std::string::npos) return text;
  for (const std::string_view line : utils::split_lines(text)) {
    if (enters_servers(utils::strip(line), client.table)) {
      refuse(client, "already has a server named ossilar, or servers in a form that ossilar cannot edit: " +
                         utils::printable(utils::strip(line)));
    }
  }
  if (text.empty()) return ours;
  return text + (text.back() == '\n' ? "\n" : "\n\n") + ours;
}

}  // namespace

// By the clients' own documentation, in this order: code.claude.com/docs/en/mcp,
// developers.openai.com/codex/mcp (which reads the file in projects that its user trusts),
// cursor.com/docs/context/mcp, github.com/google-gemini/gemini-cli docs/tools/mcp-server.md,
// opencode.ai/docs/mcp-servers, code.visualstudio.com/docs/copilot/reference/mcp-configuration,
// docs.windsurf.com/windsurf/cascade/mcp, zed.dev/docs/ai/mcp. Where the folder is ".", the client starts
// servers in the project.
const std::vector<Client>& clients() {
  static const std::vector<Client> kClients{
      {"claude-code", ".mcp.json", "mcpServers", ".", Form::command_and_args},
      {"codex", ".codex/config.toml", "mcp_servers", ".", Form::toml},
      {"cursor", ".cursor/mcp.json", "mcpServers", "${workspaceFolder}", Form::with_type},
      {"gemini", ".gemini/settings.json", "mcpServers", ".", Form::command_and_args},
      {"opencode", "opencode.json", "mcp", ".", Form::command_list},
      {"vscode", ".vscode/mcp.json", "servers", "${workspaceFolder}", Form::with_type},
      {"windsurf", "~/.codeium/windsurf/mcp_config.json", "mcpServers", "", Form::command_and_args},
      {"zed", ".zed/settings.json", "context_servers", ".", Form::command_and_args},
  };
  return kClients;
}

std::vector<std::string> client_names() {
  std::vector<std::string> names;
  for (const Client& client : clients()) names.emplace_back(client.name);
  return names;
}

const Client& client_named(const std::string& name) {
  for (const Client& client : clients())
    if (name == client.name) return client;
  throw std::out_of_range("no client is named " + name);
}

std::string configuration(const Client& client, const Invocation& invocation) {
  if (client.form == Form::toml) return utils::printable_json(toml_table(client, invocation));
  const Map whole{{client.table, {{kServer, entry(client.form, invocation)}}}};
  return utils::printable_json(whole.dump(2)) + "\n";
}

Map common_configuration(const Invocation& invocation) {
  return {{"mcpServers", {{kServer, entry(Form::command_and_args, invocation)}}}};
}

std::string with_server(const Client& client, const std::string& text) {
  if (client.form == Form::toml) return with_toml_server(client, text);
  if (utils::strip(text).empty()) return configuration(client, {.repository = client.folder});
  return with_json_server(client, text);
}

}  // namespace ossilar::cli
