// What a check of a repository finds, as text.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/check/wiki_check.h"
#include "support/wiki_repo.h"

namespace ossilar::testing {

inline workers::wiki::CheckReport check(const WikiRepo& repo, bool fix = false) {
  return workers::wiki::check_wiki(repo.dir.path(), {.fix = fix, .writer = "test"});
}

// "FAULT SUBJECT" of each finding, a line each.
inline std::string names_of(const std::vector<workers::wiki::Finding>& findings) {
  std::vector<std::string> names;
  names.reserve(findings.size());
  for (const workers::wiki::Finding& finding : findings)
    names.push_back(std::string(workers::wiki::fault_name(finding.fault)) + " " + finding.subject);
  return utils::join(names, "\n");
}

inline std::string findings_in(const WikiRepo& repo) { return names_of(check(repo).findings); }

// The pages in which a search finds `words`.
inline std::set<std::string> pages_about(workers::wiki::Wiki& wiki, const std::string& words) {
  utils::Task task;
  const auto found = workers::wiki::WikiReader(wiki).search({.query = words}, task);
  std::set<std::string> pages;
  for (const auto& hit : std::get<workers::wiki::SearchResult>(found).hits) pages.insert(hit.page_id);
  return pages;
}

// Replaces the first `from` in a file, which must be there.
inline void replace_in_file(const WikiRepo& repo, const std::string& name, const std::string& from,
                            const std::string& to) {
  std::string text = repo.dir.read(name);
  repo.dir.write(name, text.replace(text.find(from), from.size(), to));
}

// Takes away what is not committed, as a clone comes without it.
inline void forget_local_state(const WikiRepo& repo) {
  std::filesystem::remove_all(repo.dir / ".ossilar");
  workers::wiki::set_up_wiki(repo.dir.path());
}

// The texts below .ossilar/replaced.
inline std::vector<std::string> replaced_texts(const WikiRepo& repo) {
  std::vector<std::string> texts;
  if (!std::filesystem::exists(repo.dir / ".ossilar/replaced")) return texts;
  for (const auto& entry : std::filesystem::directory_iterator(repo.dir / ".ossilar/replaced"))
    texts.push_back(repo.dir.read(".ossilar/replaced/" + entry.path().filename().string()));
  return texts;
}

}  // namespace ossilar::testing
