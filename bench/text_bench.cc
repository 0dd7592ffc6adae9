// What the parts of a save that work on text cost, in MB/s of page text.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "ossilar/search/chunking.h"
#include "ossilar/search/embedder.h"
#include "ossilar/source/source_index.h"
#include "ossilar/utils/identifiers.h"
#include "ossilar/utils/json.h"
#include "ossilar/workers/wiki/citations.h"
#include "ossilar/workers/wiki/finalize.h"
#include "ossilar/workers/wiki/prose_words.h"
#include "ossilar/workers/wiki/sections.h"
#include "ossilar/workers/wiki/type_lint.h"

namespace ossilar {
namespace {

// A page of `sections` sections of some 600 bytes each, as an agent would write it.
std::string page_of(std::int64_t sections, int number = 0) {
  std::string text = "A summary of page " + std::to_string(number) + ".\n\n";
  for (std::int64_t i = 0; i < sections; ++i) {
    text += "## Section " + std::to_string(i) + "\n\n";
    for (int line = 1; line <= 6; ++line) {
      text += "The parser reads one token and decides what follows from it [src/parser.cpp:L" +
              std::to_string(line) + "-L" + std::to_string(line + 9) + "].\n";
    }
    text += "\n```cpp\nToken next(Stream& stream);\n```\n\n";
  }
  return text;
}

source::SourceIndex one_file_index() {
  source::SourceFile file;
  file.path = "src/parser.cpp";
  file.lines = 1000;
  return source::SourceIndex({std::make_shared<const source::SourceFile>(file)});
}

// Pages to be read by turns: what is kept of the last texts is to help within one round, not between two.
class Pages {
 public:
  explicit Pages(std::int64_t sections) {
    for (int number = 10; number < 18; ++number) pages_.push_back(page_of(sections, number));
  }
  const std::string& next() { return pages_[turn_++ % pages_.size()]; }
  const std::string& front() const { return pages_.front(); }

 private:
  std::vector<std::string> pages_;
  std::size_t turn_ = 0;
};

void set_speed(benchmark::State& state, const std::string& text) {
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(text.size()));
}

void build_cache_text(benchmark::State& state) {
  const std::string text = page_of(state.range(0));
  const Map cache{{"prose", text}, {"outline", workers::wiki::section_headings(text)}};
  for (auto _ : state) benchmark::DoNotOptimize(utils::json_text(cache));
  set_speed(state, text);
}

void json_reading(benchmark::State& state) {
  const std::string text = utils::json_text(Map{{"prose", page_of(state.range(0))}});
  for (auto _ : state) benchmark::DoNotOptimize(utils::parse_json(text, "a page"));
  set_speed(state, text);
}

// From what an agent sends to the page file, with the checks of a save; a page about nothing but itself.
void finalizing(benchmark::State& state) {
  Pages pages(state.range(0));
  const source::SourceIndex index = one_file_index();
  const auto no_page = [](std::string_view) { return std::optional<std::string>(); };
  workers::wiki::PagePlan plan;
  plan.page_id = plan.title = "parser";
  plan.type = "module";
  for (auto _ : state) {
    const std::string authored = workers::wiki::authored_text(pages.next());
    const auto brackets = workers::wiki::read_brackets(authored, index, no_page);
    benchmark::DoNotOptimize(
        workers::wiki::assemble_page(plan, workers::wiki::split_text(authored), {},
                                     workers::wiki::page_links(brackets, plan.page_id, "wiki")));
  }
  set_speed(state, pages.front());
}

void page_check(benchmark::State& state) {
  Pages pages(state.range(0));
  const std::string frame = "\n" + std::string(workers::wiki::kGeneratedMarker) + "\n";
  const Map row{{"page_id", "parser"}, {"level", 1}, {"title", "parser"}, {"build_cache", Map::object()}};
  for (auto _ : state) {
    const std::string stored = "# parser\n\n" + pages.next() + frame;
    benchmark::DoNotOptimize(workers::wiki::page_type_findings(row, stored));
  }
  set_speed(state, pages.front());
}

void word_count(benchmark::State& state) {
  Pages pages(state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(workers::wiki::prose_words(pages.next()));
  set_speed(state, pages.front());
}

void tokenising(benchmark::State& state) {
  const std::string text = page_of(state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(utils::tokens_of(text));
  set_speed(state, text);
}

void section_replacement(benchmark::State& state) {
  Pages pages(state.range(0));
  for (auto _ : state)
    benchmark::DoNotOptimize(workers::wiki::replace_section(pages.next(), "Section 3", "New text.\n"));
  set_speed(state, pages.front());
}

void citation_scan(benchmark::State& state) {
  Pages pages(state.range(0));
  const source::SourceIndex index = one_file_index();
  const auto no_page = [](std::string_view) { return std::optional<std::string>(); };
  for (auto _ : state) benchmark::DoNotOptimize(workers::wiki::read_brackets(pages.next(), index, no_page));
  set_speed(state, pages.front());
}

void chunking(benchmark::State& state) {
  Pages pages(state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(search::passages(pages.next()));
  set_speed(state, pages.front());
}

void embedding(benchmark::State& state) {
  const std::string text = page_of(state.range(0));
  std::vector<std::string> texts;
  for (search::Passage& passage : search::passages(text)) texts.push_back(std::move(passage.text));
  const auto embedder = search::make_local_embedder();
  for (auto _ : state) benchmark::DoNotOptimize(embedder->embed(texts, {}));
  set_speed(state, text);
}

// 10 sections are a page of some 6 KB, 100 one of 60 KB.
BENCHMARK(build_cache_text)->Arg(10)->Arg(100);
BENCHMARK(json_reading)->Arg(10)->Arg(100);
BENCHMARK(finalizing)->Arg(10)->Arg(100);
BENCHMARK(page_check)->Arg(10)->Arg(100);
BENCHMARK(word_count)->Arg(10)->Arg(100);
BENCHMARK(tokenising)->Arg(10)->Arg(100);
BENCHMARK(section_replacement)->Arg(10)->Arg(100);
BENCHMARK(citation_scan)->Arg(10)->Arg(100);
BENCHMARK(chunking)->Arg(10)->Arg(100);
BENCHMARK(embedding)->Arg(10)->Arg(100);

}  // namespace
}  // namespace ossilar

BENCHMARK_MAIN();
