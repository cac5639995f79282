#include "plugin/worker_type_table.h"

#include <cstdio>
#include <string_view>
#include <utility>

#include "platform/files.h"
#include "util/utility.h"
#include "util/worker_util.h"

namespace rq {
namespace {

using KWOVL_UTILITY::OVLTStringToString;

constexpr int kLevelFailure = 4;

// `format` with its one placeholder replaced.
std::string Fill(std::string_view format, std::string_view placeholder, const std::string& value) {
    std::string text(format);
    return text.replace(text.find(placeholder), placeholder.size(), value);
}

bool Exists(const std::string& name) {
    std::FILE* file = platform::OpenFile(name, "r");
    if (file == nullptr) return false;
    std::fclose(file);
    return true;
}

}  // namespace

WorkerTypeTable::WorkerTypeTable() : WorkerTypeTable(GetModuleDirectory()) {}

WorkerTypeTable::WorkerTypeTable(WideText moduleDirectory) : m_moduleDirectory(std::move(moduleDirectory)) {}

bool WorkerTypeTable::LoadConfig() {
    const WideText wideName = m_moduleDirectory + L"RQWorkerConfig.xml";
    const std::string name = OVLTStringToString(wideName);
    if (!Exists(name)) {
        Log(kLevelFailure, Fill("File [%s] does not exist.", "%s", name));
        return false;
    }
    TypeTableReading reading = ReadTypeTable(name);
    switch (reading.state) {
        case TypeTableReading::State::NotParsed:
            Log(kLevelFailure, Fill("File [%s] load failed.", "%s", name));
            Log(kLevelFailure, "RQWorkerConfig.xml: " + reading.problem);
            return false;
        case TypeTableReading::State::NoElement:
            Log(kLevelFailure, Fill("File [%s] element is null.", "%s", name));
            return false;
        case TypeTableReading::State::Read:
            break;
    }
    m_entries = std::move(reading.entries);
    return true;
}

bool WorkerTypeTable::GetWorkerDllPath(std::int32_t type, WideText& path) {
    if (!LoadConfig()) return false;
    const auto found = m_entries.find(type);
    if (found == m_entries.end()) {
        Log(kLevelFailure, Fill("Cannot Find Worker Dll! Type [%d].", "%d", std::to_string(type)));
        return false;
    }
    path = found->second.path;
    return true;
}

}  // namespace rq
