// slot.h -- the hash that Redis Cluster uses to place keys in its 16384
// slots: CRC16 (XMODEM: polynomial 0x1021, initial value 0) of the key's hash
// tag, modulo 16384.
#ifndef KELVANE_SLOT_H
#define KELVANE_SLOT_H

#include <cstddef>
#include <cstdint>

namespace kelvane {

inline constexpr int kSlotCount = 16384;

// Continues a CRC16 over n more bytes, so that a key can be hashed in pieces.
uint16_t crc16_update(uint16_t crc, const char* bytes, std::size_t n);

}  // namespace kelvane

#endif  // KELVANE_SLOT_H
