// Packets with descriptors over a SEQPACKET socket, and the two ways a server answers.
//
// Every received descriptor is close-on-exec and owned; what does not fit is closed by the kernel.
// SIGPIPE is never raised. Nothing here waits, but for a reply.
#pragma once

#include <cstdint>
#include <iterator>
#include <span>

#include "kx_buffer.h"
#include "kx_descriptor.h"
#include "kx_packet.h"

namespace kxbus {

struct Incoming {
  HeaderBytes header;
  Descriptor descriptors[2];
  std::size_t descriptor_count = 0;
  bool descriptors_lost = false;  // more were sent than could be received
  std::size_t sent = 0;
  std::size_t received = 0;

  ReceivedPacket packet(std::span<const char> space) const;
  // Fewer descriptors arrived than there was room for: this process has no more.
  bool out_of_descriptors() const {
    return descriptors_lost && descriptor_count < std::size(descriptors);
  }
};

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

// Answers a connection whose request need not be looked at, and closes it. What it has sent is
// discarded first, and it cannot send more: closing with unread input would cost it the answer.
void refuse(Descriptor connection, int status);

}  // namespace kxbus
