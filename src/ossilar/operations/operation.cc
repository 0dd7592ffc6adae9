// The list of operations, and whether arguments fit them. The schemas are the only description of an
// argument, so what a client is told, what the shell's help says and what is checked cannot differ.
//
// misfit() knows only the keywords that these schemas use. A general validator would know more than that, and
// would say what is wrong in the terms of the schema; these messages are for an agent that is to correct its
// call.
#include "ossilar/operations/operation.h"

#include <algorithm>

#include "ossilar/operations/schemas.h"
#include "ossilar/utils/text.h"

namespace ossilar::operations {

// Each in a file of its own name.
Operation affected();
Operation check_page();
Operation check_wiki();
Operation claim_page();
Operation cites();
Operation compare_versions();
Operation confirm_page();
Operation find_symbol();
Operation list_pages();
Operation page_context();
Operation page_history();
Operation read_page();
Operation read_source();
Operation remove_page();
Operation rename_page();
Operation restore_page();
Operation save_page();
Operation search_wiki();
Operation sync();
Operation wiki_status();

namespace {

bool has_type(const Map& value, const std::string& type) {
  if (type == "string") return value.is_string();
  if (type == "integer") return value.is_number_integer();
  return value.is_boolean();  // no schema of an argument has another type
}

bool within(const Map& schema, const Map& number) {
  return (!schema.contains("minimum") || number >= schema.at("minimum")) &&
         (!schema.contains("maximum") || number <= schema.at("maximum"));
}

// The type comes first: what follows relies on it. `minLength` is only ever 1 (schema::needed_text()).
bool fits_one(const Map& schema, const Map& value) {
  if (!has_type(value, utils::string_member(schema, "type"))) return false;
  if (value.is_number() && !within(schema, value)) return false;
  if (schema.contains("minLength") && value.get_ref<const std::string&>().empty()) return false;
  const Map& allowed = utils::member(schema, "enum");
  return allowed.is_null() || std::find(allowed.begin(), allowed.end(), value) != allowed.end();
}

// Lists hold values that are no lists.
bool fits(const Map& schema, const Map& value) {
  if (!schema.contains("items")) return fits_one(schema, value);
  return value.is_array() && std::all_of(value.begin(), value.end(),
                                         [&](const Map& item) { return fits_one(schema.at("items"), item); });
}

std::string names_of(const Map& values) {
  std::vector<std::string> names;
  for (const Map& value : values) names.push_back(utils::text_form(value));
  return utils::join(names, ", ");
}

// What `schema` asks of a value: "a string", "an integer from 1 to 200", "one of missing, stale, ok".
std::string wanted_one(const Map& schema) {
  if (schema.contains("enum")) return "one of " + names_of(schema.at("enum"));
  const std::string type = utils::string_member(schema, "type");
  if (type == "string") return schema.contains("minLength") ? "a string that is not empty" : "a string";
  if (type == "boolean") return "true or false";
  std::string text = "an integer";
  if (schema.contains("minimum")) text += " from " + utils::text_form(schema.at("minimum"));
  if (schema.contains("maximum")) text += " to " + utils::text_form(schema.at("maximum"));
  return text;
}

std::string wanted(const Map& schema) {
  return schema.contains("items") ? "a list, each item " + wanted_one(schema.at("items"))
                                  : wanted_one(schema);
}

bool is_open_to(const Argument& argument, Caller caller) {
  return caller == Caller::session ? argument.in_session : !argument.option.empty();
}

std::string shown_name(const Argument& argument, Caller caller) {
  return caller == Caller::shell ? std::string(argument.option)
                                 : "the argument '" + std::string(argument.name) + "'";
}

// Names a session's arguments, since only a session gets here: the shell's parser refuses unknown options
// itself.
std::string no_such_argument(const Operation& operation, const std::string& name) {
  std::vector<std::string> names;
  for (const Argument& argument : operation.arguments)
    if (argument.in_session) names.emplace_back(argument.name);
  return "unknown argument '" + name + "'; " +
         (names.empty() ? "this tool takes none" : "the arguments are " + utils::join(names, ", "));
}

}  // namespace

const std::vector<Operation>& operations() {
  static const std::vector<Operation> all{list_pages(),   page_context(), read_page(),    save_page(),
                                          check_page(),   confirm_page(), page_history(), compare_versions(),
                                          restore_page(), sync(),         affected(),     cites(),
                                          rename_page(),  remove_page(),  wiki_status(),  search_wiki(),
                                          read_source(),  find_symbol(),  check_wiki(),   claim_page()};
  return all;
}

std::optional<std::string> optional_text(const Map& arguments, const char* name) {
  return arguments.contains(name) ? std::optional(utils::string_member(arguments, name)) : std::nullopt;
}

Argument page_argument() {
  return {.name = "page_id",
          .option = "PAGE",
          .value = {},
          .schema = schema::needed_text("the id of a page, as the plan lists it"),
          .required = true};
}

Argument structured_argument() {
  return {.name = kStructured,
          .option = {},
          .value = {},
          .schema = schema::flag("give the result as structured content too; without it, once, as text")};
}

Map input_schema(const Operation& operation) {
  Map properties = Map::object();
  Map required = Map::array();
  for (const Argument& argument : operation.arguments) {
    if (!argument.in_session) continue;
    properties[std::string(argument.name)] = argument.schema;
    if (argument.required) required.push_back(argument.name);
  }
  return schema::arguments(properties, required);
}

// Unknown arguments before missing ones: a required argument that is misspelled is both, and the spelling is
// what to correct.
std::optional<std::string> misfit(const Operation& operation, const Map& arguments, Caller caller) {
  for (const auto& [key, value] : arguments.items()) {
    const std::string& name = key;  // Clang 14 captures no structured binding in a lambda
    const auto argument =
        std::find_if(operation.arguments.begin(), operation.arguments.end(),
                     [&](const Argument& each) { return each.name == name && is_open_to(each, caller); });
    if (argument == operation.arguments.end()) return no_such_argument(operation, name);
    if (!fits(argument->schema, value))
      return shown_name(*argument, caller) + " must be " + wanted(argument->schema);
  }
  for (const Argument& argument : operation.arguments) {
    if (argument.required && !arguments.contains(std::string(argument.name)))
      return shown_name(argument, caller) + " is missing";
  }
  return std::nullopt;
}

}  // namespace ossilar::operations
