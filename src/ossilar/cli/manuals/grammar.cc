// The parser keeps the choices of an option in the description of its check, "{a,b}". That they are read from
// there has one reason: what is offered is what is accepted, also for an option that somebody adds later.
#include "ossilar/cli/manuals/grammar.h"

#include <algorithm>

#include "ossilar/utils/text.h"

namespace ossilar::cli {
namespace {

std::string type_and_checks(const CLI::Option& option) { return option.get_type_name(); }

}  // namespace

std::vector<const CLI::App*> commands(const CLI::App& app) {
  return app.get_subcommands([](const CLI::App* command) { return !command->get_group().empty(); });
}

const CLI::App* command_named(const CLI::App& app, std::string_view name) {
  for (const CLI::App* command : commands(app))
    if (command->get_name() == name) return command;
  return nullptr;
}

std::vector<const CLI::Option*> options(const CLI::App& app) {
  return app.get_options([](const CLI::Option* option) {
    return !option->get_group().empty() && (!option->get_lnames().empty() || !option->get_snames().empty());
  });
}

std::vector<const CLI::Option*> positionals(const CLI::App& app) {
  return app.get_options([](const CLI::Option* option) { return option->get_positional(); });
}

std::vector<std::string> names(const CLI::Option& option) {
  std::vector<std::string> all;
  all.reserve(option.get_snames().size() + option.get_lnames().size());
  for (const std::string& name : option.get_snames()) all.push_back("-" + name);
  for (const std::string& name : option.get_lnames()) all.push_back("--" + name);
  return all;
}

bool takes_value(const CLI::Option& option) { return option.get_items_expected_max() > 0; }

std::string value_name(const CLI::Option& option) {
  if (!takes_value(option)) return "";
  if (option.get_positional()) return option.get_name(true);
  const std::string all = type_and_checks(option);
  return all.substr(0, all.find(':'));
}

std::vector<std::string> choices(const CLI::Option& option) {
  const std::string all = type_and_checks(option);
  const std::size_t begin = all.find(":{");
  if (begin == std::string::npos || all.back() != '}') return {};
  std::string list = all.substr(begin + 2, all.size() - begin - 3);
  std::vector<std::string> words;
  for (std::size_t start = 0; start <= list.size();) {
    const std::size_t stop = std::min(list.find(',', start), list.size());
    words.push_back(list.substr(start, stop - start));
    start = stop + 1;
  }
  return words;
}

Footer footer(const CLI::App& app) {
  constexpr std::string_view kHead = "Example:\n";
  const std::string whole = app.get_footer();
  std::string_view text(whole);
  Footer made;
  if (text.starts_with(kHead)) {
    text.remove_prefix(kHead.size());
    const std::size_t end = std::min(text.find("\n\n"), text.size());
    for (const std::string_view line : utils::split_lines(text.substr(0, end))) {
      if (!made.example.empty()) made.example += '\n';
      made.example += utils::strip(line);
    }
    text.remove_prefix(end);
  }
  while (!text.empty()) {
    while (text.starts_with('\n')) text.remove_prefix(1);
    const std::size_t end = std::min(text.find("\n\n"), text.size());
    if (end > 0) made.more.emplace_back(text.substr(0, end));
    text.remove_prefix(end);
  }
  return made;
}

}  // namespace ossilar::cli
