// How the shell shows what an operation gives.
#pragma once

#include <filesystem>
#include <string>

#include "ossilar/cli/output.h"
#include "ossilar/operations/operation.h"
#include "ossilar/workers/wiki/host/wiki.h"

namespace ossilar::cli {

// What is brought up to date before the operation is asked, each with what stands before it: a stored page
// needs nothing, a search the pages that version control brought and vectors for them, everything about the
// plan the sources.
enum class Freshness { as_stored, vectors, sources };

struct Given {
  const workers::wiki::Wiki& wiki;
  const Map& arguments;
  const Map& value;  // the operation's document
};

struct View {
  std::string_view command;
  Freshness needs = Freshness::sources;
  void (*print)(const Given& given, Output& output) = nullptr;
};

// The view of an operation; every one has its own.
const View& view_of(const operations::Operation& operation);

// Relative to the current directory, where that is shorter to read.
std::string shown_path(const std::filesystem::path& file);

}  // namespace ossilar::cli
