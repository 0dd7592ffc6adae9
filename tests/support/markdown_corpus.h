// Texts to try laws about Markdown on: the examples of the CommonMark Spec, and generated pages that mix what
// the examples keep apart.
#pragma once

#include <array>
#include <cstddef>
#include <fstream>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "ossilar/utils/json.h"

namespace ossilar::testing {

inline std::vector<std::string> commonmark_examples() {
  std::ifstream file(OSSILAR_TEST_DATA "/commonmark-0.31.2.json");
  std::vector<std::string> examples;
  for (const Map& example : Map::parse(file)) examples.push_back(example.at("markdown").get<std::string>());
  return examples;
}

// The cases of a file: texts, each with what is said of it after "=> ", a line "%" between them.
inline std::vector<std::pair<std::string, std::string>> text_cases(const std::string& name) {
  std::ifstream file(OSSILAR_TEST_DATA "/" + name);
  std::vector<std::pair<std::string, std::string>> cases(1);
  for (std::string line; std::getline(file, line);) {
    if (line == "%") {
      cases.emplace_back();
    } else if (line.starts_with("=>")) {
      cases.back().second = line.substr(std::min<std::size_t>(3, line.size()));
    } else {
      cases.back().first += line + "\n";
    }
  }
  return cases;
}

// Lines and runs of lines, some of which leave a block open or would swallow what comes next.
inline std::vector<std::string> page_pieces() {
  std::vector<std::string> pieces{"\xEF\xBB\xBF## marked",          "\t", "", " ", "\n\n", "prose  ",
                                  "  <!-- ossilar:generated -->  ", ""};
  std::ifstream file(OSSILAR_TEST_DATA "/page_pieces.txt");
  for (std::string line; std::getline(file, line);) {
    if (line == "%") {
      pieces.emplace_back();
    } else {
      pieces.back() += (pieces.back().empty() ? "" : "\n") + line;
    }
  }
  return pieces;
}

inline std::vector<std::string> generated_pages(unsigned count, std::size_t most_pieces = 12) {
  static const std::vector<std::string> pieces = page_pieces();
  std::mt19937 random(count);
  const auto below = [&](std::size_t limit) { return static_cast<std::size_t>(random() % limit); };
  std::vector<std::string> pages(count);
  for (std::string& page : pages) {
    for (std::size_t left = below(most_pieces) + 1; left > 0; --left) {
      page += pieces[below(pieces.size())];
      page += std::array<const char*, 4>{"\n", "\n\n", "\n\n\n", "\r\n"}[below(4)];
    }
    if (below(3) == 0) page.resize(page.find_last_not_of("\r\n") + 1);
  }
  return pages;
}

// The examples, and `count` generated pages.
inline std::vector<std::string> markdown_corpus(unsigned count) {
  std::vector<std::string> texts = commonmark_examples();
  for (std::string& page : generated_pages(count)) texts.push_back(std::move(page));
  return texts;
}

}  // namespace ossilar::testing
