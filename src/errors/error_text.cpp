#include "errors/error_text.h"

#include "errors/error_tables.h"
#include "util/utility.h"

namespace rq {

std::string GetErrorName(std::uint32_t code, std::uint32_t family) {
    switch (family) {
        case kFamilyNetwork:
            return NetworkErrorName(code);
        case kFamilyInspection:
            return InspectionErrorName(code);
        case kFamilyTask:
            return TaskErrorName(code);
        default:
            return CodecErrorName(code);
    }
}

std::int32_t GetErrorText(std::uint32_t code, std::uint32_t family, std::wstring& text) {
    using namespace KWOVL_UTILITY;
    std::string path;
    OVLIniGetPath(path);
    path += "KWROVLApparitor.ini";
    // Loaded on every call and not freed: the cache behind it owns the parsed file and parses it again only
    // after a change. A file that is not there gives null, which has no entries.
    const OVLIniHandle file = OVLIniLoad(path);
    const std::string name = GetErrorName(code, family);
    const std::string key = name + ":1";
    OVLIniGetString(file, key.c_str(), name, text);
    return 1;
}

}  // namespace rq
