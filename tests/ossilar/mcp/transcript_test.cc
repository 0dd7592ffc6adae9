// Sessions as a person can read them: tests/transcripts/README.md says how they are written.
#include <gtest/gtest.h>

#include <fstream>

#include "support/mcp_client.h"

namespace ossilar {
namespace {

// Names that a transcript gives to values on the way.
using Names = std::map<std::string, Map>;

bool is_name(const Map& value) {
  return value.is_string() && value.get_ref<const std::string&>().starts_with("$");
}

Map with_values(Map value, const Names& names) {
  if (is_name(value)) return names.at(value.get<std::string>());
  if (value.is_structured()) {
    for (Map& part : value) part = with_values(part, names);
  }
  return value;
}

std::string mismatch(const Map& wanted, const Map& got, Names& names);

std::string text_mismatch(const std::string& wanted, const Map& got) {
  if (wanted.starts_with("~")) {
    const bool holds =
        got.is_string() && got.get_ref<const std::string&>().find(wanted.substr(1)) != std::string::npos;
    return holds ? "" : "no '" + wanted.substr(1) + "' in " + got.dump();
  }
  return got == Map(wanted) ? "" : wanted + " is not " + got.dump();
}

std::string object_mismatch(const Map& wanted, const Map& got, Names& names) {
  for (const auto& [key, value] : wanted.items()) {
    const bool absent = value == Map("!");
    if (got.contains(key) == absent) return key + (absent ? " is there: " : " is missing in ") + got.dump();
    if (absent) continue;
    if (auto found = mismatch(value, got.at(key), names); !found.empty()) return key + ": " + found;
  }
  return "";
}

// Where `got` is not what the pattern `wanted` describes; "" when it is.
std::string mismatch(const Map& wanted, const Map& got, Names& names) {
  if (is_name(wanted)) {
    const auto known = names.emplace(wanted.get<std::string>(), got);
    return known.second || known.first->second == got ? "" : wanted.dump() + " was another: " + got.dump();
  }
  if (wanted.is_string()) return text_mismatch(wanted.get<std::string>(), got);
  if (wanted.is_object() && got.is_object()) return object_mismatch(wanted, got, names);
  if (!wanted.is_array() || !got.is_array())
    return wanted == got ? "" : wanted.dump() + " is not " + got.dump();
  if (wanted.size() != got.size()) return "another length: " + got.dump();
  for (std::size_t i = 0; i < wanted.size(); ++i) {
    if (auto found = mismatch(wanted[i], got[i], names); !found.empty())
      return std::to_string(i) + ": " + found;
  }
  return "";
}

TEST(Transcript, AnAgentsDay) {
  const testing::WikiRepo repo;
  testing::McpClient client(repo.dir.path());
  Names names;
  Map answer;
  std::ifstream transcript(OSSILAR_TRANSCRIPTS "/day.txt");
  int number = 0;
  int exchanges = 0;
  for (std::string line; std::getline(transcript, line);) {
    SCOPED_TRACE("day.txt:" + std::to_string(++number));
    const std::string rest = line.size() > 2 ? line.substr(2) : "";
    if (line.starts_with("> ")) {
      const Map sent = with_values(Map::parse(rest), names);
      answer = client.tool(sent.at(0).get<std::string>(), sent.at(1));
    } else if (line.starts_with("< ")) {
      ASSERT_EQ(mismatch(Map::parse(rest), answer, names), "");
      ++exchanges;
    } else if (line.starts_with("! ")) {
      const Map file = Map::parse(rest);
      repo.dir.write(file.at(0).get<std::string>(), file.at(1).get<std::string>());
    }
  }
  EXPECT_GE(exchanges, 15);
}

}  // namespace
}  // namespace ossilar
