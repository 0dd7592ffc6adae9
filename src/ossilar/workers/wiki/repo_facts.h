// Three facts and acts at the edge of a save: a hash, the time, and the write of the page file.
//
// The save pipeline calls all three (agent_save.cc); the hash also tells host, check and lists whether a file
// is the one that a row is about. They are free functions so that the pipeline's tests can link stand-ins for
// them: a fixed time, and a write that is recorded.
//
// Threads: to be called from any thread. Failures: utils::IoError from _atomic_write(), and utils::Error from
// _text_hash() if the crypto library fails.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace ossilar::workers::wiki {

// The SHA-256 of the text: 64 lower-case hexadecimal digits.
std::string _text_hash(std::string_view text);

// The current time in UTC as ISO 8601, such as "2026-01-02T03:04:05Z".
std::string _now_iso();

// Replaces the page file `path` (absolute) by `text`: whole or not at all, and on disk when this returns. The
// file that was there stays beside it for the host to look at (utils::atomic_exchange(),
// pages/former_file.h). Throws utils::IoError, with nothing changed for what atomic_exchange() refuses.
void _atomic_write(const std::filesystem::path& path, std::string_view text);

}  // namespace ossilar::workers::wiki
