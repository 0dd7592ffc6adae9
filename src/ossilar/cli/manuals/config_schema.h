// The JSON Schema of `ossilar.toml`, with which editors complete and check the file, and from which its
// manual page is made.
#pragma once

#include "ossilar/utils/json.h"

namespace ossilar::cli {

// JSON Schema, draft 7, which is what editors of TOML know. It names the keys that parse_config()
// (workers/wiki/config.h) knows, each with a description, and refuses nothing that parse_config() takes.
// parse_config() refuses more: what no schema can say, such as an id that is there twice.
//
// Thread-safety: any thread. Does not fail.
Map config_schema();

}  // namespace ossilar::cli
