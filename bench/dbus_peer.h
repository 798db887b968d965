// The peer of the bus: sd-bus through a dbus-daemon of our own, which ends with its object.
#pragma once

#include <systemd/sd-bus.h>

#include <functional>
#include <memory>
#include <string>

#include "child.h"
#include "harness/process.h"

namespace bench {

struct CloseBus {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
using Bus = std::unique_ptr<sd_bus, CloseBus>;

class DbusPeer {
 public:
  // Answers the body of a request.
  using Answer = std::function<std::string(const void* body, size_t length)>;

  // `prepare` runs in the service's process and makes what answers there. Throws when there is no
  // dbus-daemon.
  explicit DbusPeer(const std::function<Answer()>& prepare);

  Bus connect() const;
  // One call on a connection; the length of the reply's body.
  static size_t call(sd_bus* bus, const void* body, size_t length);

 private:
  std::string address_;
  std::unique_ptr<harness::Process> daemon_;
  std::unique_ptr<Child> service_;
};

}  // namespace bench
