#include "zorvd_tables.h"

namespace store {

void open_tables() {
  const Operation start(kStartPatience);
  for (const zorv::TableSchema* schema : zorv::kTables) {
    if (schema->opened) {
      create(table_of(*schema));
    }
  }
}

void close_tables() {
  for (const zorv::TableSchema* schema : zorv::kTables) {
    if (schema->finished) {
      finish(table_of(*schema));
    }
  }
}

}  // namespace store
