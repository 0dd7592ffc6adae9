// The order of run_init() is what matters. Clients' files are read first and written last: one that cannot be
// changed stops the command before it has created anything. Pages are adopted after the index is made, as the
// plan says to which page a file belongs, and passages are embedded after that, so those of adopted pages are
// among them.
//
// Each step makes only what is missing or out of date, so `init` can be run again, after a failure too.
#include <map>
#include <optional>

#include "ossilar/cli/client_files.h"
#include "ossilar/cli/commands.h"
#include "ossilar/cli/git_hook.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/asking/wiki_reader.h"
#include "ossilar/workers/wiki/check/arrivals.h"
#include "ossilar/workers/wiki/config.h"
#include "ossilar/workers/wiki/host/open_wiki.h"

namespace ossilar::cli {
namespace {

using workers::wiki::AdoptionReport;
using workers::wiki::PageState;
using workers::wiki::WikiStatus;

void print_adoption(const AdoptionReport& report, Output& output) {
  if (report.adopted > 0) {
    output.line("Adopted " + std::to_string(report.adopted) +
                " page file(s) that had no row in the database.");
  }
  for (const std::string& page : report.undescribed) {
    output.line("  " + output.styled(Style::warn, page) +
                " is in no manifest; its file was adopted as it is.");
  }
  for (const std::string& page : report.edited) {
    output.line("  " + output.styled(Style::warn, page) +
                " was edited after its last save; its file was adopted as it is.");
  }
  for (const std::string& file : report.unplanned)
    Output::diagnostic("left alone, the plan has no such page (see: ossilar check): " + file);
  for (const std::string& message : report.failed) Output::diagnostic(message);
  tell_of_records(report.given_records);
}

// A page about code before those that sum such pages up: its sources are all that its author needs.
const PageState* first_to_write(const WikiStatus& status) {
  const PageState* first = nullptr;
  for (const PageState& page : status.pages) {
    if (page.condition != workers::wiki::PageCondition::missing) continue;
    if (page.type == "module") return &page;
    if (first == nullptr) first = &page;
  }
  return first;
}

void print_next_steps(Output& output) {
  output.line();
  output.line("Next:");
  output.line("  ossilar plan     list the pages and how they stand");
  output.line("  ossilar doctor   say what is missing or odd on this machine");
  output.line("Commit ossilar.toml and the wiki's folder; .ossilar is local, and git ignores it.");
}

// The last thing on the screen, so that a reader who is done knows what to type. Nothing in a wiki whose
// pages are all written.
void print_first_page(const WikiStatus& status, Output& output) {
  const PageState* page = first_to_write(status);
  if (page == nullptr) return;
  output.line();
  output.line("The first page to write is " + output.styled(Style::bold, page->page_id) + ", \"" +
              page->title + "\":");
  output.line("  ossilar context " + page->page_id + "     print what its author needs to know");
  output.line("  ossilar save " + page->page_id + " FILE   check it and store it");
}

// valid_utf8(): a path may be any bytes, and JSON holds none that are not UTF-8.
Map document_of(const std::filesystem::path& root, const std::vector<std::string>& created,
                const WikiStatus& status, const AdoptionReport& adoption, const ClientFiles& clients,
                const std::optional<GitHook>& hook) {
  return {{"root", utils::valid_utf8(root.string())},
          {"created", created},
          {"indexed_files", status.indexed_files},
          {"planned_pages", status.pages.size()},
          {"adopted", adoption.adopted},
          {"edited", adoption.edited},
          {"undescribed", adoption.undescribed},
          {"unplanned_files", adoption.unplanned},
          {"failed", adoption.failed},
          {"clients", clients.documents()},
          {"hook", hook ? hook->document() : Map::object()},
          {"client_configuration", server_on_this_machine(root)}};
}

std::optional<GitHook> hook_for(const std::filesystem::path& root, bool is_wanted) {
  if (!is_wanted) return std::nullopt;
  return GitHook(root, workers::wiki::load_config(root / "ossilar.toml").dir);
}

}  // namespace

int run_init(const Place& place, const InitArguments& arguments, Output& output) {
  const std::filesystem::path root = place.root_or_here();
  // Both throw before anything is created.
  const ClientFiles clients(root, arguments.clients);
  const auto hook = hook_for(root, arguments.hook);
  const std::vector<std::string> created = workers::wiki::set_up_wiki(root);
  const auto wiki = workers::wiki::open_wiki(root, "ossilar init");
  prepare_with_progress(*wiki);
  const AdoptionReport adoption = workers::wiki::adopt_pages(*wiki);
  reembed_with_progress(*wiki);
  const WikiStatus status = workers::wiki::WikiReader(*wiki).status(workers::wiki::Look::spared);
  if (hook) hook->write();
  clients.write();  // last: a failure above leaves no client that starts a server without a wiki

  output.document(document_of(root, created, status, adoption, clients, hook));
  output.line(output.styled(Style::good, "ready") + "  " + output.styled(Style::bold, root.string()));
  if (!created.empty()) output.line("Created " + utils::join(created, ", ") + ".");
  output.line("Indexed " + std::to_string(status.indexed_files) + " file(s); " +
              std::to_string(status.pages.size()) + " page(s) planned.");
  print_adoption(adoption, output);
  print_next_steps(output);
  if (hook) hook->print(output);
  clients.print(output);
  if (arguments.clients.empty()) print_client_advice(root, output);
  print_first_page(status, output);
  return kDone;
}

}  // namespace ossilar::cli
