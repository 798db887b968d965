// What follows from a table's declaration for whoever changes it.
#pragma once

#include "zorv_schema.h"

namespace zorvctl {

// A delete adds to the table's statement, and the statement of a temporary one then fails and may
// lose the whole table.
inline bool deletes_once(const zorv::TableSchema& table) {
  return table.delete_text == zorv::DeleteText::accumulates &&
         table.storage == zorv::Storage::temporary;
}

// A delete or a clean decides what the next one does.
inline bool deletes_are_linked(const zorv::TableSchema& table) {
  return table.delete_text == zorv::DeleteText::accumulates && !deletes_once(table);
}

// The daemon takes the records and has no rows of them.
inline bool keeps_nothing(const zorv::TableSchema& table) {
  return !table.opened;
}

// With the value of the field that the daemon makes; an empty one when it kept nothing.
inline bool answers_an_insert(const zorv::TableSchema& table) {
  return table.kept != nullptr;
}

}  // namespace zorvctl
