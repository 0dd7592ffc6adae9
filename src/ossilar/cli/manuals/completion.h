// What may be typed next on a command line. The scripts of the shells (shell_scripts.cc) ask for it at every
// press of the key, by the hidden command `ossilar complete`, so what is offered is what this program knows.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

namespace ossilar::cli {

struct Candidate {
  std::string word;
  std::string says;  // a few words about it, "" for none
};

struct Completion {
  // Names of files and folders are the shell's own to complete.
  enum class Kind { words, files, folders };
  Kind kind = Kind::words;
  std::vector<Candidate> candidates;  // those that begin as the word does; none for files and folders
};

// What only the wiki knows. `repo` is the value of --repo on the line, "" without one.
struct WikiWords {
  std::function<std::vector<Candidate>(const std::string& repo)> pages;
  std::function<std::vector<Candidate>(const std::string& repo, const std::string& page_id)> sections;
};

// Completes the last of `words`, which are those of the command line after the program's name. A lone "=" is
// a shell's way to hand over --option=value.
//
// Thread-safety: any thread. Throws what `wiki` throws.
Completion complete(const CLI::App& app, const std::vector<std::string>& words, const WikiWords& wiki);

// As the scripts read it: the kind on the first line, then a candidate a line, a tab before what is said.
std::string rendered(const Completion& completion);

}  // namespace ossilar::cli
