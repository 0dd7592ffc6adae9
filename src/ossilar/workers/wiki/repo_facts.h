#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace ossilar::workers::wiki {

// The SHA-256 of the text, in hexadecimal.
std::string _text_hash(std::string_view text);

// The current time in UTC as ISO 8601, such as "2026-01-02T03:04:05Z".
std::string _now_iso();

// Replaces the page file by `text`, whole or not at all, on disk when this returns. The file that was there
// stays beside it for the host to look at: see utils::atomic_exchange() and former_file.h.
void _atomic_write(const std::filesystem::path& path, std::string_view text);

}  // namespace ossilar::workers::wiki
