#include "ossilar/cli/commands.h"
#include "ossilar/workers/wiki/host/wiki_reader.h"

namespace ossilar::cli {
namespace {

using workers::wiki::PageCondition;
using workers::wiki::PageState;
using workers::wiki::StateCounts;
using workers::wiki::WikiStatus;

// Stale and unverified pages that the screen names; `plan` lists all.
constexpr std::size_t kMostNamed = 10;

Map document_of(const WikiStatus& status, const StateCounts& counts) {
  Map document{{"branch", status.branch},
               {"commit", status.commit},
               {"indexed_files", status.indexed_files},
               {"pages", Map{{"ok", counts.ok},
                             {"stale", counts.stale},
                             {"unverified", counts.unverified},
                             {"missing", counts.missing}}},
               {"last_write", Map()}};
  if (status.last_write) {
    document["last_write"] = Map{{"at", status.last_write->last_built_at},
                                 {"by", status.last_write->model},
                                 {"commit", status.last_write->last_commit}};
  }
  return document;
}

void print_doubtful(const WikiStatus& status, Output& output) {
  std::size_t named = 0;
  for (const PageState& page : status.pages) {
    if (page.condition != PageCondition::stale && page.condition != PageCondition::unverified) continue;
    if (named++ == kMostNamed) return output.line("  more in: ossilar plan");
    output.line("  " + output.styled(Style::bold, page.page_id) + "  " +
                output.styled(Style::warn, page.reason));
  }
}

}  // namespace

int run_status(const Place& place, Output& output) {
  const auto wiki = open_at(place, "status");
  bring_up_to_date(*wiki);
  const WikiStatus status = workers::wiki::WikiReader(*wiki).status(workers::wiki::Look::spared);
  const StateCounts counts = workers::wiki::count_states(status.pages);
  output.document(document_of(status, counts));
  output.line("branch      " + output.styled(Style::bold, status.branch));
  output.line("commit      " + (status.commit.empty() ? "none" : status.commit));
  output.line("source      " + std::to_string(status.indexed_files) + " file(s)");
  output.line("pages       " + output.styled(Style::good, std::to_string(counts.ok) + " ok") + ", " +
              output.styled(Style::warn, std::to_string(counts.stale) + " stale") + ", " +
              (counts.unverified == 0
                   ? ""
                   : output.styled(Style::warn, std::to_string(counts.unverified) + " unverified") + ", ") +
              output.styled(Style::dim, std::to_string(counts.missing) + " missing"));
  output.line("last write  " + (status.last_write
                                    ? status.last_write->last_built_at + " by " + status.last_write->model
                                    : std::string("none on this branch")));
  print_doubtful(status, output);
  return kDone;
}

}  // namespace ossilar::cli
