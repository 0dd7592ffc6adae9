// The keys are those of parse_config(), in its order; a test asks it for the names it knows and compares.
// Lengths are left out: a schema counts characters, the program bytes.
#include "ossilar/cli/manuals/config_schema.h"

namespace ossilar::cli {
namespace {

// is_page_id() as an expression: parts of these characters, none of them "." or "..".
constexpr const char* kPageId = "^(?!(.*/)?\\.{1,2}(/|$))[a-z0-9._-]+(/[a-z0-9._-]+)*$";

Map text(const char* description) { return {{"type", "string"}, {"description", description}}; }

Map matching(const char* pattern, const char* description) {
  Map schema = text(description);
  schema["pattern"] = pattern;
  return schema;
}

Map choice(const Map& words, const char* description) {
  Map schema = text(description);
  schema["enum"] = words;
  return schema;
}

Map flag(bool otherwise, const char* description) {
  return {{"type", "boolean"}, {"default", otherwise}, {"description", description}};
}

Map list(const Map& item, const char* description) {
  return {{"type", "array"}, {"items", item}, {"description", description}};
}

Map table(const char* description, const Map& keys) {
  return {{"type", "object"},
          {"description", description},
          {"properties", keys},
          {"additionalProperties", false}};
}

Map wiki_table() {
  Map dir = matching("^(?!/)(?!\\.ossilar(/|$))(?!(.*/)?(\\.{1,2}|\\.git)(/|$))[^\\\\]+$",
                     "The wiki's folder, relative to the root of the repository");
  dir["default"] = "wiki";
  return table(
      "The wiki",
      {{"dir", dir},
       {"follow",
        flag(false,
             "Whether an agent's session follows moved citations of each page that it reads or saves")},
       {"diagrams", flag(true, "Whether pages get diagrams")},
       {"min_citations_per_page",
        {{"type", "integer"},
         {"minimum", 0},
         {"default", 2},
         {"description", "How many valid citations a page needs; one with fewer is refused"}}},
       {"lock_timeout_s",
        {{"type", "number"},
         {"exclusiveMinimum", 0},
         {"maximum", 3600},
         {"default", 30},
         {"description", "How many seconds a save waits for the write lock"}}}});
}

Map embedding_table() {
  Map provider =
      choice({"local", "http"},
             "Where vectors of passages come from: local knows general software English, http is any "
             "service with the usual /v1/embeddings request");
  provider["default"] = "local";
  Map schema =
      table("How search finds passages by meaning",
            {{"provider", provider},
             {"url", matching("^https?://", "The address of the service, up to and with /v1")},
             {"model", text("The name of the model")},
             {"api_key_env", matching("^[A-Za-z_][A-Za-z0-9_]*$",
                                      "The environment variable that holds the key, if one is needed")}});
  schema["if"] = {{"properties", {{"provider", {{"const", "http"}}}}}, {"required", {"provider"}}};
  schema["then"] = {{"required", {"url", "model"}}, {"properties", {{"model", {{"minLength", 1}}}}}};
  return schema;
}

Map history_table() {
  return table(
      "What is kept of former versions of pages",
      {{"versions",
        {{"type", "integer"},
         {"minimum", 1},
         {"maximum", 1000},
         {"default", 20},
         {"description", "How many versions of each page are kept; the newest is the page itself"}}}});
}

// config.cc refuses a password in the same places.
Map store_table() {
  return table(
      "Where a team keeps one wiki for several machines",
      {{"url", matching("^postgresql://(?![^/]*:[^/]*@)(?!.*password=)",
                        "The address of a PostgreSQL database, without a password: that belongs into "
                        "~/.pgpass or PGPASSWORD")}});
}

Map steering() {
  const char* description =
      "What every page's author is told: who reads it, what matters, which words to use";
  return {{"description", description},
          {"oneOf", {{{"type", "string"}}, table(description, {{"text", text(description)}})}}};
}

Map page_table() {
  Map page = table(
      "Adds a page, or amends the planned one of this id",
      {{"id",
        matching(kPageId,
                 "The page's id: lower-case letters, digits, '-', '_' and '.', with '/' between parts")},
       {"title", matching("\\S", "The title")},
       {"description", text("What the page is about, in a sentence")},
       {"type", choice({"overview", "architecture", "module", "topic"}, "What kind of page it is")},
       {"importance",
        choice({"high", "medium", "low"}, "How much it matters, which is its place among its siblings")},
       {"parent", text("The id of the page that it stands below; empty for none")},
       {"sources", list({{"type", "string"}, {"minLength", 1}},
                        "Patterns of the source files that it is about, such as src/**/error*")},
       {"related", list({{"type", "string"}, {"pattern", kPageId}}, "Ids of pages that it refers to")},
       {"steering", text("What the author of this page is told")}});
  page["required"] = {"id"};
  return page;
}

}  // namespace

Map config_schema() {
  Map schema = table(
      "What is set is to be committed. A missing file, and a missing key, mean the defaults; an unknown "
      "key is an error.",
      {{"wiki", wiki_table()},
       {"embedding", embedding_table()},
       {"history", history_table()},
       {"store", store_table()},
       {"steering", steering()},
       {"page", list(page_table(), "Pages that are added to the plan or amended in it")}});
  Map whole{{"$schema", "http://json-schema.org/draft-07/schema#"}, {"title", "ossilar.toml"}};
  whole.update(schema);
  return whole;
}

}  // namespace ossilar::cli
