// The lines of a client: whatever they hold, each answer is one line of the protocol, and a request by itself
// gets one. The session is in a folder without a wiki, so nothing is written and every tool answers at once.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>

#include "laws.h"
#include "ossilar/mcp/session.h"
#include "ossilar/utils/files.h"

namespace mcp = ossilar::mcp;
using ossilar::Map;
using ossilar::fuzz::require;

namespace {

constexpr std::chrono::seconds kPatience(5);

const std::filesystem::path& empty_folder() {
  static const std::filesystem::path folder = [] {
    std::string name = (std::filesystem::temp_directory_path() / "ossilar-fuzz-XXXXXX").string();
    require(mkdtemp(name.data()) != nullptr, "a folder can be made");
    return std::filesystem::canonical(name);
  }();
  return folder;
}

// What a session answers to the lines.
std::string answers_to(int lines) {
  const ossilar::utils::UniqueFd answers(memfd_create("answers", MFD_CLOEXEC));
  ossilar::workers::wiki::WikiProvider provider(empty_folder());
  mcp::LineWriter output(answers.get(), -1);
  {
    mcp::Service service(provider);
    const auto session = mcp::Session::begin(service, mcp::unowned(output));
    mcp::LineReader reader(lines, answers.get());
    for (;;) {
      const auto next = reader.next();
      if (std::holds_alternative<mcp::EndOfInput>(next)) break;
      if (const auto* line = std::get_if<mcp::Line>(&next)) session->receive(line->text);
    }
    output.input_has_ended();
    require(session->finish(kPatience, false), "the session ends");
  }
  lseek(answers.get(), 0, SEEK_SET);
  return ossilar::utils::read_at_most(answers.get(), std::string::npos, "the answers").value_or("");
}

bool is_message(const Map& message) {
  return message.is_object() && message.value("jsonrpc", "") == "2.0" &&
         (message.contains("result") || message.contains("error") || message.contains("method"));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const ossilar::utils::UniqueFd lines(memfd_create("lines", MFD_CLOEXEC));
  require(write(lines.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()),
          "it can be written");
  lseek(lines.get(), 0, SEEK_SET);
  const std::string answers = answers_to(lines.get());
  std::size_t count = 0;
  for (const std::string_view line : ossilar::utils::split_lines(answers)) {
    ++count;
    const Map answer = Map::parse(line);
    if (!answer.is_array()) require(is_message(answer), "an answer is a message", std::string(line));
    for (const Map& one : answer.is_array() ? answer : Map::array())
      require(is_message(one), "an answer of a batch is a message", std::string(line));
  }
  if (text.find('\n') != text.npos) return 0;
  const auto content = mcp::read_line(text);
  const auto* message = std::get_if<mcp::Message>(&content);
  if (message != nullptr && std::holds_alternative<mcp::Request>(*message))
    require(count == 1, "a request by itself gets one answer", answers);
  return 0;
}
