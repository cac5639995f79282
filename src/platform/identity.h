// Randomness and identifiers from the operating system. Any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace rq::platform {

// Layout of a GUID: one 32-bit, two 16-bit numbers and eight bytes.
struct Guid {
    std::uint32_t data1 = 0;
    std::uint16_t data2 = 0;
    std::uint16_t data3 = 0;
    std::array<std::uint8_t, 8> data4{};
};

// A fresh random GUID (CoCreateGuid on Windows, a version 4 UUID elsewhere).
Guid CreateGuid();
// Fills from the system's cryptographic source; ends the process with abort() when there is none.
void RandomBytes(void* buffer, std::size_t size);
// `bytes` random bytes as lower-case hexadecimal text.
std::string RandomHex(std::size_t bytes);

// Per-user folder for data that stays: /var/lib/rqworker for root, $XDG_DATA_HOME/rqworker or
// ~/.local/share/rqworker for others, %LOCALAPPDATA%\RQWorker on Windows. Never ends with a separator.
std::string DefaultDataFolder();

}  // namespace rq::platform
