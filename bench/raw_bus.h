// The floor of a bus exchange: what a call over a SEQPACKET connection of its own cannot do
// without.
//
// The caller: socket, connect, SO_PEERCRED, send, receive, close. The server: epoll_wait, accept,
// SO_PEERCRED, receive, send, close; only a request that is not there yet is waited for in epoll,
// so that a silent caller holds up nobody. A packet is 16 bytes of head and the body. There is no
// time limit, no check of the frame, no limit of connections, no error but the end of the program.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

namespace bench {

inline constexpr size_t kRawHead = 16;
inline constexpr size_t kRawPacket = 64 * 1024;

// Looks at a request and writes the reply over it; the length of the reply.
using RawAnswer = std::function<size_t(char* packet, size_t length)>;
// The same where the reply is a descriptor, sent along with the head; the caller closes it.
using RawDescriptorAnswer = std::function<int(const char* packet, size_t length)>;

// Serve for ever at an abstract address; `ready` is called when callers can connect.
void serve_raw(const std::string& name, const std::function<void()>& ready,
               const RawAnswer& answer);
void serve_raw_descriptors(const std::string& name, const std::function<void()>& ready,
                           const RawDescriptorAnswer& answer);

// One call: the request stands in `packet`, and the reply replaces it. The length of the reply.
size_t raw_call(const std::string& name, char* packet, size_t length);
// The descriptor that came as the reply.
int raw_call_for_descriptor(const std::string& name, char* packet, size_t length);

}  // namespace bench
