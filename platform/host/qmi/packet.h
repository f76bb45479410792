// The packets between a QMI client and a simulated service: a head of kind, transaction, message id
// and length of the body, all little endian, and a body of fields: type byte, two bytes of length,
// value. With every packet that a client has taken and whose callback has returned, it sends a
// packet of kind kHandled, so that a service knows when its client has nothing left to do.

#pragma once

#include <stddef.h>
#include <stdint.h>

namespace qmi {

enum PacketKind : uint8_t { kRequest = 0, kResponse = 2, kIndication = 4, kHandled = 0xff };

struct PacketHead {
  PacketKind kind;
  uint16_t txn;
  uint16_t msg_id;
  uint16_t length;  // of the body, bytes
};

constexpr size_t kHeadSize = 7;
constexpr size_t kFieldHeadSize = 3;

// Writes (reads) kHeadSize bytes.
inline void write_head(const PacketHead& head, uint8_t* bytes) {
  bytes[0] = head.kind;
  const uint16_t numbers[] = {head.txn, head.msg_id, head.length};
  for (size_t i = 0; i < 3; ++i) {
    bytes[1 + 2 * i] = static_cast<uint8_t>(numbers[i]);
    bytes[2 + 2 * i] = static_cast<uint8_t>(numbers[i] >> 8);
  }
}

inline PacketHead read_head(const uint8_t* bytes) {
  const auto number = [bytes](size_t at) {
    return static_cast<uint16_t>(bytes[at] | bytes[at + 1] << 8);
  };
  return {static_cast<PacketKind>(bytes[0]), number(1), number(3), number(5)};
}

}  // namespace qmi
