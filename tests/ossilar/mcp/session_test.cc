#include "ossilar/mcp/session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <set>

#include "ossilar/operations/operation.h"
#include "ossilar/store/file_lock.h"
#include "ossilar/utils/process.h"
#include "support/mcp_client.h"
#include "support/rows.h"

namespace ossilar::mcp {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using testing::McpClient;
using ::testing::Not;
using testing::WikiRepo;

Map save_arguments(const std::string& page_id, const std::string& content) {
  return {{"page_id", page_id}, {"content", content}};
}

std::string line_of_row(const Map& line) {
  if (line.is_string()) return line.get<std::string>();
  std::string text;
  if (line.contains("hex")) {
    const std::string hex = line.at("hex").get<std::string>();
    for (std::size_t i = 0; i < hex.size(); i += 2)
      text += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return text;
  }
  text = line.value("before", "");
  const auto repeated = line.at("repeat").get<std::string>();
  const auto times = line.at("times").get<std::size_t>();
  if (repeated.size() == 1) {
    text.append(times, repeated.front());  // millions of them
  } else {
    for (std::size_t i = 0; i < times; ++i) text += repeated;
  }
  return text + line.value("after", "");
}

// What a server writes that reads these lines from a file.
std::string replies_to(const WikiRepo& repo, const std::string& lines) {
  repo.dir.write("lines", lines);
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> in(std::fopen((repo.dir / "lines").c_str(), "r"),
                                                           std::fclose);
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> out(std::fopen((repo.dir / "replies").c_str(), "w"),
                                                            std::fclose);
  workers::wiki::WikiProvider provider(repo.dir.path());
  LineWriter output(fileno(out.get()), -1);
  Service service(provider);
  const auto session = Session::begin(service, unowned(output));
  LineReader reader(fileno(in.get()), fileno(out.get()));
  for (;;) {
    const auto next = reader.next();
    if (std::holds_alternative<EndOfInput>(next)) break;
    const auto* line = std::get_if<Line>(&next);
    line != nullptr ? session->receive(line->text) : session->receive_too_long(std::get<LineTooLong>(next));
  }
  output.input_has_ended();
  EXPECT_TRUE(session->finish(std::chrono::minutes(1), false));
  return repo.dir.read("replies");
}

// A name that does not fit into the string object itself, with what would break a line.
TEST(Session, TheHistoryNamesTheClientOnOneLine) {
  const WikiRepo repo;
  McpClient client(repo.dir.path(), "");
  client.call("initialize", Map{{"protocolVersion", "2025-11-25"},
                                {"clientInfo", {{"name", "  an editor\nwith\tagents \u001b[1m in it "}}}});
  client.notify("notifications/initialized", Map::object());
  client.tool("save_page", save_arguments("alpha", WikiRepo::text_about("alpha")));
  const Map history = client.tool("page_history", Map{{"page_id", "alpha"}});
  EXPECT_THAT(history.at("versions").at(0).at("client").get<std::string>(),
              ::testing::MatchesRegex("an editor with agents .* in it"));
}

TEST(Session, AnswersAwkwardLinesAsTheProtocolHasIt) {
  const WikiRepo repo;
  const std::vector<Map> rows = testing::rows_of("mcp/lines.txt");
  EXPECT_GE(rows.size(), 30U);
  for (const Map& row : rows) {
    const std::string revision = row.at(1).get<std::string>();
    std::string lines = line_of_row(row.at(2)) + "\n";
    if (!revision.empty()) {
      lines = R"({"jsonrpc":"2.0","id":0,"method":"initialize","params":{"protocolVersion":")" + revision +
              "\"}}\n" + lines;
    }
    std::string replies = replies_to(repo, lines);
    if (!revision.empty()) replies.erase(0, replies.find('\n') + 1);
    EXPECT_EQ(replies, row.at(3).is_null() ? "" : row.at(3).get<std::string>() + "\n") << row.at(0);
  }
}

// A page of so many sections, each with a citation.
std::string sectioned(int sections) {
  std::string text = "Many sections.\n";
  for (int i = 0; i < sections; ++i) {
    text += "\n## Section " + std::to_string(i) + "\n\nOld [src/alpha.cpp:L" + std::to_string(i % 10 + 1) +
            "].\n";
  }
  return text;
}

