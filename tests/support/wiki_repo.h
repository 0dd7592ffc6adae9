// A small repository with a wiki of its own, for tests of the host and the command.
#pragma once

#include <memory>
#include <string>

#include "ossilar/store/sqlite/sqlite_store.h"
#include "ossilar/utils/task.h"
#include "ossilar/workers/wiki/asking/wiki_reader.h"
#include "ossilar/workers/wiki/host/open_wiki.h"
#include "ossilar/workers/wiki/host/saving.h"
#include "ossilar/workers/wiki/orchestrator.h"
#include "support/temp_dir.h"

namespace ossilar::testing {

// Saves by the pipeline alone, without turns and kept drafts.
inline workers::wiki::Answer save(workers::wiki::Wiki& wiki, const std::string& page_id,
                                  const std::string& content, const std::optional<std::string>& section = {},
                                  const std::optional<std::string>& title = {}) {
  utils::Task task;
  return workers::wiki::WikiGenerator(wiki, task).save_agent_page(page_id, content, section, title);
}

inline bool is_saved(const workers::wiki::Answer& answer) {
  return utils::member(answer, "saved") == Map(true);
}

inline std::string error_of(const workers::wiki::Answer& answer) {
  return utils::string_member(answer, "error");
}

// The state of a planned page; of any other "missing".
inline workers::wiki::PageState state_of(workers::wiki::Wiki& wiki, const std::string& page_id) {
  for (workers::wiki::PageState& state : workers::wiki::WikiReader(wiki).page_states())
    if (state.page_id == page_id) return state;
  return {};
}

// Saves as a session does.
inline workers::wiki::SaveOutcome save_page(workers::wiki::Wiki& wiki,
                                            const workers::wiki::SaveRequest& request) {
  utils::Task task;
  return workers::wiki::save_page(wiki, request, task);
}

// Two units, `alpha` and `beta`, whose sources have ten lines each, beside what the tree itself gives the
// plan.
class WikiRepo {
 public:
  explicit WikiRepo(const std::string& extra_config = "") {
    dir.write("src/alpha.cpp", ten_lines("alpha"));
    dir.write("src/beta.cpp", ten_lines("beta"));
    dir.write(
        "ossilar.toml",
        extra_config +
            "[[page]]\nid = \"alpha\"\ntitle = \"Alpha\"\ntype = \"module\"\nsources = [\"src/alpha.cpp\"]\n"
            "[[page]]\nid = \"beta\"\ntitle = \"Beta\"\ntype = \"module\"\nsources = [\"src/beta.cpp\"]\n");
    workers::wiki::set_up_wiki(dir.path());
  }

  std::unique_ptr<workers::wiki::Wiki> open() const { return workers::wiki::open_wiki(dir.path(), "test"); }

  // The same with another store or embedder; null: what open() takes.
  std::unique_ptr<workers::wiki::Wiki> open_with(std::unique_ptr<store::WikiStore> store,
                                                 std::unique_ptr<search::Embedder> embedder = nullptr) const {
    const workers::wiki::WikiConfig config = workers::wiki::load_config(dir / "ossilar.toml");
    const workers::wiki::WikiPaths paths = workers::wiki::wiki_paths(dir.path(), config);
    return std::make_unique<workers::wiki::Wiki>(workers::wiki::Wiki::Services{
        .paths = paths,
        .config = config,
        .checkout = source::read_checkout(paths.root),
        .store = store ? std::move(store) : store::open_sqlite_store(paths.database()),
        .embedder = embedder ? std::move(embedder) : search::make_local_embedder(),
        .writer = "test"});
  }

  std::string page(const std::string& page_id) const { return dir.read("wiki/pages/" + page_id + ".md"); }

  static std::string ten_lines(const std::string& word) {
    std::string text;
    for (int i = 1; i <= 10; ++i) text += "int " + word + std::to_string(i) + "();\n";
    return text;
  }

  // A page about `word` with enough citations, and sections One and Two.
  static std::string text_about(const std::string& word, const std::string& one = "First.") {
    const std::string path = "src/" + word + ".cpp";
    return "About " + word + ".\n\n## One\n\n" + one + " [" + path + ":L1-L3]\n\n## Two\n\nSecond [" + path +
           ":L4].\n";
  }

  TempDir dir;
};

}  // namespace ossilar::testing
