// Which commit a name means. change.cc asks for what a user typed.
//
// Thread-safety: as GitObjects, one thread at a time. Nothing is written, so a failure leaves nothing behind.
#pragma once

#include <string>

#include "ossilar/source/git/git_objects.h"

namespace ossilar::source {

// The id of the commit that `revision` names: a branch, a tag, HEAD, or the beginning of an id, with any
// number of ~N and ^N behind it. Throws utils::ConfigError, which says what is wrong, for any other text, and
// utils::Error for an object that cannot be read.
std::string commit_named(const GitObjects& objects, const std::string& revision);

}  // namespace ossilar::source
