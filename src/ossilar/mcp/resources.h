// Pages as resources.
#pragma once

#include <string>

#include "ossilar/mcp/protocol/revision.h"
#include "ossilar/utils/json.h"
#include "ossilar/workers/wiki/check/wiki_provider.h"

namespace ossilar::mcp {

// The results of the methods of these names. They throw ProtocolError for params that do not fit, a cursor
// that is none, and a resource that does not exist.
Map list_resources(workers::wiki::WikiProvider& provider, Revision revision, const Map& params);
Map list_resource_templates(workers::wiki::WikiProvider& provider, Revision revision, const Map& params);
Map read_resource(workers::wiki::WikiProvider& provider, Revision revision, const Map& params);

// Throws ProtocolError unless `uri` is the address of a page of the plan or of a stored one.
void require_page_uri(workers::wiki::WikiProvider& provider, Revision revision, const std::string& uri);

}  // namespace ossilar::mcp
