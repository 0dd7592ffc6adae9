// The stored pages come from their files, which is quick at any size and needs no database: a clone that was
// never set up completes too. The plan is made on a thread of its own, since nothing can be done about the
// time that it takes but to stop waiting. A kill in the middle of it is harmless, as at any other moment.
#include "ossilar/cli/manuals/wiki_words.h"

#include <algorithm>
#include <chrono>
#include <future>
#include <map>
#include <thread>

#include "ossilar/utils/files.h"
#include "ossilar/workers/wiki/config.h"
#include "ossilar/workers/wiki/finalize.h"
#include "ossilar/workers/wiki/host/open_wiki.h"
#include "ossilar/workers/wiki/pages/page_files.h"

namespace ossilar::cli {
namespace {

namespace fs = std::filesystem;
using workers::wiki::is_page_id;
using Titles = std::map<std::string, std::string>;  // by page id

constexpr std::chrono::milliseconds kPatience{500};

fs::path pages_folder(const fs::path& root) {
  return workers::wiki::wiki_paths(root, workers::wiki::load_config(root / "ossilar.toml")).pages;
}

Titles planned_titles(const fs::path& root) {
  const auto wiki = workers::wiki::open_wiki(root, "ossilar complete");
  Titles titles;
  const auto planned = wiki->planned();
  for (std::size_t i = 0; i < planned->plans.size(); ++i)
    titles[planned->plans[i].page_id] = planned->plans[i].title;
  return titles;
}

Titles titles_in_time(const fs::path& root) {
  std::packaged_task<Titles()> planning([root] { return planned_titles(root); });
  std::future<Titles> planned = planning.get_future();
  std::thread(std::move(planning)).detach();
  if (planned.wait_for(kPatience) != std::future_status::ready) return {};
  return planned.get();
}

}  // namespace

std::vector<Candidate> page_words(const fs::path& root) {
  const fs::path pages = pages_folder(root);
  Titles titles = fs::exists(root / ".ossilar") ? titles_in_time(root) : Titles{};
  for (const fs::path& file : workers::wiki::page_files(pages)) {
    const std::string id = workers::wiki::page_id_of(pages, file);
    if (is_page_id(id)) titles.try_emplace(id);
  }
  std::vector<Candidate> words;
  words.reserve(titles.size());
  for (const auto& [id, title] : titles) words.push_back({id, title});
  return words;
}

std::vector<Candidate> section_words(const fs::path& root, const std::string& page_id) {
  if (!is_page_id(page_id)) return {};
  const fs::path file = pages_folder(root) / (page_id + ".md");
  if (!utils::is_regular_file(file)) return {};
  const std::string authored =
      workers::wiki::split_authored(utils::read_text_file_within(root, file), "").text();
  std::vector<Candidate> words;
  for (std::string& heading : workers::wiki::section_headings(authored))
    words.push_back({std::move(heading), ""});
  return words;
}

}  // namespace ossilar::cli
