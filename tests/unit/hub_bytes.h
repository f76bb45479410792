// The sensor hub's words byte by byte, without the code that the hub and its client share.

#pragma once

#include <stdint.h>

#include <string>

inline std::string little_endian(uint64_t value, int size) {
  std::string bytes;
  for (int i = 0; i < size; ++i) {
    bytes += static_cast<char>(value >> (8 * i));
  }
  return bytes;
}

// A field that holds bytes, behind its key (number and wire type) and its length.
inline std::string sized(char key, const std::string& bytes) {
  std::string field(1, key);
  size_t length = bytes.size();
  for (; length > 0x7f; length >>= 7) {
    field += static_cast<char>(length | 0x80);
  }
  return field + static_cast<char>(length) + bytes;
}

inline std::string suid_bytes(uint64_t low, uint64_t high) {
  return "\x09" + little_endian(low, 8) + "\x11" + little_endian(high, 8);
}

inline std::string event_bytes(uint32_t msg_id, uint64_t time, const std::string& payload) {
  return sized('\x12', "\x0d" + little_endian(msg_id, 4) + "\x11" + little_endian(time, 8) +
                           sized('\x1a', payload));
}
