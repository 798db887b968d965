// A bus reply of 1, 20 and 520 MB, made of rows of 5,200 bytes and looked at page by page by the
// caller; and the memory that both sides have at the peak.
//
// The floor is a memfd that is written from one block in the cache and mapped by the caller.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include "child.h"
#include "families.h"
#include "harness/test_root.h"
#include "kxbus.h"
#include "memory.h"
#include "raw_bus.h"

namespace bench {
namespace {

constexpr const char* kAddress = "@/var/run/reply.sock";
constexpr size_t kRow = 5200;
constexpr size_t kRowSizes[] = {200, 4000, 100000};  // rows of 1, 20 and 520 MB
constexpr size_t kBlock = 64 * 1024;

const std::vector<char>& block() {
  static const std::vector<char> bytes(kBlock, 'r');
  return bytes;
}

// Looks at one byte of every page.
void look_at(const void* bytes, size_t length) {
  const auto* at = static_cast<const volatile char*>(bytes);
  unsigned sum = 0;
  for (size_t i = 0; i < length; i += 4096) {
    sum += static_cast<unsigned char>(at[i]);
  }
  if (sum == 0) {
    throw std::runtime_error("a reply of nothing");
  }
}

void serve_ours(const Child::Ready& ready) {
  kx_server* server = kx_create(kAddress, 4, 1, [](const char*, kx_io* io, int) {
    size_t rows = 0;
    memcpy(&rows, kx_io_read(io, nullptr), sizeof rows);
    kx_io_realloc(io, 0);
    for (size_t i = 0; i < rows; ++i) {
      kx_io_write(io, block().data(), kRow);
    }
    kx_reply(io);
  });
  ready();
  kx_start(server);
}

void call_ours(size_t rows) {
  kx_io* io = kx_io_create();
  kx_io_write(io, &rows, sizeof rows);
  const int status = kx_call(kAddress, "rows", io, 60, -1);
  size_t length = 0;
  const void* reply = kx_io_read(io, &length);
  if (status != KX_SUCCESS || length != rows * kRow) {
    throw std::runtime_error("no reply of that size");
  }
  look_at(reply, length);
  kx_io_free(io);
}

int make_memfd(size_t length) {
  const int memfd = memfd_create("floor", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  while (length > 0) {
    const ssize_t written = write(memfd, block().data(), std::min(length, kBlock));
    if (written <= 0) {
      throw std::runtime_error("no memory for the floor");
    }
    length -= static_cast<size_t>(written);
  }
  fcntl(memfd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL);
  return memfd;
}

size_t length_in(const char* packet) {
  size_t length = 0;
  memcpy(&length, packet, sizeof length);
  return length;
}

void call_floor(const std::string& name, size_t length) {
  char packet[kRawPacket];
  memcpy(packet, &length, sizeof length);
  const int memfd = raw_call_for_descriptor(name, packet, kRawHead);
  void* bytes = mmap(nullptr, length, PROT_READ, MAP_SHARED, memfd, 0);
  if (bytes == MAP_FAILED) {
    throw std::runtime_error("cannot map the floor");
  }
  close(memfd);
  look_at(bytes, length);
  munmap(bytes, length);
}

// The peer: as many bytes through a stream socket that is connected already.
void serve_stream(int socket, const Child::Ready& ready) {
  ready();
  size_t length = 0;
  while (read(socket, &length, sizeof length) == sizeof length) {
    while (length > 0) {
      const ssize_t written = write(socket, block().data(), std::min(length, kBlock));
      length -= static_cast<size_t>(std::max<ssize_t>(written, 0));
    }
  }
}

void call_stream(int socket, size_t length) {
  // Memory of its own for every reply, as the others have it.
  void* space = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (space == MAP_FAILED || write(socket, &length, sizeof length) != sizeof length) {
    throw std::runtime_error("no stream");
  }
  for (size_t got = 0; got < length;) {
    const ssize_t part = read(socket, static_cast<char*>(space) + got, length - got);
    if (part <= 0) {
      throw std::runtime_error("the stream ended");
    }
    got += static_cast<size_t>(part);
  }
  look_at(space, length);
  munmap(space, length);
}

Result memory_of(Role role, const char* what, pid_t server, const std::function<double()>& call) {
  const PeakGrowth growth = peak_growth(getpid(), server, call);
  return Result{role, what, {growth.caller + growth.server}};
}

}  // namespace

void measure_bus_reply(Report& report) {
  const OneProcessor together;
  const std::string name = harness::test_root() + "/reply";
  int sockets[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0) {
    throw std::runtime_error("no socket pair");
  }
  const Child ours(serve_ours);
  const Child floor([&](const Child::Ready& ready) {
    serve_raw_descriptors(name, ready,
                          [](const char* packet, size_t) { return make_memfd(length_in(packet)); });
  });
  const Child stream([&](const Child::Ready& ready) { serve_stream(sockets[1], ready); });
  for (const size_t rows : kRowSizes) {
    const size_t length = rows * kRow;
    const std::string megabytes = std::to_string(length / 1000000) + " MB";
    const int batch = rows > 10000 ? 1 : rows > 1000 ? 10 : 100;
    const std::function<double()> calls[] = {
        timed([rows] { call_ours(rows); }), timed([&name, length] { call_floor(name, length); }),
        timed([&sockets, length] { call_stream(sockets[0], length); })};
    report.compare("bus reply of " + megabytes, {15, batch}, {.of_floor = 1.15},
                   {{Role::ours, "kx_call", calls[0]},
                    {Role::floor, "memfd written and mapped once", calls[1]},
                    {Role::peer, "stream socket", calls[2]}});
    report.add("bus reply of " + megabytes + ", memory of both sides", Unit::bytes,
               {.of_floor = 1.15},
               {memory_of(Role::ours, "kx_call", ours.pid(), calls[0]),
                memory_of(Role::floor, "memfd", floor.pid(), calls[1]),
                memory_of(Role::peer, "stream socket", stream.pid(), calls[2])});
  }
  close(sockets[0]);
  close(sockets[1]);
}

}  // namespace bench
