// A bus call that is answered with what it carried; and a bus reply of 1, 20 and 520 MB, made of
// rows of 5,200 bytes and looked at page by page by the caller, with the memory that both sides
// have at the peak.
//
// The floor of the small call is a raw exchange, that of the large reply a memfd that is written
// from one block in the cache and mapped by the caller.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "dbus_peer.h"
#include "descriptor.h"
#include "harness/daemon.h"
#include "kxbus.h"
#include "measure.h"
#include "processes.h"
#include "raw_bus.h"

namespace bench {
namespace {

constexpr const char* kAddress = "@/var/run/bench.sock";
constexpr size_t kRow = 5200;
const std::string block(64 * 1024, 'r');

// The reply's body, which stays in the buffer.
std::string_view call_bus(const kx_io_owner& io, const char* method, std::string_view body) {
  kx_io_write(io.get(), body.data(), body.size());
  require(kx_call(kAddress, method, io.get(), 60, -1) == KX_SUCCESS, "a bus call failed");
  size_t length = 0;
  const void* reply = kx_io_read(io.get(), &length);
  return {static_cast<const char*>(reply), length};
}

size_t number_in(std::string_view text) {
  return std::stoul(std::string(text));
}

// Answers "rows" with as many rows as the request says, anything else with the request.
int serve_bus() {
  kx_server* server = kx_create(kAddress, 4, 1, [](const char* method, kx_io* io, int) {
    size_t rows = 0;
    if (strcmp(method, "rows") == 0) {
      size_t length = 0;
      const void* body = kx_io_read(io, &length);
      rows = number_in({static_cast<const char*>(body), length});
      kx_io_realloc(io, 0);
    }
    for (size_t i = 0; i < rows; ++i) {
      kx_io_write(io, block.data(), kRow);
    }
    kx_reply(io);
  });
  return kx_start(server);
}

// Looks at one byte of every page.
void look_at(const void* bytes, size_t length) {
  const auto* at = static_cast<const volatile char*>(bytes);
  for (size_t i = 0; i < length; i += 4096) {
    require(at[i] == block[0], "not the reply");
  }
}

void call_for_rows(size_t rows) {
  const kx_io_owner io(kx_io_create());
  const std::string_view reply = call_bus(io, "rows", std::to_string(rows));
  require(reply.size() == rows * kRow, "no reply of that size");
  look_at(reply.data(), reply.size());
}

// So many bytes out of the block.
void write_blocks(int descriptor, size_t length) {
  while (length > 0) {
    const ssize_t written = write(descriptor, block.data(), std::min(length, block.size()));
    require(written > 0, "the bytes cannot be written");
    length -= static_cast<size_t>(written);
  }
}

// Answers with the memfd's number; it stays open until the next request.
size_t answer_with_memfd(char* body, size_t size) {
  static os::Descriptor memfd;
  memfd.reset();
  memfd.reset(memfd_create("floor", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  write_blocks(memfd.get(), number_in({body, size}));
  fcntl(memfd.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL);
  return std::to_string(memfd.get()).copy(body, size);
}

void call_for_memfd(const RawServer& floor, const os::Descriptor& server, size_t length) {
  const size_t number = number_in(floor.call(std::to_string(length)));
  const os::Descriptor memfd(static_cast<int>(syscall(SYS_pidfd_getfd, server.get(), number, 0)));
  void* bytes = mmap(nullptr, length, PROT_READ, MAP_SHARED, memfd.get(), 0);
  require(bytes != MAP_FAILED, "cannot map the floor");
  look_at(bytes, length);
  munmap(bytes, length);
}

// The peer of a large reply: as many bytes through a stream socket that is connected already.
int serve_stream(const os::Descriptor& socket) {
  size_t length = 0;
  while (read(socket.get(), &length, sizeof length) == sizeof length) {
    write_blocks(socket.get(), length);
  }
  return 0;
}

void call_stream(const os::Descriptor& socket, size_t length) {
  // Memory of its own for every reply, as the others have it.
  void* space = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  require(space != MAP_FAILED && write(socket.get(), &length, sizeof length) == sizeof length &&
              recv(socket.get(), space, length, MSG_WAITALL) == static_cast<ssize_t>(length),
          "no reply through the stream");
  look_at(space, length);
  munmap(space, length);
}

}  // namespace

void measure_bus(Report& report) {
  const harness::Child ours(serve_bus);
  harness::wait_until_serving(kAddress);
  const RawServer floor([](char*, size_t length) { return length; });
  const DbusPeer dbus([](std::string_view body) { return std::string(body); });
  const Bus kept = dbus.connect();
  for (const size_t size : {size_t{0}, size_t{36}, size_t{7192}}) {
    const std::string body(size, 'b');
    const auto call_ours = [&body] {
      const kx_io_owner io(kx_io_create());
      require(call_bus(io, "echo", body) == body, "not the reply");
    };
    report.compare(fmt::format("bus call, {} bytes each way", size), 101, 100,
                   {.of_floor = 1.15, .of_peer = 3},
                   {{"ours", call_ours},
                    {"floor", [&] { require(floor.call(body) == body, "not the reply"); }},
                    {"D-Bus, a connection a call", [&] { DbusPeer::call(dbus.connect(), body); }},
                    {"D-Bus, connection kept", [&] { DbusPeer::call(kept, body); }}});
  }
}

void measure_bus_reply(Report& report) {
  int ends[2];
  require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "no socket pair");
  const os::Descriptor near(ends[0]);
  os::Descriptor far(ends[1]);
  const harness::Child ours(serve_bus);
  harness::wait_until_serving(kAddress);
  const RawServer floor(answer_with_memfd);
  const os::Descriptor floor_process(static_cast<int>(syscall(SYS_pidfd_open, floor.pid(), 0)));
  const harness::Child stream([&far]() noexcept { return serve_stream(far); });
  far.reset();
  const pid_t servers[] = {ours.pid(), floor.pid(), stream.pid()};
  for (const size_t rows : {size_t{200}, size_t{4000}, size_t{100000}}) {
    const size_t length = rows * kRow;
    const std::string work = fmt::format("bus reply of {} MB", length / 1000000);
    const std::vector<Contender> contenders{
        {"ours", [rows] { call_for_rows(rows); }},
        {"floor", [&] { call_for_memfd(floor, floor_process, length); }},
        {"stream socket", [&] { call_stream(near, length); }}};
    const int batch = rows > 10000 ? 1 : rows > 1000 ? 10 : 100;
    report.compare(work, 15, batch, {.of_floor = 1.15}, contenders);
    std::vector<Result> memory;
    for (size_t i = 0; i < contenders.size(); ++i) {
      const PeakGrowth growth = peak_growth(getpid(), servers[i], contenders[i].operation);
      memory.push_back({contenders[i].what, {growth.caller + growth.server}});
    }
    report.add(work + ", memory of both sides", Unit::bytes, {.of_floor = 1.15}, memory);
  }
}

}  // namespace bench
