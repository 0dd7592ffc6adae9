// Runs an operation for the shell. The order keeps the user from waiting for a refusal: the wiki is opened
// before content is read from the terminal, and what the arguments alone decide is refused before the sources
// are indexed, which may take long.
//
// The wiki is brought up to date only as far as the operation needs it (views.h, Freshness): a page is shown
// without taking others over, and only a search may have to embed the wiki again.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "ossilar/cli/commands.h"
#include "ossilar/cli/progress.h"
#include "ossilar/cli/views.h"
#include "ossilar/utils/error.h"
#include "ossilar/utils/files.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/agent_answers.h"
#include "ossilar/workers/wiki/check/arrivals.h"
#include "ossilar/workers/wiki/host/open_wiki.h"

namespace ossilar::cli {
namespace {

using operations::Argument;
using operations::Operation;
using workers::wiki::Wiki;

// Four times the limit of a page: content that is somewhat too long is read to its end, so that the refusal
// can say how long it is. Beyond that nothing is read, since the input may have no end.
constexpr std::size_t kReadLimit = 4 * workers::wiki::kLargestContent;

// The bytes of the file, or of standard input for "" and "-". A file that cannot be opened is wrong usage:
// its name was wrong.
std::string read_content(const std::string& file) {
  utils::UniqueFd opened;
  int fd = STDIN_FILENO;
  if (!file.empty() && file != "-") {
    opened = utils::UniqueFd(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (!opened) throw utils::ConfigError(utils::IoError("cannot open " + file, errno).what());
    fd = opened.get();
  } else if (isatty(fd) == 1) {
    Output::diagnostic("reading the page from the terminal; end it with Ctrl-D");
  }
  const std::string name = fd == STDIN_FILENO ? "standard input" : file;
  auto content = utils::read_at_most(fd, kReadLimit, name);
  if (!content) throw utils::ConfigError(name + " is longer than 1 MiB, the limit for a page");
  return *std::move(content);
}

// Throws the failure again with `more` at the end of its message, as a failure is one line. Of its type only
// what decides the exit code is kept.
[[noreturn]] void rethrow(const std::exception_ptr& failure, const std::string& more) {
  try {
    std::rethrow_exception(failure);
  } catch (const utils::ConfigError& error) {
    throw utils::ConfigError(error.what() + more);
  } catch (const std::exception& error) {
    throw utils::Error(error.what() + more);
  }
}

void require_utf8_argument(const std::string& text, std::string_view name) {
  try {
    utils::require_utf8(text, std::string(name));
  } catch (const utils::Error& error) {
    throw utils::ConfigError(error.what());
  }
}

// Replaces the names of files by their contents, and checks the arguments. Content that is not UTF-8 passes,
// as the operation refuses it (exit code 1); any other argument that does not fit is wrong usage (2).
Map complete(const Operation& operation, Map arguments) {
  for (const Argument& argument : operation.arguments) {
    const std::string name(argument.name);
    const bool is_needless = argument.is_needless != nullptr && argument.is_needless(arguments);
    if (argument.from_file && is_needless && !arguments.contains(name)) {
      arguments[name] = "";
    } else if (argument.from_file) {
      arguments[name] = read_content(utils::string_member(arguments, name));
    } else {
      require_utf8_argument(utils::string_member(arguments, name), argument.option);
    }
  }
  if (const auto fault = misfit(operation, arguments, operations::Caller::shell))
    throw utils::ConfigError(*fault);
  return arguments;
}

// The error first, then every list that comes with it, such as similar page ids or the headings there are,
// what else may help, and last where the text is kept.
int print_refusal(const Map& answer, const std::vector<std::string>& notes, const std::string& kept,
                  Output& output) {
  output.document(answer);
  output.line(output.styled(Style::bad, "refused") + "  " + utils::string_member(answer, "error"));
  for (const auto& [key, value] : answer.items()) {
    if (!value.is_array() || value.empty()) continue;
    output.line(output.styled(Style::dim, key + ":"));
    for (const Map& item : value) output.line("  " + utils::text_form(item));
  }
  for (const std::string& note : notes) output.line("  " + note);
  if (!kept.empty()) output.line(kept);
  return kRefused;
}

// skip: a command must not wait for another's save only to take pages over; the next one will.
void adopt(Wiki& wiki) {
  const auto report = workers::wiki::adopt_arrivals(wiki, workers::wiki::WhenBusy::skip);
  if (report.adopted > 0) {
    Output::diagnostic("adopted " + std::to_string(report.adopted) +
                       " page(s) that version control added or changed");
  }
  if (report.forgotten > 0) {
    Output::diagnostic("forgot " + std::to_string(report.forgotten) +
                       " page(s) that version control removed; their texts are kept in .ossilar/replaced");
  }
  tell_of_records(report.given_records);
}

// In this order: pages are taken over with the plan as it is now, and their passages get vectors with all
// others.
void bring_up_to_date(Wiki& wiki, Freshness needed) {
  if (needed == Freshness::sources) prepare_with_progress(wiki);
  if (needed != Freshness::as_stored) adopt(wiki);
  if (needed == Freshness::vectors) reembed_with_progress(wiki);
}

}  // namespace

int run_operation(const Operation& operation, const Place& place, Map arguments, Output& output) {
  const View& view = view_of(operation);  // throws for a program with a mistake, so before anything is done
  const auto wiki = workers::wiki::open_wiki(place.root(), "ossilar " + std::string(operation.command));
  arguments = complete(operation, std::move(arguments));
  if (operation.refuse != nullptr) {
    if (const auto refusal = operation.refuse(arguments)) return print_refusal(*refusal, {}, "", output);
  }
  bring_up_to_date(*wiki, view.needs);
  utils::Task task;  // never cancelled: Ctrl-C ends the process, and a save withstands a kill
  const operations::Result result = operation.call({.wiki = *wiki,
                                                    .arguments = arguments,
                                                    .task = task,
                                                    .caller = operations::Caller::shell,
                                                    .client = "shell"});
  const std::string kept =
      result.kept.empty() ? "" : "your text is kept in " + shown_path(wiki->paths().root / result.kept);
  if (result.failure) rethrow(result.failure, kept.empty() ? "" : "; " + kept);
  if (result.value.contains("error")) return print_refusal(result.value, result.notes, kept, output);
  output.document(result.value);
  view.print({.wiki = *wiki, .arguments = arguments, .value = result.value}, output);
  return kDone;
}

}  // namespace ossilar::cli
