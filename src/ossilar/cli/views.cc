// One function for each operation, which turns its document into lines of text. They read the document that
// --json prints and ask the wiki for nothing but paths, so people and programs are told the same.
#include "ossilar/cli/views.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <vector>

#include "ossilar/cli/annotations.h"
#include "ossilar/cli/history_views.h"
#include "ossilar/utils/markdown.h"

namespace ossilar::cli {
namespace {

// `status` names no more stale and unverified pages than this, to stay on one screen; `plan` lists all.
constexpr std::size_t kMostNamed = 10;

std::string form_at(const Map& value, const char* key) { return utils::text_form(value.at(key)); }

// ---- plan

Style style_of(const std::string& state) {
  if (state == "ok") return Style::good;
  return state == "missing" || state == "drifted" ? Style::dim : Style::warn;
}

std::vector<Output::Cell> row_of(const Map& page) {
  const std::string state = text_at(page, "state");
  // A title that only repeats the id is left out, as the id has a column.
  const std::string title = text_at(page, "title") == text_at(page, "page_id") ? "" : text_at(page, "title");
  const bool is_written = state != "missing";
  return {{state, style_of(state)},
          {text_at(page, "page_id"), Style::bold},
          {text_at(page, "type")},
          {is_written ? form_at(page, "citations") : ""},
          {is_written ? form_at(page, "words") : ""},
          {title},
          {text_at(page, "reason"), Style::warn}};
}

void print_plan(const Given& given, Output& output) {
  std::vector<std::vector<Output::Cell>> rows;
  for (const Map& page : given.value.at("pages")) rows.push_back(row_of(page));
  output.table({"STATE", "PAGE", "TYPE", "CITATIONS", "WORDS", "TITLE", "REASON"}, rows);
}

// ---- context and show

void print_context(const Given& given, Output& output) {
  for (const Map& unknown : utils::member(given.value, "unknown_focus"))
    Output::diagnostic(utils::text_form(unknown));
  const std::string changes = text_at(given.value, "changes");
  output.raw(changes.empty() ? "" : changes + "\n");
  if (const std::string text = text_at(given.value, "text"); !text.empty()) {
    const std::string fence = utils::fence_for(text);
    output.raw("## The page as it is\n\n" + fence + "markdown\n" + text + fence + "\n\n");
  }
  output.raw(text_at(given.value, "grounding"));
}

void print_page(const Given& given, Output& output) { output.raw(text_at(given.value, "text")); }

// ---- save

void print_answer(const char* done, const Given& given, Output& output) {
  const Map& answer = given.value;
  const std::string file = shown_path(given.wiki.paths().wiki / text_at(answer, "rel_path"));
  output.line(output.styled(Style::good, done) + "  " +
              output.styled(Style::bold, text_at(answer, "page_id")) + "  " + file);
  output.line("       " + form_at(answer, "citations") + " citation(s), " + form_at(answer, "words") +
              " words");
  for (const Map& warning : answer.at("warnings"))
    output.line(output.styled(Style::warn, "warning") + "  " + utils::text_form(warning));
}

void print_saved(const Given& given, Output& output) {
  print_answer(given.value.contains("dry_run") ? "would save" : "saved", given, output);
  for (const Map& cited : utils::member(given.value, "cited")) {
    output.line("  [" + text_at(cited, "citation") + "]  " +
                output.styled(Style::dim, text_at(cited, "line")));
  }
}

void print_confirmed(const Given& given, Output& output) { print_answer("confirmed", given, output); }
void print_restored(const Given& given, Output& output) { print_answer("restored", given, output); }

// ---- sync

void print_synced(const Given& given, Output& output) {
  const bool is_dry_run = given.value.at("dry_run").get<bool>();
  const Map& pages = given.value.at("pages");
  if (pages.empty()) return output.line("nothing moved");
  for (const Map& page : pages) {
    if (is_dry_run) {
      output.raw(text_at(page, "diff"));
      continue;
    }
    const std::string refused = text_at(page, "refused");
    output.line(
        output.styled(refused.empty() ? Style::good : Style::bad, refused.empty() ? "synced" : "refused") +
        "  " + output.styled(Style::bold, text_at(page, "page_id")) + "  " + refused);
    for (const Map& moved : page.at("moved"))
      output.line("        [" + text_at(moved, "citation") + "] to [" + text_at(moved, "now") + "]");
    for (const Map& left : page.at("left")) {
      output.line(output.styled(Style::warn, "        [" + text_at(left, "citation") + "] " +
                                                 text_at(left, "state") + ": needs its author"));
    }
  }
}

// ---- affected and cites

// "[src/a.cc:L1-L5] moved to [src/a.cc:L3-L7]", where it stands, and the sentence on a line of its own.
void print_claim(const Map& claim, const std::string& file, Output& output) {
  const std::string state = text_at(claim, "state");
  const std::string now = text_at(claim, "now");
  const bool is_elsewhere = !now.empty() && state != "same";
  const std::string section = text_at(claim, "section");
  output.line("  [" + text_at(claim, "citation") + "]" + (state == "same" ? "" : " " + state) +
              (is_elsewhere ? (state == "moved" ? " to [" : ", now [") + now + "]" : ""));
  output.line(output.styled(Style::dim, "    " + file + ":" + form_at(claim, "line") +
                                            (section.empty() ? "" : ", in '" + section + "'")));
  output.line("    > " + text_at(claim, "sentence"));
}

void print_affected(const Given& given, Output& output) {
  const std::string forge = text_at(given.arguments, "annotations");
  const std::string& dir = given.wiki.config().dir;
  if (forge == "github") return output.raw(github_annotations(given.value, dir));
  if (forge == "gitlab") return output.raw(gitlab_annotations(given.value, dir));
  const Map& pages = given.value.at("pages");
  if (pages.empty()) output.line("no page rests on this change");
  for (const Map& page : pages) {
    const std::string state = text_at(page, "state");
    output.line(output.styled(style_of(state), state) + "  " +
                output.styled(Style::bold, text_at(page, "page_id")));
    for (const Map& claim : page.at("claims"))
      print_claim(claim, shown_path(given.wiki.paths().wiki / text_at(page, "rel_path")), output);
    for (const Map& source : page.at("sources")) output.line("  " + utils::text_form(source));
  }
}

void print_cites(const Given& given, Output& output) {
  const Map& claims = given.value.at("claims");
  if (claims.empty()) output.line("no page cites " + text_at(given.arguments, "path"));
  std::string page;
  for (const Map& claim : claims) {
    if (page != text_at(claim, "page_id")) output.line(output.styled(Style::bold, text_at(claim, "page_id")));
    page = text_at(claim, "page_id");
    print_claim(claim, shown_path(given.wiki.paths().page(page)), output);
  }
}

// ---- rename and remove

void print_kept(const Given& given, Output& output) {
  const std::string kept = text_at(given.value, "kept");
  if (!kept.empty()) output.line("       its text is kept in " + shown_path(given.wiki.paths().root / kept));
}

void print_renamed(const Given& given, Output& output) {
  const Map& answer = given.value;
  output.line(output.styled(Style::good, "renamed") + "  " + text_at(answer, "former_id") + " to " +
              output.styled(Style::bold, text_at(answer, "page_id")) + "  " +
              shown_path(given.wiki.paths().wiki / text_at(answer, "rel_path")));
  print_kept(given, output);
  for (const Map& page : answer.at("relinked"))
    output.line("       its link follows in " + utils::text_form(page));
  for (const Map& warning : answer.at("warnings"))
    output.line(output.styled(Style::warn, "warning") + "  " + utils::text_form(warning));
}

void print_removed(const Given& given, Output& output) {
  output.line(output.styled(Style::good, "removed") + "  " +
              output.styled(Style::bold, text_at(given.value, "page_id")));
  print_kept(given, output);
  for (const Map& page : given.value.at("linked_by"))
    output.line(output.styled(Style::warn, "warning") + "  " + utils::text_form(page) + " links to it");
}

// ---- search

std::string shown_citation(const Map& citation) {
  const std::string first = utils::text_form(citation.at("first"));
  const std::string last = utils::text_form(citation.at("last"));
  return utils::text_form(citation.at("path")) + ":L" + first + (first == last ? "" : "-L" + last);
}

void print_hit(std::size_t rank, const Map& hit, Output& output) {
  Shown place = output.styled(Style::bold, text_at(hit, "page_id"));
  if (const std::string section = text_at(hit, "section"); !section.empty()) place += " # " + section;
  output.line(std::to_string(rank) + "  " + place + "  " +
              output.styled(Style::dim, fmt::format("{:.2f}", hit.at("score").get<double>())));
  output.line("   " + text_at(hit, "excerpt"));
  for (const Map& citation : hit.at("citations"))
    output.line("   " + output.styled(Style::dim, shown_citation(citation)));
}

void print_hits(const Given& given, Output& output) {
  if (const std::string warning = text_at(given.value, "warning"); !warning.empty())
    Output::diagnostic(warning);  // on standard error, so that a pipe gets hits alone
  const Map& hits = given.value.at("hits");
  if (hits.empty()) {
    const std::string path = text_at(given.arguments, "path");
    output.line("nothing found" + (path.empty() ? "" : " about " + path) +
                "; try other words, or list the pages with: ossilar plan");
  }
  for (std::size_t i = 0; i < hits.size(); ++i) print_hit(i + 1, hits[i], output);
}

// ---- status

void print_doubtful(const Map& status, Output& output) {
  std::size_t named = 0;
  for (const char* state : {"stale", "unverified"}) {
    for (const Map& page : status.at(state)) {
      if (named++ == kMostNamed) return output.line("  and more; see: ossilar plan");
      output.line("  " + output.styled(Style::bold, text_at(page, "page_id")) + "  " +
                  output.styled(Style::warn, text_at(page, "reason")));
    }
  }
}

void print_claims(const Map& claims, Output& output) {
  for (const Map& claim : claims) {
    output.line("claimed     " + output.styled(Style::bold, text_at(claim, "page_id")) + "  by " +
                text_at(claim, "client") + " (" + text_at(claim, "holder") + ") until " +
                text_at(claim, "until"));
  }
}

void print_status(const Given& given, Output& output) {
  const Map& status = given.value;
  const Map& pages = status.at("pages");
  const Map& write = status.at("last_write");
  const std::string commit = text_at(status, "commit");
  output.line("branch      " + output.styled(Style::bold, text_at(status, "branch")));
  output.line("commit      " + (commit.empty() ? "none" : commit));
  output.line("source      " + form_at(status, "indexed_files") + " file(s)");
  Shown counts;
  for (const auto& [state, count] : pages.items()) {
    // Every wiki has pages of the others, or will have.
    if (count == 0 && state != "ok" && state != "stale" && state != "missing") continue;
    if (!counts.text().empty()) counts += ", ";
    counts += output.styled(style_of(state), utils::text_form(count) + " " + state);
  }
  output.line("pages       " + counts);
  output.line("last write  " + (write.empty() ? std::string("none on this branch")
                                              : text_at(write, "at") + " by " + text_at(write, "by")));
  print_claims(status.at("claims"), output);
  print_doubtful(status, output);
}

// ---- source and symbol

void print_source(const Given& given, Output& output) {
  output.raw(text_at(given.value, "text"));
  const std::string next = text_at(given.value, "next");
  if (!next.empty()) Output::diagnostic("there is more: ossilar source " + next);
}

void print_symbols(const Given& given, Output& output) {
  const Map& symbols = given.value.at("symbols");
  for (const Map& symbol : symbols) {
    const std::string scope = text_at(symbol, "scope");
    output.line(output.styled(Style::bold, (scope.empty() ? "" : scope + "::") + text_at(symbol, "name")) +
                "  " + text_at(symbol, "kind") + "  " + text_at(symbol, "path") + ":" +
                form_at(symbol, "line"));
    output.line(output.styled(Style::dim, "  " + text_at(symbol, "signature")));
  }
  if (symbols.empty()) output.line("no symbol has this in its name");
  for (const Map& name : utils::member(given.value, "similar"))
    output.line("  did you mean " + utils::text_form(name) + "?");
  const auto total = given.value.at("total").get<std::size_t>();
  if (total > symbols.size()) output.line("and " + std::to_string(total - symbols.size()) + " more");
}

constexpr std::array kViews{View{"plan", Freshness::sources, print_plan},
                            View{"context", Freshness::sources, print_context},
                            View{"show", Freshness::as_stored, print_page},
                            View{"save", Freshness::sources, print_saved},
                            View{"confirm", Freshness::sources, print_confirmed},
                            View{"sync", Freshness::sources, print_synced},
                            View{"affected", Freshness::pages, print_affected},
                            View{"cites", Freshness::sources, print_cites},
                            View{"rename", Freshness::sources, print_renamed},
                            View{"remove", Freshness::sources, print_removed},
                            View{"log", Freshness::as_stored, print_history},
                            View{"diff", Freshness::as_stored, print_comparison},
                            View{"restore", Freshness::sources, print_restored},
                            View{"search", Freshness::vectors, print_hits},
                            View{"status", Freshness::sources, print_status},
                            View{"source", Freshness::sources, print_source},
                            View{"symbol", Freshness::sources, print_symbols}};

}  // namespace

const View& view_of(const operations::Operation& operation) {
  const auto found = std::find_if(kViews.begin(), kViews.end(),
                                  [&](const View& view) { return view.command == operation.command; });
  if (found == kViews.end())
    throw std::logic_error("cli/views.cc lacks a view of the command " + std::string(operation.command));
  return *found;
}

std::string shown_path(const std::filesystem::path& file) {
  return std::filesystem::proximate(file).string();
}

}  // namespace ossilar::cli