TEST(Session, KeepsEveryOneOfTwentySectionSavesInFlightOnOnePage) {
  constexpr int kSections = 20;
  const WikiRepo repo;
  McpClient client(repo.dir.path());
  ASSERT_TRUE(client.tool("save_page", save_arguments("alpha", sectioned(kSections))).contains("saved"));
  for (int i = 0; i < kSections; ++i) {
    Map arguments =
        save_arguments("alpha", "New " + std::to_string(i) + "! [src/alpha.cpp:L1] [src/alpha.cpp:L2]");
    arguments["section"] = "Section " + std::to_string(i);
    client.send("tools/call", Map{{"name", "save_page"}, {"arguments", arguments}});
  }
  for (int i = 0; i < kSections; ++i) {
    const Map answer = client.next_that([](const Map& message) { return message.contains("result"); });
    EXPECT_TRUE(McpClient::value_of(answer).contains("saved")) << answer;
  }
  for (int i = 0; i < kSections; ++i)
    EXPECT_THAT(repo.page("alpha"), HasSubstr("\nNew " + std::to_string(i) + "! "));
}

// A new line above what the page cites; by default the page stays as it is.
TEST(Session, FollowsMovedCitationsWhereTheOwnerWantsIt) {
  const std::string text =
      "Alpha [src/alpha.cpp:L2] and [src/alpha.cpp:L4].\n\n## One\n\nOther [src/alpha.cpp:L8].\n";
  const Map page{{"page_id", "alpha"}};
  for (const bool is_wanted : {false, true}) {
    const WikiRepo repo(is_wanted ? "[wiki]\nfollow = true\n" : "");
    McpClient client(repo.dir.path());
    ASSERT_TRUE(client.tool("save_page", save_arguments("alpha", text)).contains("saved"));
    const auto authored = [&] {
      return client.tool("read_page", {{"page_id", "alpha"}, {"part", "authored"}}).value("text", "");
    };
    repo.dir.write("src/alpha.cpp", "// new\n" + WikiRepo::ten_lines("alpha"));
    EXPECT_THAT(authored(), HasSubstr(is_wanted ? "[src/alpha.cpp:L3] and [src/alpha.cpp:L5]"
                                                : "[src/alpha.cpp:L2] and [src/alpha.cpp:L4]"));
    EXPECT_THAT(authored(), HasSubstr(is_wanted ? "Other [src/alpha.cpp:L9]" : "Other [src/alpha.cpp:L8]"));
    // Handed in as it stood, after another line: followed in the same save, and the author is told.
    Map arguments = save_arguments("alpha", authored());
    arguments["if_version"] = client.tool("page_context", page).at("version");
    repo.dir.write("src/alpha.cpp", "// new\n// newer\n" + WikiRepo::ten_lines("alpha"));
    const Map answer = client.tool("save_page", arguments);
    ASSERT_TRUE(answer.contains("saved")) << answer;
    EXPECT_EQ(answer.at("warnings").dump().find("followed: [src/alpha.cpp:L3] moved to [src/alpha.cpp:L4]") !=
                  std::string::npos,
              is_wanted)
        << answer;
    EXPECT_THAT(authored(),
                HasSubstr(is_wanted ? "[src/alpha.cpp:L4] and [src/alpha.cpp:L6]" : "[src/alpha.cpp:L2]"));
  }
}

TEST(Session, ACancelledSaveWritesNothingAndIsNotAnswered) {
  const WikiRepo repo;
  store::FileLock lock({.path = repo.dir / ".ossilar/write.lock", .holder = "the test"});
  McpClient client(repo.dir.path());
  client.tool("wiki_status");
  lock.acquire(false);
  const int save =
      client.send("tools/call", Map{{"name", "save_page"},
                                    {"arguments", save_arguments("alpha", WikiRepo::text_about("alpha"))},
                                    {"_meta", Map{{"progressToken", "t"}}}});
  int last = 0;
  client.next_that([&](const Map& message) {
    const Map& params = utils::member(message, "params");
    EXPECT_EQ(utils::member(params, "progressToken"), "t");
    EXPECT_GT(params.at("progress").get<int>(), std::exchange(last, params.at("progress").get<int>()));
    return utils::string_member(params, "message") == "waiting for the write lock";
  });
  client.notify("notifications/cancelled", Map{{"requestId", save}});
  lock.release();  // which the cancelled save must not take any more
  ASSERT_TRUE(client.session().finish(std::chrono::minutes(1), false));
  EXPECT_TRUE(
      client.tool("save_page", save_arguments("beta", WikiRepo::text_about("beta"))).contains("saved"));
  for (const Map& message : client.messages()) EXPECT_NE(utils::member(message, "id"), save) << message;
  EXPECT_FALSE(std::filesystem::exists(repo.dir / "wiki/pages/alpha.md"));
}

