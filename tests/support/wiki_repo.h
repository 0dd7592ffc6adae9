// A small repository with a wiki of its own, for tests of the host and the command.
#pragma once

#include <memory>
#include <string>

#include "ossilar/workers/wiki/open_wiki.h"
#include "ossilar/workers/wiki/orchestrator.h"
#include "support/temp_dir.h"

namespace ossilar::testing {

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

  std::unique_ptr<workers::wiki::WikiGenerator> open() const {
    return workers::wiki::open_wiki(dir.path(), "test");
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
