// Names and readable texts of result codes. Families: 0 codec (2 and any other too), 1 network and transfer,
// 3 inspection, 4 the worker's own tasks. Any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace rq {

inline constexpr std::uint32_t kFamilyCodec = 0;
inline constexpr std::uint32_t kFamilyNetwork = 1;
inline constexpr std::uint32_t kFamilyInspection = 3;
inline constexpr std::uint32_t kFamilyTask = 4;

// The symbolic name, or the family's fallback with the code in upper-case hexadecimal.
std::string GetErrorName(std::uint32_t code, std::uint32_t family);

// The readable text of the code: the entry "<name>:1" of "KWROVLApparitor.ini", else the name itself.
// Always 1.
std::int32_t GetErrorText(std::uint32_t code, std::uint32_t family, std::wstring& text);

struct ErrorName {
    std::uint32_t family;
    std::uint32_t code;
    const char* name;
};
// Every known code, by family and code (families 0, 1, 3, 4).
const std::vector<ErrorName>& AllErrorNames();

}  // namespace rq
