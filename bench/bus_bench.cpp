// A bus call that is answered with what it carried.
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

#include "child.h"
#include "dbus_peer.h"
#include "families.h"
#include "harness/test_root.h"
#include "kxbus.h"
#include "raw_bus.h"

namespace bench {
namespace {

constexpr const char* kAddress = "@/var/run/bench.sock";
constexpr size_t kBodies[] = {0, 36, 7192};
constexpr Limits kLimits{.of_floor = 1.15, .of_peer = 3};

void call_bus(const std::string& body) {
  kx_io* io = kx_io_create();
  kx_io_write(io, body.data(), body.size());
  const int status = kx_call(kAddress, "echo", io, 5, -1);
  size_t length = 0;
  const void* reply = kx_io_read(io, &length);
  const bool same =
      length == body.size() && (length == 0 || memcmp(reply, body.data(), length) == 0);
  kx_io_free(io);
  if (status != KX_SUCCESS || !same) {
    throw std::runtime_error("bus call: status " + std::to_string(status));
  }
}

void call_raw(const std::string& name, const std::string& body) {
  alignas(8) static char packet[kRawPacket];
  memcpy(packet + kRawHead, body.data(), body.size());
  if (raw_call(name, packet, kRawHead + body.size()) != kRawHead + body.size()) {
    throw std::runtime_error("raw call: another length");
  }
}

void serve_echo(const Child::Ready& ready) {
  kx_server* server = kx_create(kAddress, 4, 1, [](const char*, kx_io* io, int) { kx_reply(io); });
  ready();
  kx_start(server);
}

}  // namespace

void measure_bus(Report& report) {
  const OneProcessor together;
  const Child ours(serve_echo);
  const std::string raw_name = harness::test_root() + "/raw";
  const Child floor([&](const Child::Ready& ready) {
    serve_raw(raw_name, ready, [](char*, size_t length) { return length; });
  });
  std::unique_ptr<DbusPeer> dbus;
  Bus kept;
  try {
    dbus = std::make_unique<DbusPeer>([] {
      return [](const void* body, size_t length) {
        return std::string(static_cast<const char*>(body), length);
      };
    });
    kept = dbus->connect();
  } catch (const std::exception& failure) {
    report.miss(failure.what());
  }
  for (const size_t size : kBodies) {
    const std::string body(size, 'b');
    std::vector<Contender> contenders{
        {Role::ours, "kx_call", timed([body] { call_bus(body); })},
        {Role::floor, "raw exchange", timed([&raw_name, body] { call_raw(raw_name, body); })}};
    if (dbus) {
      contenders.push_back({Role::peer, "D-Bus, a connection a call", timed([&dbus, body] {
                              const Bus bus = dbus->connect();
                              DbusPeer::call(bus.get(), body.data(), body.size());
                            })});
      contenders.push_back({Role::peer, "D-Bus, connection kept", timed([&kept, body] {
                              DbusPeer::call(kept.get(), body.data(), body.size());
                            })});
    }
    report.compare("bus call, " + std::to_string(size) + " bytes each way", {101, 100}, kLimits,
                   std::move(contenders));
  }
}

}  // namespace bench
