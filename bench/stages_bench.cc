// Where the time of one save goes, by stage, how long the write lock is held beside the floor under a save
// (see floor.h), and how near eight writers on different pages come to what that allows. In one process,
// without a client. Prints figures and asserts nothing.
//   stages_bench [PAGES [SAVES]]
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "floor.h"
#include "ossilar/utils/task.h"
#include "ossilar/workers/wiki/host/open_wiki.h"
#include "ossilar/workers/wiki/host/saving.h"
#include "support/temp_dir.h"

namespace ossilar {
namespace {

using Clock = std::chrono::steady_clock;
using workers::wiki::Wiki;

constexpr std::size_t kWriters = 8;
const char* const kHolds = "holding the write lock";
const char* const kReleased = "answering";

std::string page_id(std::size_t i) { return "page" + std::to_string(i); }
std::string source_of(std::size_t i) { return "src/unit" + std::to_string(i) + ".cpp"; }

// About 6 KB in ten sections, a citation in each; another edition shares no sentence with this one.
std::string page_text(std::size_t page, std::size_t edition) {
  static const std::vector<std::string> kWords{"parser", "token",  "lock",  "page",   "writer",
                                               "keeps",  "reads",  "until", "before", "each",
                                               "small",  "broken", "queue", "draft"};
  std::minstd_rand random(static_cast<unsigned>(page * 7919 + edition + 1));
  const auto prose = [&](int words) {
    std::string text;
    for (int i = 0; i < words; ++i)
      text += kWords[random() % kWords.size()] + std::to_string(random() % 50) + (i % 12 == 11 ? ". " : " ");
    return text;
  };
  std::string text = prose(12) + "\n\n";
  for (int section = 0; section < 10; ++section)
    text += fmt::format("## Part {}\n\n{}[{}:L{}]\n\n", section, prose(72), source_of(page), section + 1);
  return text;
}

void make_wiki(const testing::TempDir& dir, std::size_t pages) {
  std::string config;
  for (std::size_t i = 0; i < pages; ++i) {
    std::string source;
    for (int line = 0; line < 50; ++line) source += fmt::format("int unit{}_{}();\n", i, line);
    dir.write(source_of(i), source);
    config += fmt::format("[[page]]\nid = \"{}\"\ntype = \"module\"\nsources = [\"{}\"]\n", page_id(i),
                          source_of(i));
  }
  dir.write("ossilar.toml", config);
  workers::wiki::set_up_wiki(dir.path());
}

// Microseconds by stage.
using Times = std::map<std::string, std::vector<double>>;

double micros(Clock::duration time) { return std::chrono::duration<double, std::micro>(time).count(); }

std::string stage_name(std::string_view step) {
  return step.starts_with("embedding") ? "embedding" : std::string(step);
}

// Saves one page and notes how long each stage took, "held" among them.
void save(Wiki& wiki, std::size_t page, std::size_t edition, Times& times) {
  std::vector<std::pair<std::string, Clock::time_point>> marks{{"beginning", Clock::now()}};
  utils::Task task({}, [&](std::string_view stage) { marks.emplace_back(stage_name(stage), Clock::now()); });
  const auto outcome =
      workers::wiki::save_page(wiki, {.page_id = page_id(page), .content = page_text(page, edition)}, task);
  marks.emplace_back("end", Clock::now());
  if (!outcome.answer.contains("saved")) {
    std::fputs((outcome.answer.dump() + "\n").c_str(), stderr);
    std::exit(1);
  }
  std::map<std::string, double> sums;
  for (std::size_t i = 0; i + 1 < marks.size(); ++i)
    sums[marks[i].first] += micros(marks[i + 1].second - marks[i].second);
  const auto at = [&](const char* stage) {
    return std::find_if(marks.begin(), marks.end(), [&](const auto& mark) { return mark.first == stage; })
        ->second;
  };
  sums["HELD"] = micros(at(kReleased) - at(kHolds));
  sums["WHOLE"] = micros(marks.back().second - marks.front().second);
  for (const auto& [stage, time] : sums) times[stage].push_back(time);
}

double percentile(std::vector<double> values, std::size_t percent) {
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1, values.size() * percent / 100)];
}

