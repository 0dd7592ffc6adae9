#include "ossilar/mcp/protocol/transport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <set>
#include <thread>
#include <vector>

namespace ossilar::mcp {
namespace {

class Pipe {
 public:
  Pipe() {
    std::array<int, 2> made{};
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, made.data()) != 0) throw std::runtime_error("no socket pair");
    in = utils::UniqueFd(made[0]);
    out = utils::UniqueFd(made[1]);
  }
  utils::UniqueFd in, out;
};

// What a reader makes of `text`, written in pieces of `piece` bytes: each line, "<long>" for one over the
// limit.
std::vector<std::string> lines_of(const std::string& text, std::size_t piece) {
  Pipe pipe;
  std::thread writer([&] {
    for (std::size_t at = 0; at < text.size(); at += piece) {
      const std::string part = text.substr(at, piece);
      EXPECT_EQ(write(pipe.out.get(), part.data(), part.size()), static_cast<ssize_t>(part.size()));
    }
    pipe.out = utils::UniqueFd();
  });
  LineReader reader(pipe.in.get(), STDERR_FILENO);
  std::vector<std::string> lines;
  for (;;) {
    const auto next = reader.next();
    if (std::holds_alternative<EndOfInput>(next)) break;
    const auto* line = std::get_if<Line>(&next);
    lines.push_back(line != nullptr ? line->text : "<long>");
  }
  writer.join();
  return lines;
}

TEST(LineReader, CutsLinesHoweverTheyArrive) {
  const std::string text = "one\n\ntwo \xC3\xA9\r\n{\"a\":\"\\n\"}\nlast";
  for (const std::size_t piece : {1U, 2U, 3U, 7U, 1000U}) {
    EXPECT_THAT(lines_of(text, piece),
                testing::ElementsAre("one", "", "two \xC3\xA9", "{\"a\":\"\\n\"}", "last"))
        << "in pieces of " << piece;
  }
}

TEST(LineReader, PassesOverALineOverTheLimitAndGoesOn) {
  const std::string most(kLongestLine, 'x');
  EXPECT_THAT(lines_of(most + "\nnext\n", 1 << 20), testing::ElementsAre(most, "next"));
  EXPECT_THAT(lines_of(most + "y\nnext\n", 1 << 20), testing::ElementsAre("<long>", "next"));
  EXPECT_THAT(lines_of("a\n" + most + most, 1 << 20), testing::ElementsAre("a", "<long>"));
}

TEST(LineReader, TheEndOfALongLineIsThatOfItsText) {
  Pipe pipe;
  std::thread writer([&] {
    const std::string text = std::string(kLongestLine, 'x') + "}\r\n";
    for (std::string_view left = text; !left.empty();)
      left.remove_prefix(static_cast<std::size_t>(write(pipe.out.get(), left.data(), left.size())));
  });
  LineReader reader(pipe.in.get(), STDERR_FILENO);
  EXPECT_TRUE(std::get<LineTooLong>(reader.next()).end.ends_with("x}"));
  writer.join();
}

TEST(LineReader, EndsWhenNobodyReadsTheAnswers) {
  Pipe questions;
  Pipe answers;
  LineReader reader(questions.in.get(), answers.out.get());
  answers.in = utils::UniqueFd();
  EXPECT_TRUE(std::holds_alternative<EndOfInput>(reader.next()));
  EXPECT_TRUE(reader_is_gone(answers.out.get()));
  EXPECT_FALSE(reader_is_gone(questions.out.get()));
}

TEST(LineWriter, NeverMixesLinesOfSeveralThreads) {
  Pipe pipe;
  LineWriter writer(pipe.out.get(), -1);
  std::vector<std::thread> threads;
  for (char name = 'a'; name < 'e'; ++name) {
    threads.emplace_back([&writer, name] {
      for (int i = 0; i < 50; ++i) writer.write(std::string(5000, name));
    });
  }
  LineReader reader(pipe.in.get(), STDERR_FILENO);
  for (int i = 0; i < 200; ++i) {
    const std::string line = std::get<Line>(reader.next()).text;
    EXPECT_EQ(line.size(), 5000U);
    EXPECT_EQ(line.find_first_not_of(line.front()), line.npos) << "a line of one thread alone";
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(LineWriter, WritesLaterWithoutWaitingForItsReader) {
  Pipe pipe;
  LineWriter writer(pipe.out.get(), -1);
  const std::string much(1 << 20, 'x');  // more than a socket holds
  writer.write_later(much);
  writer.write_later("behind it");  // would wait for ever if either did
  LineReader reader(pipe.in.get(), STDERR_FILENO);
  EXPECT_EQ(std::get<Line>(reader.next()).text, much);
  EXPECT_EQ(std::get<Line>(reader.next()).text, "behind it");
  writer.write_later("first");
  writer.write("second");
  EXPECT_EQ(std::get<Line>(reader.next()).text, "first") << "what was given before comes before";
  EXPECT_EQ(std::get<Line>(reader.next()).text, "second");
}

TEST(LineWriter, KnowsThatItsReaderIsGone) {
  std::signal(SIGPIPE, SIG_IGN);
  Pipe pipe;
  LineWriter writer(pipe.out.get(), -1);
  EXPECT_TRUE(writer.write("heard"));
  pipe.in = utils::UniqueFd();
  EXPECT_FALSE(writer.write("lost"));
  EXPECT_FALSE(writer.write("not tried again"));
}

TEST(LineWriter, GivesUpAReaderThatHasEndedAndReadsNoMore) {
  Pipe answers;
  Pipe questions;
  const std::string much(1 << 20, 'x');  // more than a socket holds
  LineWriter patient(answers.out.get(), questions.in.get(), std::chrono::milliseconds(1));
  std::thread slow([&] {
    LineReader reader(answers.in.get(), STDERR_FILENO);
    EXPECT_EQ(std::get<Line>(reader.next()).text, much);
  });
  EXPECT_TRUE(patient.write(much)) << "one that is there is waited for, however long it takes";
  slow.join();
  questions.out = utils::UniqueFd();
  EXPECT_FALSE(patient.write(much));
}

}  // namespace
}  // namespace ossilar::mcp
