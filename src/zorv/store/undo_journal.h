// What some pages of a database file were before they are written over, beside that file and in the
// form of SQLite's own rollback journal: whatever program opens the database after a cut takes the
// transaction back.
#pragma once

#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

namespace store {

using Page = std::vector<uint8_t>;
using PagesByOffset = std::map<sqlite3_int64, Page>;  // of one size

// Of the database that `vfs` was asked to open as `database`, which is `size` bytes long. True once
// the journal is on the disk; false where it cannot be written, and then there is none. Pages that
// follow in the same transaction are added behind the `known` ones, which stay whatever happens.
bool write_undo_journal(sqlite3_vfs* vfs, const char* database, sqlite3_int64 size,
                        const PagesByOffset& before, size_t known);
// The transaction holds. SQLite's result, after which the disk has no journal.
int drop_undo_journal(sqlite3_vfs* vfs, const char* database);

// Whether SQLite itself keeps a journal of that database just now.
bool has_journal(sqlite3_vfs* vfs, const char* database);

}  // namespace store
