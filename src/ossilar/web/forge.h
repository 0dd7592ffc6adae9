// Where a forge shows a file of a repository, by the address that the repository was cloned from.
//
// Thread-safety: pure, any thread.
#pragma once

#include <string>
#include <string_view>

namespace ossilar::web {

// What comes before a path: "https://host/owner/name/blob/COMMIT/". "" for an address that names no host,
// such as a folder, and without a commit. Names and passwords in the address are left out.
std::string forge_address(std::string_view origin, std::string_view commit);

}  // namespace ossilar::web
