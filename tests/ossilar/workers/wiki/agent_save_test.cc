#include "ossilar/workers/wiki/agent_save.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>

#include "agent_save_world.h"

namespace ossilar::workers::wiki {
namespace {

using std::nullopt;

const std::string kId = "core/io";
const std::string kText = "S\n## A\na\n";
const Map kTitled{{"title", "New"}};

struct Cancelled {};  // not derived from std::exception

struct Case {
  std::string title;
  Map given = Map::object();
  std::string expected;
};

// The transcripts whose titles begin with `prefix`.
std::vector<Case> cases(const std::string& prefix) {
  std::ifstream file(OSSILAR_TEST_DATA "/agent_save.txt");
  std::vector<Case> out;
  bool wanted = false;
  for (std::string line; std::getline(file, line);) {
    if (line.substr(0, 3) == "== ") {
      wanted = line.substr(3, prefix.size()) == prefix;
      if (wanted) out.push_back({.title = line.substr(3), .expected = ""});
    } else if (wanted && line.substr(0, 2) == "< ") {
      out.back().given = Map::parse(line.substr(2));
    } else if (wanted && !line.empty() && line[0] != '#') {
      out.back().expected += line + "\n";
    }
  }
  EXPECT_FALSE(out.empty()) << prefix;
  return out;
}

std::string transcript(const std::string& title) { return cases(title).at(0).expected; }

// How the calls `to` differ from the calls `from`, in order: "-" one less, "+" one more, "~" other arguments.
std::string difference(const Lines& from, const Lines& to) {
  std::string out;
  auto at = to.begin();
  for (const std::string& line : from) {
    const auto same = [&](const std::string& other) { return name_of(other) == name_of(line); };
    const auto found = std::find_if(at, to.end(), same);
    if (found == to.end()) {
      out += "- " + name_of(line) + "\n";
      continue;
    }
    for (; at != found; ++at) out += "+ " + *at + "\n";
    if (*at != line) out += "~ " + *at + "\n";
    ++at;
  }
  for (; at != to.end(); ++at) out += "+ " + *at + "\n";
  return out;
}

std::string answered(const Answer& answer) { return "= " + utils::json_text(answer) + "\n"; }

// ---- Whole saves.

TEST(AgentSave, FirstSave) {
  World world(kTitled);
  world.stored_digests = {{"core", Map{{"abstract", "c"}}}, {"gone", Map()}};
  const std::string answer = answered(world.save());
  EXPECT_EQ(world.calls() + "\n" + answer, transcript("a first save"));
  EXPECT_EQ(world.dir.read("core/io.md"), "# T\n" + kText);
  EXPECT_EQ(log_text(shown(world.stored_digests)), R"({"core":{"abstract":"c"},"core/io":{"abstract":"a"}})");
  EXPECT_FALSE(world.locked);
}

TEST(AgentSave, HowOtherSavesDiffer) {
  World first(kTitled);
  first.save();
  for (const Case& each : cases("differs: ")) {
    World world(each.given);
    const Answer answer = world.save();
    EXPECT_EQ(difference(first.log, world.log) + answered(answer), each.expected) << each.title;
  }
}

// ---- Refusals and lost races.

TEST(AgentSave, BlankContentIsRefusedAtOnce) {
  for (const Text& content : {Text(), Text(""), Text(" \t\r\n\v\f"), Text("\xC2\xA0"), Text("\xE3\x80\x80"),
                              Text(" \xE3\x80\x80\n\xC2\xA0\xC2\x85")}) {
    World world;
    EXPECT_EQ(answered(world.save_agent_page(kId, content)), "= {\"error\": \"content is required\"}\n");
    EXPECT_EQ(world.calls(), "");
  }
  EXPECT_EQ(refuse_blank("\xE2\x80\x8B"), nullopt) << "a zero-width space is no white space";
}

TEST(AgentSave, Refusals) {
  for (const Case& each : cases("refused: ")) {
    World world(each.given);
    const Answer answer = world.save();
    EXPECT_EQ(world.names() + "\n" + answered(answer), each.expected) << each.title;
  }
}

TEST(AgentSave, ABusyLockIsAnAnswer) {
  World world(kTitled);
  world.failing["_acquire_write_lock"] = std::make_exception_ptr(_WikiBusy("held by agent 7"));
  EXPECT_EQ(answered(world.save()), "= {\"error\": \"held by agent 7\"}\n");
  EXPECT_EQ(world.log.back(), "_acquire_write_lock(true)");
}

class LostRaces : public ::testing::Test {
 protected:
  LostRaces() {
    World plain(kTitled);
    plain.save();
    whole = plain.names();
    lost = whole.substr(0, whole.find("_acquire")) +
           "_acquire_write_lock _reread_existing _release_write_lock info ";
  }

