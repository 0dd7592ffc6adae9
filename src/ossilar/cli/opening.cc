// What a stranger sees who types the bare name: no page of options, but what this is and one thing to do.
#include "ossilar/cli/commands.h"
#include "ossilar/utils/files.h"

namespace ossilar::cli {

int run_without_command(const Place& place, Output& output) {
  const std::filesystem::path root = place.root_or_here();
  const bool has_wiki = utils::is_there(root / ".ossilar");
  const std::string next = has_wiki ? "ossilar status" : "ossilar init";
  output.document(Map{{"error", "no command given; see: ossilar --help"}, {"exit_code", kUsage}});
  output.line("ossilar keeps a wiki about a code repository: agents write its pages, each cites the source");
  output.line("that it rests on, and ossilar knows when a page no longer holds.");
  output.line();
  output.line((has_wiki ? "The wiki of " : "There is no wiki in ") + Shown(root.string()) +
              (has_wiki ? " stands as this says:" : " yet. To set one up, type:"));
  output.line("  " + output.styled(Style::bold, next));
  output.line();
  output.line("All commands: ossilar --help. Is everything here that it needs: ossilar doctor.");
  return kUsage;
}

}  // namespace ossilar::cli
