// Where records wait that the daemon did not take: /var/spool/zorv/UID, one file a record.
//
// The folder above is root's, and nobody else may write or list it: "zorvctl spool deliver" makes a
// folder in it for each user who may call the daemon, which only that user and root can enter.
// Nobody else can plant records, fill the spool, or stand in the way of one who may. Root's own
// folder, and whoever's the folder above is, is made when the first record comes.
//
// A file bears the time at which it was written, in nanoseconds, so that names sort as records
// came; where the clock was set back meanwhile they sort as it says. It appears whole or not at
// all, and is on the disk when keep() returns.
//
// Any thread; throws bad_alloc.
#pragma once

#include "kxbus.h"
#include "zorv_schema.h"

namespace zorv::spool {

inline constexpr const char* kFolder = "/var/spool/zorv";
inline constexpr size_t kMostRecords = 10000;  // of one user

// Whether a record whose call ended so should wait: the daemon is away, stopping, overrun or mute,
// and did not refuse it. A mute one may have taken it all the same, and then has it twice.
constexpr bool is_undelivered(int bus_status) {
  return bus_status == KX_TIMEOUT || bus_status == KX_NOT_READY || bus_status == KX_IS_PAUSED ||
         bus_status == KX_IO_FAILURE || bus_status == KX_IS_BUSY;
}

// Writes the connection into the folder of this process's effective user; it has its time. Where
// that is full the oldest give way, and their number is told. Returns 0, or why not, as errno.
int keep(const TableSchema& table, const void* record, size_t& ret_dropped);

}  // namespace zorv::spool
