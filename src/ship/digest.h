// FNV-1a of 64 bits, as 16 hexadecimal digits: tells texts apart that nobody forges. Digests are
// kept on servers and must not change.
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace ship {

class Digest {
 public:
  Digest& add(std::string_view text) {
    for (const char byte : text) {
      value_ = (value_ ^ static_cast<unsigned char>(byte)) * 0x100000001B3;
    }
    return *this;
  }
  std::string text() const { return fmt::format("{:016x}", value_); }

 private:
  uint64_t value_ = 0xCBF29CE484222325;
};

}  // namespace ship
