#include "dbus_peer.h"

#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "harness/test_root.h"

namespace bench {
namespace {

constexpr const char* kDaemon = "/usr/bin/dbus-daemon";
constexpr const char* kService = "bench.Echo";
constexpr const char* kObject = "/bench";
constexpr const char* kInterface = "bench.Echo";

std::string configuration(const std::string& address) {
  return R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>)" +
         address + R"(</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";
}

void require(int result, const char* what) {
  if (result < 0) {
    throw std::runtime_error(std::string("D-Bus: ") + what);
  }
}

Bus open_bus(const std::string& address) {
  sd_bus* raw = nullptr;
  require(sd_bus_new(&raw), "no bus object");
  Bus bus(raw);
  require(sd_bus_set_address(raw, address.c_str()), "bad address");
  require(sd_bus_set_bus_client(raw, 1), "no bus client");
  require(sd_bus_start(raw), "no connection");
  return bus;
}

int on_call(sd_bus_message* message, void* user, sd_bus_error* /*error*/) {
  const void* body = nullptr;
  size_t length = 0;
  if (const int result = sd_bus_message_read_array(message, 'y', &body, &length); result < 0) {
    return result;
  }
  const std::string answer = (*static_cast<DbusPeer::Answer*>(user))(body, length);
  sd_bus_message* reply = nullptr;
  if (const int result = sd_bus_message_new_method_return(message, &reply); result < 0) {
    return result;
  }
  sd_bus_message_append_array(reply, 'y', answer.data(), answer.size());
  const int result = sd_bus_send(nullptr, reply, nullptr);
  sd_bus_message_unref(reply);
  return result;
}

constexpr sd_bus_vtable kMethods[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Call", "ay", "ay", on_call, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

void serve(const std::string& address, DbusPeer::Answer answer, const Child::Ready& ready) {
  const Bus bus = open_bus(address);
  require(sd_bus_add_object_vtable(bus.get(), nullptr, kObject, kInterface, kMethods, &answer),
          "no object");
  require(sd_bus_request_name(bus.get(), kService, 0), "no name");
  ready();
  for (;;) {
    const int processed = sd_bus_process(bus.get(), nullptr);
    require(processed, "the connection ended");
    if (processed == 0) {
      sd_bus_wait(bus.get(), UINT64_MAX);
    }
  }
}

}  // namespace

DbusPeer::DbusPeer(const std::function<Answer()>& prepare) {
  if (access(kDaemon, X_OK) != 0) {
    throw std::runtime_error("D-Bus: no dbus-daemon");
  }
  const std::string socket = harness::test_root() + "/dbus";
  std::filesystem::remove(socket);
  address_ = "unix:path=" + socket;
  harness::write_file("/dbus.conf", configuration(address_));
  daemon_ = std::make_unique<harness::Process>(std::vector<std::string>{
      kDaemon, "--config-file=" + harness::test_root() + "/dbus.conf", "--nofork"});
  while (!std::filesystem::exists(socket)) {
    if (!daemon_->running()) {
      throw std::runtime_error("D-Bus: dbus-daemon ended");
    }
    usleep(1000);
  }
  service_ = std::make_unique<Child>(
      [&](const Child::Ready& ready) { serve(address_, prepare(), ready); });
}

Bus DbusPeer::connect() const {
  return open_bus(address_);
}

size_t DbusPeer::call(sd_bus* bus, const void* body, size_t length) {
  sd_bus_message* request = nullptr;
  require(sd_bus_message_new_method_call(bus, &request, kService, kObject, kInterface, "Call"),
          "no request");
  sd_bus_message_append_array(request, 'y', body, length);
  sd_bus_message* reply = nullptr;
  const int status = sd_bus_call(bus, request, 0, nullptr, &reply);
  sd_bus_message_unref(request);
  require(status, "no reply");
  const void* answer = nullptr;
  size_t size = 0;
  sd_bus_message_read_array(reply, 'y', &answer, &size);
  sd_bus_message_unref(reply);
  return size;
}

}  // namespace bench
