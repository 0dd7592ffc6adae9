// Pages, their sections and kept drafts as resources; their URIs are in protocol/uri.h. session.cc calls
// these.
//
// Threads: those of the session's pool; nothing is kept between calls. A failure leaves nothing, as these
// only read.
#pragma once

#include <string>

#include "ossilar/mcp/protocol/revision.h"
#include "ossilar/utils/json.h"
#include "ossilar/workers/wiki/check/wiki_provider.h"

namespace ossilar::mcp {

// The results of `resources/list`, `resources/templates/list` and `resources/read`. They throw ProtocolError
// for params that do not fit, for an unknown cursor and for a resource that does not exist. Stored pages are
// listed, a hundred at a time; sections and drafts are not, but can be read.
Map list_resources(workers::wiki::WikiProvider& provider, Revision revision, const Map& params);
Map list_resource_templates(workers::wiki::WikiProvider& provider, Revision revision, const Map& params);
Map read_resource(workers::wiki::WikiProvider& provider, Revision revision, const Map& params);

// Throws ProtocolError unless `uri` is the address of a page of the plan or of a stored one.
void require_page_uri(workers::wiki::WikiProvider& provider, Revision revision, const std::string& uri);

}  // namespace ossilar::mcp
