// The growable bytes behind a kx_io.
//
// Up to 64 KiB stand in one heap block, which is also what packets are received into. What outgrows
// it is appended to a memfd, a block at a time: the heap block then holds only the tail, rows are
// written while they are in the cache, no page is faulted in, and a full memory or tmpfs is an
// error code instead of a signal. Once sealed, the memfd is what travels; nobody copies it again.
// Measured for 520 MB in rows of 5,200 bytes: 150 ms, against 680 to 950 ms for filling a mapping.
//
// A received body is followed by zeros up to 8 KiB and by at least one zero in any case, so it can
// be read as a whole record or as text whatever was sent.
//
// One thread at a time. Operations that can fail return a KX_ status.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <span>

#include "descriptor.h"
#include "kx_packet.h"

namespace kxbus {

// A mapping that unmaps itself.
class Mapping {
 public:
  Mapping() = default;
  Mapping(void* address, std::size_t length) : address_(address), length_(length) {}
  Mapping(Mapping&& other) noexcept { *this = std::move(other); }
  Mapping& operator=(Mapping&& other) noexcept {
    std::swap(address_, other.address_);
    std::swap(length_, other.length_);
    return *this;
  }
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  ~Mapping();

  char* get() const { return static_cast<char*>(address_); }

 private:
  void* address_ = nullptr;
  std::size_t length_ = 0;
};

class Buffer {
 public:
  // False when there is no memory; nothing else may be called then. A cleared buffer can receive
  // requests.
  bool allocate();
  bool allocate_cleared();

  std::size_t size() const { return stored_ + held_; }

  // The whole content, terminated; null when it is empty or cannot be mapped. Valid until the next
  // operation that changes the content.
  const char* read();

  // A part of the content, copied without being mapped.
  int copy(std::size_t offset, void* ret_bytes, std::size_t length);

  int append(const void* bytes, std::size_t length);
  // Replaces bytes that are already there.
  int overwrite(std::size_t offset, const void* bytes, std::size_t length);
  // Cuts, or grows with zeros.
  int resize(std::size_t size);
  void clear();

  // Receiving: the space for a packet's payload, then what the packet said.
  std::span<char> packet_space() { return {block_.get(), kLargestPayload}; }
  // Every packet that was received into the space is told of, also one that is then refused: its
  // bytes must not stand behind a later request.
  void received(std::size_t payload_length) { dirty_ = std::max(dirty_, payload_length); }
  void accept_request(std::size_t body_length);
  void accept_reply(std::size_t body_length);
  int accept_memfd(os::Descriptor& memfd, std::size_t length);  // takes it on success

  // Sending: either the bytes in the block or, once sealed, the memfd.
  bool in_packet() const { return !memfd_.valid() || size() == 0; }
  const char* block() const { return block_.get(); }
  int seal();
  int memfd() const { return memfd_.get(); }

 private:
  int make_room(std::size_t length);
  int append_zeros(std::size_t length);  // a packet's body of them at most
  void hold(std::size_t length);
  bool has_room_for(std::size_t size);
  int store(std::size_t offset, const void* bytes, std::size_t length);
  int flush();
  int move_to_memfd();
  int unseal();

  struct Free {
    void operator()(char* block) const { free(block); }
  };

  std::unique_ptr<char, Free> block_;
  std::size_t held_ = 0;     // bytes of content in the block
  std::size_t dirty_ = 0;    // bytes of a cleared block that may not be zero any more
  std::size_t stored_ = 0;   // bytes of content before them in the memfd
  std::size_t granted_ = 0;  // of the content, when room was last asked for
  os::Descriptor memfd_;
  bool sealed_ = false;
  Mapping view_;  // of the whole content, for reading
};

}  // namespace kxbus
