// Both ends of the bus: a server in a thread, and a peer that speaks the wire by hand.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "descriptor.h"
#include "kxbus.h"

namespace harness {

inline constexpr const char* kBusAddress = "@bus";

// Named by the method: "echo" and the longest name reply what came, "again" does so twice, "fail"
// frees the buffer, "throw" throws. Others are unknown.
void bus_callback(const char* method, kx_io* io, int fd);

// Serves from construction to destruction.
class BusServer {
 public:
  explicit BusServer(const char* address = kBusAddress, kx_method_callback callback = bus_callback)
      : server_(kx_create(address, 4, 1, callback)), thread_([this] { kx_start(server_); }) {}
  ~BusServer() {
    kx_stop(server_);
    thread_.join();
    kx_free(server_);
  }
  BusServer(const BusServer&) = delete;
  BusServer& operator=(const BusServer&) = delete;

 private:
  kx_server* server_;
  std::thread thread_;
};

// What a buffer holds; expects a terminator behind it.
std::string content(const kx_io_owner& io);

// Calls with a fresh buffer; the reply where there is one goes to `ret_reply`.
int bus_call(const std::string& method, const std::string& body, std::string* ret_reply = nullptr,
             int timeout_s = 20, int fd = -1, const char* address = kBusAddress);

// A frame with every field open to a lie; -1 stands for the true length.
struct Frame {
  std::uint32_t magic = 0x5542584B;
  std::uint8_t version = 1;
  std::uint8_t kind = 1;
  int detail = -1;
  std::uint32_t flags = 0;
  std::int64_t body_length = -1;
  std::string body{};
  std::string method = "echo";

  std::string bytes() const;
};

// A socket of the bus's kind, invalid where it could not be had. Waits 20 seconds at most.
struct RawSocket : os::Descriptor {
  explicit RawSocket(int socket = -1);
  static RawSocket connected(const char* address = kBusAddress);
  static RawSocket listening(const char* address = kBusAddress);
  RawSocket accept() const { return RawSocket(accept4(get(), nullptr, nullptr, SOCK_CLOEXEC)); }

  bool send(const std::string& bytes, const std::vector<int>& descriptors = {}) const;
  std::string receive() const;  // "" at the end
  int status() const;           // of the reply that comes; -1 for none and for nonsense
};

// How many it has open.
int open_descriptors(pid_t process = getpid());

}  // namespace harness