TEST(Session, TellsSubscribersOfPagesThatOthersSave) {
  const WikiRepo repo;
  const auto other = repo.open();
  McpClient client(repo.dir.path());
  client.call("resources/subscribe", Map{{"uri", "ossilar://pages/%62eta"}});  // encoded without need
  ASSERT_TRUE(ossilar::testing::save(*other, "alpha", WikiRepo::text_about("alpha")).contains("saved"));
  ASSERT_TRUE(ossilar::testing::save(*other, "beta", WikiRepo::text_about("beta")).contains("saved"));
  const Map updated = client.notification("notifications/resources/updated");
  EXPECT_EQ(updated.at("params").at("uri"), "ossilar://pages/beta")
      << "and not alpha, which nobody asked about";
  EXPECT_EQ(client.call("resources/list").at("result").at("resources").size(), 2U);
}

TEST(Session, ListensUntilItIsCancelled) {
  const WikiRepo repo;
  const auto other = repo.open();
  McpClient client(repo.dir.path(), "");
  const Map meta{{meta_key::kVersion, "2026-07-28"}, {meta_key::kClientCapabilities, Map::object()}};
  const Map asked{{"resourceSubscriptions", Map::array({"ossilar://pages/alpha", "file:///etc/passwd"})},
                  {"toolsListChanged", true}};
  const int listening = client.send("subscriptions/listen", Map{{"notifications", asked}, {"_meta", meta}});
  const Map acknowledged = client.next();
  EXPECT_EQ(acknowledged.at("method"), "notifications/subscriptions/acknowledged") << "first of all";
  EXPECT_EQ(acknowledged.at("params").at("notifications"),
            (Map{{"resourceSubscriptions", Map::array({"ossilar://pages/alpha"})}}))
      << "what is not honoured is not promised";
  ASSERT_TRUE(ossilar::testing::save(*other, "alpha", WikiRepo::text_about("alpha")).contains("saved"));
  const Map updated = client.notification("notifications/resources/updated");
  EXPECT_EQ(updated.at("params").at("_meta").at(meta_key::kSubscription), listening);

  client.notify("notifications/cancelled", Map{{"requestId", listening}});
  ASSERT_TRUE(
      ossilar::testing::save(*other, "alpha", WikiRepo::text_about("alpha", "Again.")).contains("saved"));
  client.call("tools/call", Map{{"name", "wiki_status"}, {"_meta", meta}});
  const int last =
      client.send("subscriptions/listen", Map{{"notifications", Map::object()}, {"_meta", meta}});
  client.notification("notifications/subscriptions/acknowledged");
  client.session().finish(std::chrono::minutes(1), false);
  EXPECT_EQ(client.answer(last).at("result").at("_meta").at(meta_key::kSubscription), last)
      << "the end is said";
  for (const Map& message : client.messages()) EXPECT_NE(utils::member(message, "id"), listening) << message;
}

TEST(Session, KeepsWhatItRefusedAndShowsItAgain) {
  const WikiRepo repo;
  McpClient client(repo.dir.path());
  const Map answer = client.call(
      "tools/call",
      Map{{"name", "save_page"}, {"arguments", save_arguments("alpha", "No source.\r\n\xEF\xBB\xBF")}});
  EXPECT_TRUE(answer.at("result").at("isError").get<bool>());
  const std::string note = answer.at("result").at("content").at(1).at("text").get<std::string>();
  const std::size_t at = note.find("ossilar://drafts/");
  ASSERT_NE(at, note.npos) << note;
  const std::string uri = note.substr(at, note.find(' ', at) - at);
  const Map read = client.call("resources/read", Map{{"uri", uri}});
  EXPECT_THAT(read.at("result").at("contents").at(0).at("text").get<std::string>(),
              HasSubstr("No source.\n"));
  EXPECT_EQ(repo.dir.read(".ossilar/drafts/" + uri.substr(std::string("ossilar://drafts/").size())),
            "No source.\r\n\xEF\xBB\xBF")
      << "as it was sent";
}

