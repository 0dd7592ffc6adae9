// Walks the words before the one that is typed, as the parser would, and remembers only what decides what may
// come next. An unknown command or option ends it with no candidates: a guess would help nobody.
#include "ossilar/cli/manuals/completion.h"

#include <algorithm>

#include "ossilar/cli/manuals/grammar.h"
#include "ossilar/utils/text.h"

namespace ossilar::cli {
namespace {

struct Line {
  const CLI::App* app = nullptr;  // the program, for its options
  const CLI::App* command = nullptr;
  const CLI::Option* pending = nullptr;  // the option whose value comes next
  std::size_t positionals = 0;           // that were given
  std::string repo;
  std::string page;
  bool is_known = true;  // no word was misspelled
};

const CLI::Option* option_named(const CLI::App* app, const std::string& name) {
  if (app == nullptr) return nullptr;
  for (const CLI::Option* option : options(*app)) {
    const auto all = names(*option);
    if (std::find(all.begin(), all.end(), name) != all.end()) return option;
  }
  return nullptr;
}

// Of the command first, as the parser does.
const CLI::Option* find_option(const Line& line, const std::string& name) {
  const CLI::Option* option = option_named(line.command, name);
  return option != nullptr ? option : option_named(line.app, name);
}

const CLI::Option* positional_at(const Line& line) {
  if (line.command == nullptr) return nullptr;
  const auto all = positionals(*line.command);
  return line.positionals < all.size() ? all[line.positionals] : nullptr;
}

void take_value(Line& line, const CLI::Option& option, const std::string& value) {
  if (value_name(option) == "PAGE") line.page = value;
  const auto all = names(option);
  if (std::find(all.begin(), all.end(), "--repo") != all.end()) line.repo = value;
}

void take_option(Line& line, const std::string& word) {
  const std::size_t equals = word.starts_with("--") ? word.find('=') : std::string::npos;
  const CLI::Option* option = find_option(line, word.substr(0, equals));
  if (option == nullptr) {
    line.is_known = false;
  } else if (takes_value(*option) && equals == std::string::npos) {
    line.pending = option;
  } else if (takes_value(*option)) {
    take_value(line, *option, word.substr(equals + 1));
  }
}

void take(Line& line, const std::string& word) {
  if (word == "=" && line.pending != nullptr) return;
  if (line.pending != nullptr) {
    take_value(line, *line.pending, word);
    line.pending = nullptr;
  } else if (word.starts_with('-') && word.size() > 1) {
    take_option(line, word);
  } else if (line.command == nullptr) {
    line.command = command_named(*line.app, word);
    line.is_known = line.command != nullptr;
  } else {
    if (const CLI::Option* positional = positional_at(line)) take_value(line, *positional, word);
    ++line.positionals;
  }
}

Completion words_of(const std::vector<std::string>& words) {
  Completion made;
  made.candidates.reserve(words.size());
  for (const std::string& word : words) made.candidates.push_back({word, ""});
  return made;
}

Completion values(const Line& line, const CLI::Option& option, const WikiWords& wiki) {
  if (const auto few = choices(option); !few.empty()) return words_of(few);
  const std::string name = value_name(option);
  if (name == "PAGE" || name == "NEW-ID") return {.candidates = wiki.pages(line.repo)};
  if (name == "HEADING" && !line.page.empty()) return {.candidates = wiki.sections(line.repo, line.page)};
  if (name == "FILE" || name == "PATH") return {.kind = Completion::Kind::files, .candidates = {}};
  if (name == "DIR") return {.kind = Completion::Kind::folders, .candidates = {}};
  return {};
}

bool is_among(const Completion& made, const std::string& word) {
  return std::any_of(made.candidates.begin(), made.candidates.end(),
                     [&](const Candidate& each) { return each.word == word; });
}

// Not those that are there already: --help is an option of the program and of each command.
void add_options(const CLI::App* app, Completion& made) {
  if (app == nullptr) return;
  for (const CLI::Option* option : options(*app)) {
    for (const std::string& name : names(*option)) {
      if (!is_among(made, name)) made.candidates.push_back({name, option->get_description()});
    }
  }
}

Completion commands_of(const CLI::App& app) {
  Completion made;
  for (const CLI::App* command : commands(app))
    made.candidates.push_back({command->get_name(), command->get_description()});
  return made;
}

// `typed` is the word as far as it goes; for --option=value it becomes the value alone.
Completion next_of(const Line& line, std::string& typed, std::string& before, const WikiWords& wiki) {
  if (line.pending != nullptr) {
    if (typed == "=") typed.clear();  // the cursor is right behind it
    return values(line, *line.pending, wiki);
  }
  if (typed.starts_with("--") && typed.find('=') != std::string::npos) {
    const std::size_t value_at = typed.find('=') + 1;
    const CLI::Option* option = find_option(line, typed.substr(0, value_at - 1));
    if (option == nullptr || !takes_value(*option)) return {};
    before = typed.substr(0, value_at);
    typed.erase(0, value_at);
    return values(line, *option, wiki);
  }
  if (typed.starts_with('-')) {
    Completion made;
    add_options(line.command, made);
    add_options(line.app, made);
    return made;
  }
  if (line.command == nullptr) return commands_of(*line.app);
  const CLI::Option* positional = positional_at(line);
  return positional == nullptr ? Completion{} : values(line, *positional, wiki);
}

}  // namespace

Completion complete(const CLI::App& app, const std::vector<std::string>& words, const WikiWords& wiki) {
  Line line;
  line.app = &app;
  std::string typed = words.empty() ? "" : words.back();
  for (std::size_t i = 0; i + 1 < words.size(); ++i) take(line, words[i]);
  if (!line.is_known) return {};
  std::string before;
  Completion made = next_of(line, typed, before, wiki);
  auto& all = made.candidates;
  all.erase(std::remove_if(all.begin(), all.end(),
                           [&](const Candidate& each) { return !each.word.starts_with(typed); }),
            all.end());
  for (Candidate& each : all) each.word.insert(0, before);
  return made;
}

std::string rendered(const Completion& completion) {
  if (completion.kind == Completion::Kind::files) return "files\n";
  if (completion.kind == Completion::Kind::folders) return "folders\n";
  std::string out = "words\n";
  for (const Candidate& each : completion.candidates) {
    out += utils::printable_line(each.word);
    if (!each.says.empty()) out += "\t" + utils::printable_line(each.says);
    out += '\n';
  }
  return out;
}

}  // namespace ossilar::cli
