// Text is written with each macro on a line of its own. What comes from descriptions is escaped: a backslash
// is an escape of roff's, a dot or an apostrophe at the start of a line a request, and a hyphen would become
// a typographic one, which nobody can paste into a shell.
#include "ossilar/cli/manuals/man_page.h"

#include <cctype>
#include <string_view>
#include <vector>

#include "ossilar/cli/manuals/grammar.h"
#include "ossilar/utils/text.h"

namespace ossilar::cli {
namespace {

std::string escaped(std::string_view text) {
  std::string out;
  bool at_start = true;
  for (const char c : text) {
    if (at_start && (c == '.' || c == '\'')) out += "\\&";
    if (c == '\\') {
      out += "\\e";
    } else if (c == '-') {
      out += "\\-";
    } else {
      out += c;
    }
    at_start = c == '\n';
  }
  return out;
}

// An argument of a macro: quoted, as it may have blanks.
std::string macro_argument(std::string_view text) {
  std::string out = "\"";
  for (const char c : escaped(text)) out += c == '"' ? "\\(dq" : std::string(1, c);
  return out + "\"";
}

std::string upper(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

std::string head(const std::string& name, const char* section, std::string_view does) {
  // Without a date: the page is the same for every build of a version.
  return ".TH " + macro_argument(upper(name)) + " " + section +
         " \"\" \"ossilar " OSSILAR_VERSION "\" \"\"\n" + ".SH NAME\n" + escaped(name) + " \\- " +
         escaped(does) + "\n";
}

std::string bold(std::string_view text) { return "\\fB" + escaped(text) + "\\fR"; }
std::string italic(std::string_view text) { return "\\fI" + escaped(text) + "\\fR"; }

std::string paragraph(std::string_view text) { return ".PP\n" + escaped(text) + "\n"; }

std::string tagged(const std::string& tag, std::string_view text) {
  return ".TP\n" + tag + "\n" + escaped(text) + "\n";
}

std::string tag_of(const CLI::Option& option) {
  std::string tag;
  for (const std::string& name : names(option)) tag += (tag.empty() ? "" : ", ") + bold(name);
  if (const std::string value = value_name(option); !value.empty()) tag += " " + italic(value);
  return tag;
}

std::string listed(const std::vector<const CLI::Option*>& all) {
  std::string out;
  for (const CLI::Option* option : all) {
    out += tagged(option->get_positional() ? italic(value_name(*option)) : tag_of(*option),
                  option->get_description());
  }
  return out;
}

std::string synopsis(const CLI::App& command) {
  std::string out = ".SH SYNOPSIS\n" + bold("ossilar " + command.get_name()) + " [" + italic("OPTIONS") + "]";
  for (const CLI::Option* positional : positionals(command)) {
    const std::string name = italic(value_name(*positional));
    out += positional->get_required() ? " " + name : " [" + name + "]";
  }
  return out + "\n";
}

std::string example(const std::string& lines) {
  if (lines.empty()) return "";
  return ".SH EXAMPLES\n.nf\n" + escaped(lines) + "\n.fi\n";
}

// What an author of ossilar.toml is told of one value.
std::string setting(const std::string& name, const Map& schema) {
  std::string text = utils::string_member(schema, "description");
  if (schema.contains("enum"))
    text += ": " + utils::join(schema.at("enum").get<std::vector<std::string>>(), ", ");
  text += ".";
  if (schema.contains("default")) text += " Default: " + utils::text_form(schema.at("default")) + ".";
  return tagged(bold(name), text);
}

std::string settings(const Map& schema) {
  std::string out;
  for (const auto& [name, value] : schema.at("properties").items()) out += setting(name, value);
  return out;
}

// A table of the file: an object, one of a list of them, or the object among several forms of a value.
const Map* table_in(const Map& schema) {
  if (schema.contains("properties")) return &schema;
  if (schema.contains("items")) return table_in(schema.at("items"));
  for (const Map& form : utils::member(schema, "oneOf"))
    if (form.contains("properties")) return &form;
  return nullptr;
}

}  // namespace

std::string man_page(const CLI::App& app) {
  std::string out = head("ossilar", "1", "a wiki about a code repository that agents write");
  out += ".SH SYNOPSIS\n" + bold("ossilar") + " [" + italic("OPTIONS") + "] " + italic("COMMAND") + "\n";
  out += ".SH DESCRIPTION\n" + escaped(app.get_description()) + "\n";
  out += paragraph("Begin with ossilar init in a repository. Every command has a page: man ossilar-COMMAND.");
  out += ".SH COMMANDS\n";
  for (const CLI::App* command : commands(app))
    out += tagged(bold(command->get_name()), command->get_description());
  out += ".SH OPTIONS\n" + listed(options(app));
  out += paragraph("They may also follow the command.");
  out += ".SH EXIT STATUS\n" + tagged(bold("0"), "Done.") +
         tagged(bold("1"), "The answer is a refusal, or something was found.") +
         tagged(bold("2"), "Wrong usage or configuration.") +
         tagged(bold("3"), "A failure: of a disk, a database, a broken repository.");
  out += ".SH ENVIRONMENT\n" + tagged(bold("NO_COLOR"), "Not empty: no colours, unless --color says so.") +
         tagged(bold("SPDLOG_LEVEL"), "What is logged to standard error: info shows more of what happens.");
  out += ".SH FILES\n" + tagged(italic("ossilar.toml"), "The settings; to be committed.") +
         tagged(italic("wiki/"), "The wiki; to be committed.") +
         tagged(italic(".ossilar/"), "State of this machine; never committed.");
  out += ".SH SEE ALSO\n" + bold("ossilar.toml") + "(5)";
  for (const CLI::App* command : commands(app)) out += ",\n" + bold("ossilar-" + command->get_name()) + "(1)";
  return out + "\n";
}

std::string man_page(const CLI::App& app, const CLI::App& command) {
  const Footer below = footer(command);
  std::string out = head("ossilar-" + command.get_name(), "1", command.get_description());
  out += synopsis(command);
  out += ".SH DESCRIPTION\n" + escaped(command.get_description()) + ".\n";
  for (const std::string& text : below.more) out += paragraph(text);
  if (const auto all = positionals(command); !all.empty()) out += ".SH ARGUMENTS\n" + listed(all);
  out += ".SH OPTIONS\n" + listed(options(command));
  out += paragraph("The options of the program may be given too:");
  for (const CLI::Option* option : options(app))
    if (option != app.get_help_ptr()) out += tagged(tag_of(*option), option->get_description());
  return out + example(below.example) + ".SH SEE ALSO\n" + bold("ossilar") + "(1)\n";
}

std::string config_man_page(const Map& schema) {
  std::string out = head("ossilar.toml", "5", "the settings of ossilar for a repository");
  out += ".SH DESCRIPTION\n" + escaped(utils::string_member(schema, "description")) + "\n";
  for (const auto& [name, value] : schema.at("properties").items()) {
    const Map* table = table_in(value);
    const bool is_list = value.contains("items");
    out += ".SH " + macro_argument((is_list ? "[[" : "[") + name + (is_list ? "]]" : "]")) + "\n";
    out += escaped(utils::string_member(value, "description")) + ".\n";
    if (table != nullptr) out += settings(*table);
  }
  return out + ".SH SEE ALSO\n" + bold("ossilar") + "(1)\n";
}

}  // namespace ossilar::cli
