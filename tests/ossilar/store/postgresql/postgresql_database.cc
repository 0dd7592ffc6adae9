#include "postgresql_database.h"

namespace ossilar::store {

std::unique_ptr<TestedDatabase> make_database() { return std::make_unique<PostgresqlDatabase>(); }

}  // namespace ossilar::store
