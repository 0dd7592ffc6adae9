// The commands by which the program tells of itself: completions, and the files that a package installs
// beside it. All are made from the parser of the command line, which app.cc hands over.
#include "ossilar/cli/self.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>

#include "ossilar/cli/commands.h"
#include "ossilar/cli/manuals/completion.h"
#include "ossilar/cli/manuals/config_schema.h"
#include "ossilar/cli/manuals/grammar.h"
#include "ossilar/cli/manuals/man_page.h"
#include "ossilar/cli/manuals/shell_scripts.h"
#include "ossilar/cli/manuals/version.h"
#include "ossilar/cli/manuals/wiki_words.h"
#include "ossilar/utils/atomic_file.h"
#include "ossilar/utils/error.h"

namespace ossilar::cli {
namespace {

namespace fs = std::filesystem;

fs::path root_of(const std::string& repo) {
  return Place{.repo = repo.empty() ? std::nullopt : std::optional(repo)}.root();
}

WikiWords wiki_at_hand() {
  return {.pages = [](const std::string& repo) { return page_words(root_of(repo)); },
          .sections = [](const std::string& repo,
                         const std::string& page) { return section_words(root_of(repo), page); }};
}

void write_file(const fs::path& file, std::string_view text) {
  fs::create_directories(file.parent_path());
  utils::atomic_write(file, text);
}

}  // namespace

void print_version(Output& output) {
  output.document(version_document());
  output.line("ossilar " OSSILAR_VERSION);
}

void print_script(const std::string& shell, Output& output) {
  for (const Shell& each : shells()) {
    if (each.name == shell) {
      output.document(Map{{"shell", shell}, {"script", each.script}});
      if (!output.is_json()) output.raw(each.script);
    }
  }
}

// std::_Exit(): page_words() may have left a thread that still indexes.
void run_complete(const CLI::App& app, const std::vector<std::string>& words) {
  std::string answer;
  try {
    answer = rendered(complete(app, words, wiki_at_hand()));
  } catch (const std::exception&) {
    std::_Exit(kFailed);  // silent, as somebody is typing
  }
  std::fwrite(answer.data(), 1, answer.size(), stdout);
  std::fflush(stdout);
  std::_Exit(kDone);
}

void write_companions(const CLI::App& app, const fs::path& folder) {
  const fs::path prefix = fs::absolute(folder);
  const fs::path man = prefix / "share/man";
  write_file(man / "man1/ossilar.1", man_page(app));
  for (const CLI::App* command : commands(app))
    write_file(man / "man1" / ("ossilar-" + command->get_name() + ".1"), man_page(app, *command));
  write_file(man / "man5/ossilar.toml.5", config_man_page(config_schema()));
  for (const Shell& shell : shells()) write_file(prefix / shell.file, shell.script);
  write_file(prefix / "share/ossilar/ossilar.schema.json", config_schema().dump(2) + "\n");
}

}  // namespace ossilar::cli
