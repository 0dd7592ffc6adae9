// Names the pages that rest on what a change touches. The rules are in workers/wiki/asking/affected.cc; this
// only reads what was typed and translates.
#include "ossilar/workers/wiki/asking/affected.h"

#include "ossilar/operations/doubts.h"
#include "ossilar/operations/operation.h"
#include "ossilar/operations/schemas.h"
#include "ossilar/utils/error.h"

namespace ossilar::operations {
namespace {

using source::Comparison;
using source::Side;
using workers::wiki::AffectedPage;

// Claims of one page that a session is told of: some 2,000 tokens.
constexpr std::size_t kMostClaimsOfPage = 20;
// Pages that a session is told of.
constexpr std::size_t kMostPagesShown = 50;

// "A..B" are two commits, either of them HEAD where it is left out; anything else is one, which the working
// tree or what is staged is compared with.
Comparison comparison_of(const Map& arguments) {
  const std::string change = optional_text(arguments, "change").value_or("HEAD");
  Comparison compared{.from = change, .to = Side::working, .commit = {}};
  if (arguments.value("staged", false)) compared.to = Side::staged;
  const std::size_t dots = change.find("..");
  if (dots == std::string::npos) return compared;
  if (change.find("...") != std::string::npos) {
    throw utils::ConfigError("'" + change +
                             "' has three dots; give the commit from which the branches part: "
                             "ossilar affected \"$(git merge-base A B)..B\"");
  }
  const auto or_head = [](const std::string& name) { return name.empty() ? std::string("HEAD") : name; };
  return {.from = or_head(change.substr(0, dots)),
          .to = Side::commit,
          .commit = or_head(change.substr(dots + 2))};
}

std::optional<Map> refuse(const Map& arguments) {
  const bool is_between = utils::string_member(arguments, "change").find("..") != std::string::npos;
  if (!is_between || !arguments.value("staged", false)) return std::nullopt;
  return Map{{"error", "two commits and what is staged cannot be compared at once; leave one of them out"}};
}

Map described(const AffectedPage& page, std::size_t most) {
  Map claims = Map::array();
  for (const auto& [claim, state, now] : page.claims) {
    if (claims.size() == most) break;
    Map shown = doubt_map({claim.known.heading, claim.known.citation, state, now});
    shown["sentence"] = claim.sentence;
    shown["line"] = claim.line;
    claims.push_back(std::move(shown));
  }
  return {{"page_id", page.page_id},
          {"title", page.title},
          {"state", workers::wiki::condition_name(page.condition)},
          {"rel_path", "pages/" + page.page_id + ".md"},
          {"claims", std::move(claims)},
          {"sources", page.sources}};
}

Result call_affected(const Asked& asked) {
  const bool is_whole = asked.caller == Caller::shell;
  const auto pages = workers::wiki::affected_pages(asked.wiki, comparison_of(asked.arguments), asked.task);
  Map shown = Map::array();
  for (const AffectedPage& page : pages) {
    if (!is_whole && shown.size() == kMostPagesShown) break;
    shown.push_back(described(page, is_whole ? page.claims.size() : kMostClaimsOfPage));
  }
  return {.value = Map{{"pages", std::move(shown)}, {"total", pages.size()}}};
}

}  // namespace

Operation affected() {
  using namespace schema;  // NOLINT(google-build-using-namespace): a schema reads as one expression
  const Map page =
      object({{"page_id", text("the page")},
              {"title", text("the page's title")},
              {"state", choice({"stale", "moved", "drifted"},
                               "what the change makes of the page; drifted: it cites nothing that changes")},
              {"rel_path", text("its file, relative to the wiki's directory")},
              {"claims", list(claim_schema(), "the citations that the change moves or alters")},
              {"sources", strings("of a drifted page: its sources that change")}},
             {"page_id", "title", "state", "rel_path", "claims", "sources"});
  return {
      .command = "affected",
      .tool = "affected",
      .title = "Pages that a change affects",
      .does = "Name the pages, sections and sentences that rest on what a change touches",
      .description =
          "Names the pages that rest on what a change touches, before it is committed or merged: each with "
          "the "
          "sentences whose cited lines it moves or alters. Without arguments the change is what differs from "
          "the last commit. Call it after you have changed code, and refresh the pages that are \"stale\".",
      .example = "ossilar affected\nossilar affected --staged\nossilar affected main..HEAD",
      .arguments = {{.name = "change",
                     .option = "REV",
                     .value = {},
                     .schema = needed_text("a commit, which the files are compared with, or two as "
                                           "`OLD..NEW`; HEAD if it is left out")},
                    {.name = "staged",
                     .option = "--staged",
                     .value = {},
                     .schema = flag("compare what git would commit, and not the files"),
                     .flag = true},
                    {.name = "annotations",
                     .option = "--annotations",
                     .value = "FORGE",
                     .schema =
                         choice({"github", "gitlab"}, "print what this forge shows beside the changed lines"),
                     .in_session = false}},
      .output_schema = object({{"pages", list(page, "those that become stale first")},
                               {"total", count("number of pages, also of those left out")}},
                              {"pages", "total"}),
      .refuse = refuse,
      .call = call_affected};
}

}  // namespace ossilar::operations
