// The daemon's methods: their table, and the one callback that the bus server calls for each
// request.
//
// A handler gets the request in `io`. On success it has emptied `io`, written its reply into it,
// sent it with kx_reply, and returns 0; the dispatcher then releases `io`. On failure it has
// released `io` itself, sends nothing and returns -1; the bus tells the caller.
//
// The table is filled before main runs and only read afterwards; requests come one at a time.
#pragma once

#include <map>
#include <string>

#include "kxbus.h"

using MethodHandler = int (*)(kx_io* io);

// By wire name, compared byte by byte.
using MethodTable = std::map<std::string, MethodHandler, std::less<>>;
extern MethodTable zorvd_method_list;

// Enters the methods of zorvd_db.h; runs by itself at start-up.
void zorv_method_init();

// The bus's method callback. A method that is not in the table is left alone: nothing is logged or
// replied and `io` stays the bus's.
void zorvd_method_handler(const char* method, kx_io* io, int fd);
