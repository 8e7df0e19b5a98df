// slot.cpp -- CRC16, one table lookup per byte.
#include "slot.h"

#include <array>

namespace kelvane {
namespace {

constexpr std::array<uint16_t, 256> make_table() {
    std::array<uint16_t, 256> table{};
    for (int byte = 0; byte < 256; ++byte) {
        auto crc = static_cast<uint16_t>(byte << 8);
        for (int bit = 0; bit < 8; ++bit) {
            crc = static_cast<uint16_t>((crc & 0x8000) ? (crc << 1) ^ 0x1021 : crc << 1);
        }
        table[static_cast<std::size_t>(byte)] = crc;
    }
    return table;
}

constexpr std::array<uint16_t, 256> kTable = make_table();

}  // namespace

uint16_t crc16_update(uint16_t crc, const char* bytes, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) {
        const auto index = static_cast<uint8_t>((crc >> 8) ^ static_cast<uint8_t>(bytes[i]));
        crc = static_cast<uint16_t>((crc << 8) ^ kTable[index]);
    }
    return crc;
}

}  // namespace kelvane
