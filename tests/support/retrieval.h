// The collection of pages and questions in tests/data/retrieval, as a wiki.
#pragma once

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "ossilar/workers/wiki/host/open_wiki.h"
#include "ossilar/workers/wiki/orchestrator.h"
#include "support/rows.h"
#include "support/temp_dir.h"

namespace ossilar::testing {

struct Question {
  std::string query, page_id, section;
};

inline std::vector<Question> retrieval_questions(const std::string& table = "retrieval/queries.txt") {
  std::vector<Question> questions;
  for (const Map& row : rows_of(table))
    questions.push_back(
        {row.at(0).get<std::string>(), row.at(1).get<std::string>(), row.at(2).get<std::string>()});
  return questions;
}

class RetrievalWiki {
 public:
  // Throws when a page is not saved. `pages` is a folder of the test data.
  explicit RetrievalWiki(const std::string& pages = "retrieval/pages") {
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(OSSILAR_TEST_DATA "/" + pages))
      files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    std::string config = "[wiki]\nmin_citations_per_page = 0\n";
    for (const auto& file : files)
      config += "[[page]]\nid = \"" + file.stem().string() + "\"\ntitle = \"" + file.stem().string() +
                "\"\ntype = \"topic\"\n";
    dir_.write("ossilar.toml", config);
    workers::wiki::set_up_wiki(dir_.path());
    wiki = workers::wiki::open_wiki(dir_.path(), "retrieval");
    for (const auto& file : files) {
      std::ifstream text(file);
      const std::string content{std::istreambuf_iterator<char>(text), {}};
      utils::Task task;
      workers::wiki::WikiGenerator generator(*wiki, task);
      if (!generator.save_agent_page(file.stem().string(), content).contains("saved"))
        throw std::runtime_error("not saved: " + file.string());
    }
  }

  std::filesystem::path database() const { return dir_ / ".ossilar/index.db"; }

 private:
  TempDir dir_;

 public:
  std::unique_ptr<workers::wiki::Wiki> wiki;
};

// Places of the first right answers, from 1; 0 for a question whose answer was not found.
struct Score {
  std::vector<std::size_t> places;

  double hits_within(std::size_t rank) const {
    const auto hits =
        std::count_if(places.begin(), places.end(), [&](std::size_t p) { return p > 0 && p <= rank; });
    return static_cast<double>(hits) / static_cast<double>(places.size());
  }
  double mean_reciprocal_rank() const {
    double sum = 0;
    for (const std::size_t place : places) sum += place > 0 ? 1.0 / static_cast<double>(place) : 0;
    return sum / static_cast<double>(places.size());
  }
};

// `answers` gives for a query the places found, the best first, as objects with page_id and section.
template <class Answers>
Score score_of(const std::vector<Question>& questions, Answers answers) {
  Score score;
  for (const Question& question : questions) {
    const auto found = answers(question.query);
    const auto right = std::find_if(found.begin(), found.end(), [&](const auto& each) {
      return each.page_id == question.page_id && each.section == question.section;
    });
    score.places.push_back(right == found.end() ? 0 : static_cast<std::size_t>(right - found.begin()) + 1);
  }
  return score;
}

}  // namespace ossilar::testing
