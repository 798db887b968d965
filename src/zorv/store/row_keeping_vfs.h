// SQLite's way to the database file, with one promise added: a cut in the middle of a transaction
// costs no row that was there before it.
//
// The journal is off, and for most of what the daemon writes none is needed: an insert adds to a
// page behind the rows that are there, and zorv-check finds them even where the page is torn. But
// where a table outgrows its first page, a row is deleted or counts on, or old rows fall away, rows
// move between pages that are written over. So what a transaction writes is held until its sync;
// where rows move, an undo journal (undo_journal.h) is on the disk before the first page is.
// Where none can be written, as on a full disk, the pages are written all the same. Of a
// transaction that writes more than 8 MB, as a clean of a large table does, a part is in the file
// before the sync, and all that it wrote over is in the journal.
#pragma once

namespace store {

// The name to open a connection with, registered with SQLite; null where that failed, which means
// SQLite's own way.
const char* row_keeping_vfs();

}  // namespace store
