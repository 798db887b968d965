// The service bus: one request, one reply, between processes of one machine.
//
// A service listens on an address and gets every request through one callback, on the one thread
// that runs kx_start(). A caller's kx_call() connects, sends a method name and a body, and waits
// for the reply: one connection a call, nothing kept. Bodies of up to 64 KiB travel in a packet;
// larger ones, up to 1 GiB, in sealed memory that both sides share, so there is one copy of them on
// the bus. docs/bus.md has the wire format and the limits.
//
// Addresses, in every place that takes one:
//   "@NAME"       an abstract socket
//   "/PATH"       a socket in the file system; the path is absolute
//   "NAME"        a service name, short for "@/var/run/NAME.sock"
// Where ZORV_ROOT is set it goes in front of the path or name. What then exceeds 107 bytes is
// refused.
//
// Who may: a server serves uid 0, its own uid and whom the service's allow list names; a caller
// sends its request only to a listener of uid 0, of its own uid, or of a user that the allow list
// names.
//
// Statuses are those of enum kx_status, 0 for success; nothing here throws or raises SIGPIPE. Every
// descriptor is close-on-exec. kx_call() and the buffers may be used on any number of threads, each
// buffer by one at a time.
#pragma once

#include <stddef.h>

#ifdef __cplusplus
#include <memory>

extern "C" {
#endif

enum kx_status {
  KX_SUCCESS = 0,
  KX_TIMEOUT = 1,     // the deadline passed after the request was sent; it may have been executed
  KX_NOT_READY = 2,   // nobody listens on the address
  KX_IS_PAUSED = 3,   // the server is stopping
  KX_IS_REJECT = 4,   // one side does not deal with the other, or the handler failed
  KX_IO_FAILURE = 5,  // the connection ended without a reply, the reply cannot be read, no memory
  KX_IS_BUSY = 6,  // the backlog was full until the deadline, too many connections or descriptors
  KX_IS_INVALID = 7,  // bad arguments, a malformed request, an unknown method
};

// A growable byte buffer that holds one request and then its reply.
typedef struct kx_io kx_io;
typedef struct kx_server kx_server;

// Called once per request, on the thread that runs kx_start(). `method` is terminated and lives
// until the return. `fd` is the descriptor that the caller passed along, or -1; the callback owns
// it. A socket arrives with lingering switched off, so that closing it does not wait.
//
// `io` holds the request and is on loan until the callback returns: it is not to be used
// afterwards, nor with kx_call(). What the callback does with it decides what the caller gets, at
// once:
//   kx_reply()           the content, with KX_SUCCESS
//   kx_io_free() alone   KX_IS_REJECT: the handler failed
//   neither              KX_IS_INVALID: the method is unknown
// Freeing it after the reply, or not at all, is harmless. An exception counts as freeing it.
//
// A request can be read as a fixed record or as text without regard to its length: at least 8 KiB
// are readable, and what follows the payload is zero.
typedef void (*kx_method_callback)(const char* method, kx_io* io, int fd);
typedef void (*kx_signal_callback)(int signal_number);
typedef void (*kx_log_callback)(const char* text);

// --- Serving ---

// Claims an address and listens there; requests wait until kx_start(). `backlog_units` is how many
// connections may wait to be accepted, in units of 32 (1 to 128); `dispatchers` is how many
// requests are in progress at once, and this library does one. Null on failure, with errno: EINVAL
// for arguments out of range, ENAMETOOLONG, EADDRINUSE when the address is taken, or the system's.
// All but the first are logged.
kx_server* kx_create(const char* address, int backlog_units, int dispatchers,
                     kx_method_callback callback);

// Serves until kx_stop(). Then whoever is connected gets KX_IS_PAUSED and whoever comes later finds
// nobody. KX_SUCCESS after a stop, also after one that came before; KX_IS_PAUSED when the server
// has been stopped once; KX_IS_INVALID for null; KX_IO_FAILURE when the system fails it.
int kx_start(kx_server* server);

// Makes kx_start() return after the request in progress. From any thread, from either callback, or
// from a signal handler; null is ignored.
void kx_stop(kx_server* server);

// Releases the address and removes its path; not while kx_start() runs. Null is ignored.
void kx_free(kx_server* server);

// From now on `callback` is called for the signal, on a thread that runs kx_start() and between
// requests, so it may do anything. A signal that came earlier than kx_start() is delivered when
// that begins; several of one kind may be delivered as one. System calls are restarted, no signal
// is blocked. A null callback restores the default action. KX_IS_INVALID for a signal that cannot
// be caught. All servers of a process share these callbacks.
int kx_signal(int signal_number, kx_signal_callback callback);

// Where the library's own lines go: a denied caller, an address in use, a refused allow list, no
// more descriptors. One line without a newline per call, on the thread that met the case; null for
// stderr.
void kx_set_log(kx_log_callback callback);

// --- Calling ---

// Sends the content of `io` to `method` at `address`, and `fd` along with it unless that is -1 (it
// stays the caller's). On KX_SUCCESS the reply has replaced the request in `io`. Otherwise `io`
// still holds the request, to be tried again; only after KX_IO_FAILURE it may be empty.
//
// Everything together takes at most `timeout_s` seconds, waiting for room in the backlog included;
// 0 takes only what is there at once. A method name has 1 to 255 bytes.
int kx_call(const char* address, const char* method, kx_io* io, int timeout_s, int fd);
// The same with its time in milliseconds, for a caller that has a part of a second left.
int kx_call_ms(const char* address, const char* method, kx_io* io, int timeout_ms, int fd);

// --- Buffers ---

// An empty buffer; null when there is no memory.
kx_io* kx_io_create(void);

// The content and, where `ret_length` is not null, its length; null and 0 when it is empty. A zero
// follows the content. Valid until the next operation on the buffer that is not kx_io_read().
const void* kx_io_read(kx_io* io, size_t* ret_length);

// Copies a part of the content. KX_IS_INVALID when it is not all there. For taking a large reply
// over: memory that the peer filled is copied from without its 4 KiB pages being mapped one by one.
int kx_io_copy(kx_io* io, size_t offset, void* ret_bytes, size_t length);

// Appends. KX_IS_INVALID beyond 1 GiB, KX_IO_FAILURE or KX_IS_BUSY without memory or descriptor;
// the content is then what it was. A large reply is best written in blocks of 16 to 60 KiB, which
// are in the cache still.
int kx_io_write(kx_io* io, const void* bytes, size_t length);

// Replaces bytes that the content already has: for a count that is known last. KX_IS_INVALID when
// they are not all there.
int kx_io_overwrite(kx_io* io, size_t offset, const void* bytes, size_t length);

// Cuts the content to `size`, or appends zeros, as kx_io_write() does; 0 empties it.
int kx_io_realloc(kx_io* io, size_t size);

// Sends the content to the caller whose request the buffer held; this never waits. KX_IS_INVALID
// when nobody waits for it (any more), another status when it could not be sent: the caller has
// been told where that was possible.
int kx_reply(kx_io* io);

// Releases a buffer; null is ignored.
void kx_io_free(kx_io* io);

#ifdef __cplusplus
}

struct kx_io_release {
  void operator()(kx_io* io) const { kx_io_free(io); }
};
// A buffer that is released at the end of its scope.
using kx_io_owner = std::unique_ptr<kx_io, kx_io_release>;
#endif