void print(const char* title, const Times& times) {
  fmt::print("{:<32}{:>10}{:>10}{:>10}\n", title, "p50 us", "p95 us", "p99 us");
  for (const auto& [stage, values] : times) {
    fmt::print("{:<32}{:>10.0f}{:>10.0f}{:>10.0f}\n", stage, percentile(values, 50), percentile(values, 95),
               percentile(values, 99));
  }
}

// Eight threads, each on pages of its own; gives saves a second.
double save_side_by_side(Wiki& wiki, std::size_t pages, std::size_t saves, Times& times) {
  std::mutex mutex;
  const auto begun = Clock::now();
  std::vector<std::thread> writers;
  for (std::size_t writer = 0; writer < kWriters; ++writer) {
    writers.emplace_back([&, writer] {
      Times own;
      for (std::size_t i = 0; i < saves / kWriters; ++i)
        save(wiki, (i * kWriters + writer) % pages, 1'000'000 + i * kWriters + writer, own);
      const std::lock_guard lock(mutex);
      for (auto& [stage, values] : own) times[stage].insert(times[stage].end(), values.begin(), values.end());
    });
  }
  for (std::thread& writer : writers) writer.join();
  return static_cast<double>(saves / kWriters * kWriters) / (micros(Clock::now() - begun) / 1e6);
}

int run(std::size_t pages, std::size_t saves) {
  const testing::TempDir dir;
  make_wiki(dir, pages);
  const auto wiki = workers::wiki::open_wiki(dir.path(), "stages_bench", workers::wiki::Process::stays);
  Times warm_up;
  for (std::size_t i = 0; i < pages; ++i) save(*wiki, i, 0, warm_up);
  Times alone;
  const testing::TempDir beside;  // where no source is
  bench::Floor floor(beside / "floor");
  for (std::size_t i = 0; i < saves; ++i) {
    save(*wiki, i % pages, i + 1, alone);
    alone["FLOOR"].push_back(floor.write(i));
  }
  print("one writer", alone);
  Times together;
  const double rate = save_side_by_side(*wiki, pages, saves, together);
  fmt::print("\n");
  print("eight writers", together);
  const double held = percentile(alone.at("HELD"), 50);
  const double held_together = percentile(together.at("HELD"), 50);
  const double least = percentile(alone.at("FLOOR"), 50);
  fmt::print(
      "\none writer: the lock is held {:.2f} times as long as the floor takes, the whole takes {:.2f} "
      "times\n",
      held / least, percentile(alone.at("WHOLE"), 50) / least);
  fmt::print(
      "\neight writers: {:.0f} saves a second; the lock allows {:.0f} if it is held as long as by one "
      "writer: "
      "{:.2f} of that; {:.0f} as long as it is held by the eight: {:.2f}\n",
      rate, 1e6 / held, rate * held / 1e6, 1e6 / held_together, rate * held_together / 1e6);
  fmt::print(
      "{{\"pages\": {}, \"saves\": {}, \"floor_p50_us\": {:.0f}, \"whole_p50_us\": {:.0f}, \"held_p50_us\": "
      "{:.0f}, "
      "\"eight_held_p50_us\": {:.0f}, \"eight_per_second\": {:.0f}}}\n",
      pages, saves, least, percentile(alone.at("WHOLE"), 50), held, held_together, rate);
  return 0;
}

}  // namespace
}  // namespace ossilar

int main(int argc, char** argv) {
  const auto number = [&](int at, std::size_t otherwise) {
    return argc > at ? static_cast<std::size_t>(std::strtoul(argv[at], nullptr, 10)) : otherwise;
  };
  return ossilar::run(std::max<std::size_t>(number(1, 64), ossilar::kWriters), number(2, 800));
}