TEST(Session, ShowsOlderRevisionsNothingThatTheyDoNotKnow) {
  struct Case {
    const char* revision;
    bool annotations, structured;
  };
  const WikiRepo repo;
  for (const Case& each : {Case{"2024-11-05", false, false}, Case{"2025-03-26", true, false},
                           Case{"2025-06-18", true, true}, Case{"2025-11-25", true, true}}) {
    SCOPED_TRACE(each.revision);
    McpClient client(repo.dir.path(), each.revision);
    const Map tools = client.call("tools/list").at("result").at("tools");
    EXPECT_EQ(tools.size(), operations::operations().size());
    for (const Map& tool : tools) {
      EXPECT_EQ(tool.contains("annotations"), each.annotations);
      const bool is_text_once = tool.at("name") == Map("page_context");
      EXPECT_EQ(tool.contains("outputSchema"), each.structured && !is_text_once);
      EXPECT_EQ(tool.contains("title"), each.structured);
    }
    const Map result = client.call("tools/call", Map{{"name", "wiki_status"}}).at("result");
    EXPECT_EQ(result.contains("structuredContent"), each.structured);
    EXPECT_FALSE(result.contains("resultType"));
  }
}

TEST(Session, CompletesPagesAndHeadings) {
  const WikiRepo repo;
  McpClient client(repo.dir.path());
  client.tool("save_page", save_arguments("alpha", WikiRepo::text_about("alpha")));
  const Map prompt{{"type", "ref/prompt"}, {"name", "write-page"}};
  const auto values = [&](const char* name, const char* value) {
    return client
        .call("completion/complete", Map{{"ref", prompt},
                                         {"argument", Map{{"name", name}, {"value", value}}},
                                         {"context", Map{{"arguments", Map{{"page_id", "alpha"}}}}}})
        .at("result")
        .at("completion")
        .at("values");
  };
  EXPECT_EQ(values("page_id", "AL"), Map::array({"alpha"}));
  EXPECT_EQ(values("page_id", "et"), Map::array({"beta"})) << "within a word too";
  EXPECT_EQ(values("section", ""), Map::array({"One", "Two"}));
}

TEST(Session, PassesLogRecordsOnFromTheLevelAskedFor) {
  const WikiRepo repo;
  McpClient client(repo.dir.path());
  const auto log = [&](utils::LogLevel level, const char* text) {
    client.session().log({.level = level, .logger = "test", .text = text, .arguments = {}, .failure = {}});
  };
  log(utils::LogLevel::info, "too low");
  log(utils::LogLevel::warning, "heard");
  EXPECT_EQ(client.next().at("params").at("data").at("message"), "heard");
  client.call("logging/setLevel", Map{{"level", "info"}});
  log(utils::LogLevel::debug, "too low");
  log(utils::LogLevel::info, "heard too");
  EXPECT_EQ(client.next().at("params"),
            (Map{{"level", "info"}, {"logger", "test"}, {"data", Map{{"message", "heard too"}}}}));
}

TEST(Session, DoesNotWriteIntoADatabaseThatIsGone) {
  const WikiRepo repo;
  McpClient client(repo.dir.path());
  EXPECT_TRUE(
      client.tool("save_page", save_arguments("alpha", WikiRepo::text_about("alpha"))).contains("saved"));
  std::filesystem::remove_all(repo.dir / ".ossilar");
  EXPECT_THAT(client.tool("save_page", save_arguments("beta", WikiRepo::text_about("beta"))).at("error"),
              HasSubstr("set it up with: ossilar init"));
  workers::wiki::set_up_wiki(repo.dir.path());
  EXPECT_TRUE(
      client.tool("save_page", save_arguments("beta", WikiRepo::text_about("beta"))).contains("saved"));
  EXPECT_EQ(client.tool("wiki_status").at("pages").at("ok"), 2) << "alpha was taken over from its file";
}

TEST(Session, FollowsASwitchOfBranch) {
  const WikiRepo repo;
  const auto git = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(),
                     {"git", "-C", repo.dir.path(), "-c", "user.name=t", "-c", "user.email=t@t"});
    ASSERT_EQ(utils::run_process(arguments, "").exit_code, 0);
  };
  git({"init", "-q", "-b", "one"});
  git({"add", "-A"});
  McpClient client(repo.dir.path());
  EXPECT_TRUE(
      client.tool("save_page", save_arguments("alpha", WikiRepo::text_about("alpha"))).contains("saved"));
  git({"add", "-A"});
  git({"commit", "-qm", "pages"});
  git({"switch", "-qc", "two"});
  const Map status = client.tool("wiki_status");
  EXPECT_EQ(status.at("branch"), "two");
  EXPECT_EQ(status.at("pages").at("ok"), 1) << "the committed page is taken over";
}

}  // namespace
}  // namespace ossilar::mcp
