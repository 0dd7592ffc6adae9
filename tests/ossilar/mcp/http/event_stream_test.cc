#include "ossilar/mcp/http/event_stream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "ossilar/mcp/http/exchange.h"

namespace ossilar::mcp::http {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

// Reads a stream as a connection does, some bytes at a time.
class Reading {
 public:
  explicit Reading(EventStream& stream, std::optional<std::uint64_t> after = 0) : stream_(stream) {
    ticket_ = stream.attach(after, [this] { ++woken; });
  }
  // Everything that there is now.
  std::string all() {
    std::string text;
    for (;;) {
      char buffer[7];
      std::size_t taken = 0;
      const auto result = stream_.read(ticket_, buffer, sizeof buffer, taken, [this] { ++slept; });
      text.append(buffer, taken);
      if (result == EventStream::Read::end) at_end = true;
      if (result != EventStream::Read::some) return text;
    }
  }
  void leave() { stream_.detach(ticket_); }

  int woken = 0;
  int slept = 0;
  bool at_end = false;

 private:
  EventStream& stream_;
  std::uint64_t ticket_ = 0;
};

TEST(EventStreamTest, AReaderGetsWhatComesAndSleepsInBetween) {
  EventStream stream(3);
  stream.push("");
  Reading reading(stream);
  EXPECT_EQ(reading.all(), "id: 3-1\nretry: 1000\ndata: \n\n");
  EXPECT_EQ(reading.slept, 1);
  stream.push("{}");
  stream.push("[]");
  EXPECT_EQ(reading.woken, 1) << "once for each sleep";
  EXPECT_EQ(reading.all(), "id: 3-2\ndata: {}\n\nid: 3-3\ndata: []\n\n");
  stream.beat();
  EXPECT_EQ(reading.all(), ": still here\n\n");
  EXPECT_FALSE(reading.at_end);
  stream.close();
  stream.push("late");
  EXPECT_EQ(reading.all(), "");
  EXPECT_TRUE(reading.at_end);
}

TEST(EventStreamTest, TheNextReaderGoesOnWhereItSays) {
  EventStream stream(0);
  for (const char* text : {"1", "2", "3"}) stream.push(text);
  Reading first(stream);
  EXPECT_THAT(first.all(), HasSubstr("0-3"));
  Reading second(stream, 1);
  EXPECT_EQ(second.all(), "id: 0-2\ndata: 2\n\nid: 0-3\ndata: 3\n\n");
  EXPECT_EQ(first.woken, 1) << "it finds out that it was replaced";
  first.all();
  EXPECT_TRUE(first.at_end);
  second.leave();
  EXPECT_FALSE(stream.has_reader());
  stream.push("4");
  Reading third(stream, std::nullopt);
  EXPECT_EQ(third.all(), "id: 0-4\ndata: 4\n\n") << "what nobody was given";
}

TEST(EventStreamTest, WhatNobodyReadsCostsNoMoreThanTheLimit) {
  EventStream many(0);
  for (int i = 0; i < 1000; ++i) many.push("x");
  const std::string kept = Reading(many).all();
  EXPECT_THAT(kept, Not(HasSubstr("id: 0-744\n")));
  EXPECT_THAT(kept, StartsWith("id: 0-745\n"));
  EventStream large(0);
  const std::string mib(1024 * 1024, 'x');
  large.push("first");
  large.push(mib);
  EXPECT_THAT(Reading(large).all(), StartsWith("id: 0-2\ndata: xxx"))
      << "the newest is kept whatever its size";
}

TEST(EventStreamTest, ReadsEventIds) {
  EXPECT_EQ(parse_event_id("12-7")->stream, 12);
  EXPECT_EQ(parse_event_id("12-7")->event, 7);
  for (const char* text : {"", "-", "1", "1-", "-1", "1-2-3", "a-1", "1-a", " 1-1", "1-99999999999999999999"})
    EXPECT_FALSE(parse_event_id(text)) << text;
}

constexpr const char* kAnswer = R"({"jsonrpc":"2.0","id":1,"result":{}})";
constexpr const char* kProgress = R"({"jsonrpc":"2.0","method":"notifications/progress","params":{}})";

struct Exchanged {
  explicit Exchanged(bool primes = false)
      : exchange(std::make_shared<Exchange>(std::make_shared<EventStream>(1), primes)),
        outlet(Exchange::outlet(exchange)) {}
  std::shared_ptr<Exchange> exchange;
  std::shared_ptr<Outlet> outlet;
};

TEST(ExchangeTest, AnAnswerAloneIsADocument) {
  Exchanged given;
  int woken = 0;
  EXPECT_EQ(given.exchange->form([&] { ++woken; }), Exchange::Form::undecided);
  given.outlet->write(kAnswer);
  given.outlet->write_later(kProgress);
  EXPECT_EQ(woken, 1);
  given.outlet.reset();
  EXPECT_EQ(woken, 1);
  EXPECT_EQ(given.exchange->form({}), Exchange::Form::document);
  EXPECT_EQ(given.exchange->document(), kAnswer);
}

TEST(ExchangeTest, WhatIsToldBeforeMakesItAStreamThatTheAnswerEnds) {
  Exchanged given(true);
  given.outlet->write(kProgress);
  EXPECT_EQ(given.exchange->form({}), Exchange::Form::events);
  Reading reading(*given.exchange->stream());
  EXPECT_EQ(reading.all(),
            std::string("id: 1-1\nretry: 1000\ndata: \n\nid: 1-2\ndata: ") + kProgress + "\n\n");
  given.outlet->write(kAnswer);
  EXPECT_EQ(reading.all(), std::string("id: 1-3\ndata: ") + kAnswer + "\n\n");
  EXPECT_TRUE(reading.at_end);
}

TEST(ExchangeTest, ARequestThatIsCancelledEndsWithoutAnAnswer) {
  Exchanged given;
  int woken = 0;
  given.exchange->form([&] { ++woken; });
  given.outlet.reset();
  EXPECT_EQ(woken, 1);
  EXPECT_EQ(given.exchange->form({}), Exchange::Form::events);
  Reading reading(*given.exchange->stream());
  EXPECT_EQ(reading.all(), "");
  EXPECT_TRUE(reading.at_end);
}

}  // namespace
}  // namespace ossilar::mcp::http
