#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "ossilar/cli/commands.h"
#include "ossilar/utils/error.h"
#include "ossilar/utils/files.h"
#include "ossilar/workers/wiki/host/saving.h"

namespace ossilar::cli {
namespace {

using workers::wiki::Answer;
using workers::wiki::SaveOutcome;
using workers::wiki::SaveRequest;
using workers::wiki::Wiki;

// Beyond the limit of a page, so that the answer can say how long the content is; what is longer still is not
// read.
constexpr std::size_t kReadLimit = 4 * workers::wiki::kLargestContent;

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
  if (!content) throw utils::ConfigError(name + " is longer than a page can be (1 MiB)");
  return *std::move(content);
}

// Relative to the current directory, where that is shorter to read.
std::string shown_path(const std::filesystem::path& file) {
  return std::filesystem::proximate(file).string();
}

void print_saved(const Answer& answer, const std::filesystem::path& wiki_dir, bool dry_run, Output& output) {
  const std::string page = utils::string_member(answer, "page_id");
  const std::string file = shown_path(wiki_dir / utils::string_member(answer, "rel_path"));
  output.line(output.styled(Style::good, dry_run ? "would save" : "saved") + "  " +
              output.styled(Style::bold, page) + "  " + file);
  output.line("       " + utils::text_form(answer.at("citations")) + " citation(s), " +
              utils::text_form(answer.at("words")) + " words");
  for (const Map& warning : answer.at("warnings")) {
    output.line(output.styled(Style::warn, "warning") + "  " + utils::text_form(warning));
  }
}

SaveOutcome preview(Wiki& wiki, const SaveRequest& request) {
  SaveOutcome outcome;
  outcome.answer = workers::wiki::preview_page(wiki, request);
  return outcome;
}

std::string kept_text(const Wiki& wiki, const SaveOutcome& outcome) {
  return "your text is kept in " + shown_path(wiki.paths().drafts() / outcome.kept);
}

// The failure with `more` said in its line.
[[noreturn]] void rethrow(const std::exception_ptr& failure, const std::string& more) {
  try {
    std::rethrow_exception(failure);
  } catch (const utils::ConfigError& error) {
    throw utils::ConfigError(error.what() + more);
  } catch (const std::exception& error) {
    throw utils::Error(error.what() + more);
  }
}

}  // namespace

int run_save(const Place& place, const SaveArguments& arguments, Output& output) {
  const auto wiki = open_at(place, "save");
  const SaveRequest request{arguments.page_id, read_content(arguments.file), arguments.section,
                            arguments.title};
  if (const auto refusal = workers::wiki::refuse_request(request)) return print_refusal(*refusal, output);
  bring_up_to_date(*wiki);
  utils::Task task;
  const SaveOutcome outcome =
      arguments.dry_run ? preview(*wiki, request) : workers::wiki::save_page(*wiki, request, task);
  if (outcome.failure) rethrow(outcome.failure, outcome.kept.empty() ? "" : "; " + kept_text(*wiki, outcome));
  const Answer& answer = outcome.answer;
  if (answer.contains("error")) {
    print_refusal(answer, output);
    if (!outcome.kept.empty()) output.line(kept_text(*wiki, outcome));
    return kRefused;
  }
  output.document(answer);
  print_saved(answer, wiki->paths().wiki, arguments.dry_run, output);
  return kDone;
}

}  // namespace ossilar::cli
