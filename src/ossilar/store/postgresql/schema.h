// The tables of a wiki in a PostgreSQL database, made and brought forward. Internal to this room.
#pragma once

#include "ossilar/store/postgresql/connection.h"

namespace ossilar::store::postgresql {

// Makes the tables where they are missing and migrates an older schema. Safe when many machines do so at
// once: they take turns, and those that come later find it done. Throws utils::Error, with nothing changed,
// for a schema that is newer than this program knows or that is not ours, ServerError, ConnectionLost.
//
// One database holds one wiki: all of it lies in the schema `ossilar`.
void prepare_schema(Connection& connection);

}  // namespace ossilar::store::postgresql
