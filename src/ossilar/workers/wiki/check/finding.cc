// No `default`, so that the compiler warns of a fault without a name. The last return is never reached;
// without it the compiler would warn of a function that ends without a value.
#include "ossilar/workers/wiki/check/finding.h"

namespace ossilar::workers::wiki {

const char* fault_name(Fault fault) {
  switch (fault) {
    case Fault::database:
      return "database";
    case Fault::setup:
      return "setup";
    case Fault::newer_page:
      return "newer-page";
    case Fault::edited_page:
      return "edited-page";
    case Fault::file_without_row:
      return "file-without-row";
    case Fault::row_without_file:
      return "row-without-file";
    case Fault::page_file:
      return "page-file";
    case Fault::chunks:
      return "chunks";
    case Fault::digest:
      return "digest";
    case Fault::index:
      return "index";
    case Fault::manifest:
      return "manifest";
    case Fault::leftover:
      return "leftover";
    case Fault::citations:
      return "citations";
    case Fault::stale:
      return "stale";
    case Fault::unverified:
      return "unverified";
  }
  return "";
}

}  // namespace ossilar::workers::wiki
