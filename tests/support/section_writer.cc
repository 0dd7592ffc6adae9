// Saves one section of a page many times, as a process of its own: each time with one line more, so that the
// final page shows every save that was acknowledged. Usage: section_writer ROOT PAGE SECTION COUNT. Prints
// "saved LINE" or "refused LINE: ERROR" for each save.
#include <iostream>
#include <string>

#include "ossilar/workers/wiki/host/open_wiki.h"
#include "ossilar/workers/wiki/orchestrator.h"

int main(int argc, char** argv) {
  if (argc < 5) return 2;
  const std::string page = argv[2];
  const std::string section = argv[3];
  const auto wiki = ossilar::workers::wiki::open_wiki(argv[1], "section_writer");
  std::string acknowledged;
  for (int i = 0; i < std::stoi(argv[4]); ++i) {
    const std::string line =
        "- " + section + "-" + std::to_string(i) + " [src/alpha.cpp:L1] [src/alpha.cpp:L2]\n";
    ossilar::utils::Task task;
    const auto answer = ossilar::workers::wiki::WikiGenerator(*wiki, task)
                            .save_agent_page(page, acknowledged + line, section);
    if (answer.contains("saved")) {
      acknowledged += line;
      std::cout << "saved " << line;
    } else {
      std::cout << "refused " << line << ": " << answer.at("error") << "\n";
    }
  }
  return 0;
}
