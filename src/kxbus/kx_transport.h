// Packets with descriptors over a SEQPACKET socket, and how a server answers.
//
// Every descriptor that a peer attaches, up to the 253 that the kernel takes, is received
// close-on-exec and owned; those beyond the two that a frame can announce are discarded. SIGPIPE is
// never raised. Nothing here waits, but for a reply.
#pragma once

#include <cstdint>
#include <iterator>
#include <span>

#include "descriptor.h"
#include "kx_buffer.h"
#include "kx_packet.h"

namespace kxbus {

inline constexpr std::size_t kMostDescriptors = 253;  // of a packet: the kernel's SCM_MAX_FD

// Closing the last descriptor of a socket can wait for as long as its sender has told it to linger,
// so a received one is made not to.
void stop_lingering(int descriptor);

struct Incoming {
  Incoming() = default;
  Incoming(const Incoming&) = delete;
  Incoming& operator=(const Incoming&) = delete;
  ~Incoming();  // cuts off and closes what nobody took

  HeaderBytes header;
  os::Descriptor descriptors[2];
  std::size_t descriptor_count = 0;  // of all that came, discarded ones included
  bool out_of_descriptors = false;   // this process could not hold all that were sent
  std::size_t sent = 0;
  std::size_t received = 0;

  ReceivedPacket packet(std::span<const char> space) const;
};

// A packet without any byte counts as a hang-up where nothing is attached to it.
enum class Receipt { packet, nothing_yet, interrupted, closed };
enum class Wait { no, as_long_as_the_socket_says };

// Receives one packet, its payload into `space`.
Receipt receive_packet(int socket, std::span<char> space, Wait wait, Incoming& ret_incoming);

// Sends header, body and method as one packet; 0 or the error number.
int send_packet(int socket, const HeaderBytes& header, std::span<const char> body,
                std::string_view method, std::span<const int> descriptors);

// Answers a request that was read: the reply in `body`, or a bare status. Sending never waits; a
// caller that cannot take its answer at once has lost it. The status tells what became of it.
int send_reply(int socket, Buffer& body);
void send_status(int socket, int status);

}  // namespace kxbus
