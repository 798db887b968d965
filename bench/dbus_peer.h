// The peer of the bus: sd-bus through a dbus-daemon of our own, which ends with its object.
#pragma once

#include <systemd/sd-bus.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "harness/process.h"

namespace bench {

struct CloseBus {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
using Bus = std::unique_ptr<sd_bus, CloseBus>;

class DbusPeer {
 public:
  // Answers the body of a request.
  using Answer = std::function<std::string(std::string_view body)>;

  explicit DbusPeer(const Answer& answer);

  Bus connect() const;
  // One call on a connection.
  static void call(const Bus& bus, std::string_view body);

 private:
  std::string address_;
  harness::Process daemon_;
  harness::Child service_;
};

}  // namespace bench
