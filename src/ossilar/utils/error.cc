// The text comes from the error category and not from strerror(), which need not be thread-safe: a server
// fails on several threads at once.

#include "ossilar/utils/error.h"

#include <system_error>

namespace ossilar::utils {

IoError::IoError(const std::string& what, int error, Place place)
    : Error(what + ": " + std::generic_category().message(error), place), error_(error) {}

}  // namespace ossilar::utils