  std::string whole;  // the calls of a save that no other save disturbs
  std::string lost;   // of an attempt that loses
};

// A save drafts again exactly when another save gave the page's row another hash or title.
TEST_F(LostRaces, WhatCountsAsAnotherVersion) {
  for (const Case& each : cases("race: ")) {
    World world(each.given);
    const Map& after = each.given["after"];
    world.before_lock = [&] { after.is_null() ? void(world.rows.erase(kId)) : world.rows.set(kId, after); };
    EXPECT_TRUE(world.save().contains("saved")) << each.title;
    EXPECT_EQ(world.names(), each.expected == "again\n" ? lost + whole : whole) << each.title;
    EXPECT_EQ(world.dir.read("core/io.md"), "# T\n" + kText) << each.title;
    EXPECT_EQ(world.rows.find(kId)->at("title"), "New") << each.title;
  }
}

TEST_F(LostRaces, ThreeAttemptsAtMost) {
  for (const int losses : {2, 3}) {
    World world(kTitled);
    int left = losses;
    const std::function<void()> others = [&] {
      world.rows.set(kId, Map{{"content_hash", left}});
      if (--left > 0) world.before_lock = others;
    };
    world.before_lock = others;
    const std::string answer = answered(world.save());
    EXPECT_EQ(world.names() + " ", losses == 2 ? lost + lost + whole + " " : lost + lost + lost);
    if (losses == 3) {
      EXPECT_EQ(world.log.back() + "\n" + answer, transcript("lost every time"));
    }
  }
}

// The draft of one section waits for the lock while another section is saved whole.
TEST_F(LostRaces, SavesOfTwoSectionsAreBothKept) {
  World world(cases("differs: one section").at(0).given);
  world.before_lock = [&] { world.save_agent_page(kId, "## B\ntheirs\n", "B"); };
  EXPECT_TRUE(world.save().contains("saved"));
  EXPECT_EQ(world.dir.read("core/io.md"), "# T\nS\n## A\nn\n## C\n## B\ntheirs\n");
}

// ---- Faults.

struct Sweep {
  Map given;
  std::exception_ptr fault;
  bool ordinary;  // derived from std::exception
};

// Lets outside call `number` fail and checks that only the clean-up follows. False when there is no such
// call.
bool fails_well_at(const Sweep& sweep, int number) {
  World world(sweep.given);
  world.fault = sweep.fault;
  world.fail_at = number;
  std::exception_ptr failure;
  Answer answer;
  try {
    answer = world.save();
  } catch (...) {
    failure = std::current_exception();
  }
  if (!world.at_fault) return false;
  const auto after = world.log.begin() + static_cast<std::ptrdiff_t>(world.at_fault->logged);
  const bool releasing = *(after - 1) == "_release_write_lock()";
  const bool publishing = !releasing && std::find(world.log.begin(), after, "_git_commit()") != after;
  const bool swallowed = publishing && sweep.ordinary;
  Lines expected;
  if (world.at_fault->in_scope) expected.emplace_back("end_of_degraded_steps()");
  if (swallowed) expected.emplace_back(utils::strip(transcript("a failed publication")));
  if (world.at_fault->locked && !releasing) expected.emplace_back("_release_write_lock()");
  EXPECT_EQ(failure, swallowed ? nullptr : sweep.fault);
  EXPECT_EQ(answer.contains("saved"), swallowed);
  EXPECT_EQ(Lines(after, world.log.end()), expected);
  EXPECT_EQ(world.locked, releasing);
  EXPECT_EQ(world.state.has_value(), releasing);
  EXPECT_TRUE(!releasing || world.dir.read("core/io.md").substr(0, 4) == "# T\n") << "what is written stands";
  return true;
}

TEST(AgentSaveFaults, EveryOutsideCallMayFail) {
  const std::exception_ptr ordinary = std::make_exception_ptr(std::runtime_error("broken"));
  const std::exception_ptr other = std::make_exception_ptr(Cancelled());
  const Map section = cases("differs: one section").at(0).given;
  for (const Sweep& sweep : {Sweep{kTitled, ordinary, true}, Sweep{kTitled, other, false},
                             Sweep{section, ordinary, true}, Sweep{section, other, false}}) {
    int number = 1;
    while (fails_well_at(sweep, number) && !HasFailure()) ++number;
    ASSERT_FALSE(HasFailure()) << "fault at outside call " << number;
    EXPECT_GT(number, 50) << "the sweep ended early";
  }
}

TEST(AgentSaveFaults, TheReleaseThatFailsAfterAFailedCommitReachesTheCaller) {
  World world(kTitled);
  world.failing["_reread_existing"] = std::make_exception_ptr(std::runtime_error("broken"));
  world.failing["_release_write_lock"] = std::make_exception_ptr(Cancelled());
  EXPECT_THROW(world.save(), Cancelled);
  EXPECT_EQ(world.log.back(), "_release_write_lock()");
}

// ---- Parts of a save.

TEST(AgentSaveBasis, HashAndTitleOfARow) {
  EXPECT_EQ(_basis(nullptr), nullopt);
  const std::string rows = transcript("the version of a row");
  for (const std::string_view line : utils::split_lines(rows)) {
    const std::size_t arrow = line.find(" -> ");
    const Map row = Map::parse(line.substr(0, arrow));
    const auto [hash, title] = _basis(&row).value();
    EXPECT_EQ(log_text(Map::array({hash, title})), line.substr(arrow + 4)) << line;
  }
}

TEST(AgentSaveDraft, BuildCache) {
  for (const Case& each : cases("build cache: ")) {
    World world(each.given);
    const auto drafted = world._draft_agent_page(kId, each.given.value("content", "x"), nullopt, nullopt);
    EXPECT_EQ(std::get<_PageDraft>(drafted).build_cache + "\n", each.expected) << each.title;
  }
}

TEST(AgentSaveDraft, TextThatIsNotUtf8Fails) {
  World world;
  EXPECT_THROW(world._draft_agent_page(kId, "x\xFF", nullopt, nullopt), nlohmann::json::type_error);
  EXPECT_EQ(name_of(world.log.back()), "_section_cache");
}

TEST(AgentSaveAnswer, Warnings) {
  const FinalizedPage page{"m", {"c1"}, "s", {"A", "B"}, {"b", "s"}};
  for (const Case& each : cases("warnings: ")) {
    World world(each.given);
    const Answer answer = world._save_answer(world.pages[1], page, "m", "auth", {"n1", "n2"});
    EXPECT_EQ(world.calls() + "\n" + answered(answer), each.expected) << each.title;
  }
}

TEST(AgentSaveSection, ReplacesOneSectionOfTheStoredText) {
  for (const Case& each : cases("section: ")) {
    World world(each.given);
    std::filesystem::create_symlink("elsewhere", world.dir / "core/io.md");
    const Answer answer = world._with_section(world.pages[1], " A ", *world.given_text("content"));
    EXPECT_EQ(answered(answer), each.expected) << each.title;
  }
}

TEST(AgentSaveSection, AFileThatIsNotUtf8IsAFailure) {
  World world;
  world.dir.write("core/io.md", "# T\nS\xC3(\n");
  EXPECT_THROW(world._with_section(world.pages[1], "A", "x"), utils::Error);
  EXPECT_EQ(world.calls(), "");
}

}  // namespace
}  // namespace ossilar::workers::wiki
