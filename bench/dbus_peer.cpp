#include "dbus_peer.h"

#include "harness/test_root.h"
#include "measure.h"

namespace bench {
namespace {

constexpr const char* kService = "bench.Echo";
constexpr const char* kObject = "/bench";

struct DropMessage {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, DropMessage>;

// Null where nobody listens.
Bus open_bus(const std::string& address) {
  sd_bus* raw = nullptr;
  require(sd_bus_new(&raw) >= 0, "D-Bus: no memory");
  Bus bus(raw);
  sd_bus_set_address(raw, address.c_str());
  sd_bus_set_bus_client(raw, 1);
  return sd_bus_start(raw) >= 0 ? std::move(bus) : nullptr;
}

int on_call(sd_bus_message* message, void* user, sd_bus_error* /*error*/) {
  const void* body = nullptr;
  size_t length = 0;
  sd_bus_message_read_array(message, 'y', &body, &length);
  const auto& handle = *static_cast<DbusPeer::Answer*>(user);
  const std::string answer = handle({static_cast<const char*>(body), length});
  sd_bus_message* raw = nullptr;
  if (const int result = sd_bus_message_new_method_return(message, &raw); result < 0) {
    return result;
  }
  const Message reply(raw);
  sd_bus_message_append_array(raw, 'y', answer.data(), answer.size());
  return sd_bus_send(nullptr, raw, nullptr);
}

constexpr sd_bus_vtable kMethods[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Call", "ay", "ay", on_call, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

int serve(const std::string& address, DbusPeer::Answer answer) {
  Bus bus;
  harness::eventually([&] { return (bus = open_bus(address)) != nullptr; });
  sd_bus_add_object_vtable(bus.get(), nullptr, kObject, kService, kMethods, &answer);
  require(sd_bus_request_name(bus.get(), kService, 0) >= 0, "D-Bus: no name");
  for (;;) {
    const int processed = sd_bus_process(bus.get(), nullptr);
    require(processed >= 0, "D-Bus: the connection ended");
    if (processed == 0) {
      sd_bus_wait(bus.get(), UINT64_MAX);
    }
  }
}

}  // namespace

DbusPeer::DbusPeer(const Answer& answer)
    : address_("unix:abstract=" + harness::test_root() + "/dbus"),
      daemon_({"/usr/bin/dbus-daemon", "--session", "--address=" + address_, "--nofork"}),
      service_([&]() noexcept { return serve(address_, answer); }) {
  require(harness::eventually([this] {
            const Bus bus = connect();
            return bus && sd_bus_get_name_creds(bus.get(), kService, 0, nullptr) >= 0;
          }),
          "D-Bus: no service");
}

Bus DbusPeer::connect() const {
  return open_bus(address_);
}

void DbusPeer::call(const Bus& bus, std::string_view body) {
  sd_bus_message* raw = nullptr;
  sd_bus_message_new_method_call(bus.get(), &raw, kService, kObject, kService, "Call");
  const Message request(raw);
  sd_bus_message_append_array(raw, 'y', body.data(), body.size());
  require(sd_bus_call(bus.get(), raw, 0, nullptr, &raw) >= 0, "D-Bus: no reply");
  const Message reply(raw);
  const void* answer = nullptr;
  size_t size = 0;
  require(sd_bus_message_read_array(raw, 'y', &answer, &size) >= 0, "D-Bus: another reply");
}

}  // namespace bench
