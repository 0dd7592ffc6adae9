// libgit2 is linked anyway and compares two buffers without a repository, so no diff algorithm is kept here.
// The header of its patch names two files and their blobs, none of which exists; it is cut off, and the names
// of the texts go in its place.
#include "ossilar/source/git/text_diff.h"

#include <git2.h>

#include <memory>

#include "ossilar/source/git/git.h"

namespace ossilar::source {
namespace {

struct PatchFree {
  void operator()(git_patch* patch) const { git_patch_free(patch); }
};

// The hunks of a patch. A patch without a hunk, of texts that do not differ for libgit2, gives "".
std::string without_header(std::string_view patch) {
  const std::size_t hunk = patch.find("\n@@ ");
  return hunk == patch.npos ? std::string() : std::string(patch.substr(hunk + 1));
}

}  // namespace

std::string unified_diff(const NamedText& before, const NamedText& after) {
  if (before.text == after.text) return "";
  use_libgit2();
  git_diff_options options{};
  git_diff_options_init(&options, GIT_DIFF_OPTIONS_VERSION);
  options.flags = GIT_DIFF_FORCE_TEXT;  // a text with a NUL byte would be called binary, without any hunk
  git_patch* made = nullptr;
  // The file name "text" only appears in the header that is cut off.
  if (git_patch_from_buffers(&made, before.text.data(), before.text.size(), "text", after.text.data(),
                             after.text.size(), "text", &options) != 0) {
    throw git_error("cannot make a diff of two texts");
  }
  const std::unique_ptr<git_patch, PatchFree> patch(made);
  git_buf buffer = GIT_BUF_INIT_CONST(nullptr, 0);
  if (git_patch_to_buf(&buffer, patch.get()) != 0) throw git_error("cannot make a diff of two texts");
  const std::string hunks = without_header({buffer.ptr, buffer.size});
  git_buf_dispose(&buffer);
  return "--- " + before.name + "\n+++ " + after.name + "\n" + hunks;
}

}  // namespace ossilar::source
