// INI texts over SimpleIni, parsed once for each state of a file.
// The text is UTF-8 before the library sees it; its code is compiled here (Debian keeps it behind this name).
#define SI_NO_CONVERSION
#define SI_IMPLEMENTATION
#include <SimpleIni.h>

#include <atomic>
#include <cstdint>
#include <exception>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "base/sync.h"
#include "base/text.h"
#include "platform/files.h"
#include "util/file_text.h"
#include "util/ini_cache.h"
#include "util/utility.h"
#include "util/worker_util.h"

namespace {

using Section = std::map<std::string, std::string, std::less<>>;
using Sections = std::map<std::string, Section, std::less<>>;

using Stamp = rq::platform::FileState;

constexpr std::uint64_t kLargestFile_bytes = 16 * 1024 * 1024;

std::optional<Stamp> StampOf(const std::string& path) {
    const std::optional<Stamp> stamp = rq::platform::StateOfFile(path);
    if (stamp && stamp->size_bytes > kLargestFile_bytes) return std::nullopt;
    return stamp;
}

// Names and values as they stand, without the blanks around them; of two entries with one name the last
// counts.
std::optional<Sections> Parse(const std::string& path) {
    const std::optional<std::string> bytes = rq::platform::ReadWholeFile(path);
    if (!bytes) return std::nullopt;
    CSimpleIniCaseA ini(/*isUtf8=*/true, /*multiKey=*/false, /*multiLine=*/false);
    if (ini.LoadData(rq::DecodeFileText(*bytes)) < 0) return std::nullopt;
    Sections sections;
    CSimpleIniCaseA::TNamesDepend names;
    ini.GetAllSections(names);
    for (const CSimpleIniCaseA::Entry& name : names) {
        const CSimpleIniCaseA::TKeyVal* entries = ini.GetSection(name.pItem);
        if (entries == nullptr) continue;
        Section& section = sections[name.pItem];
        for (const auto& [key, value] : *entries) section[key.pItem] = value;
    }
    return sections;
}

}  // namespace

namespace KWOVL_UTILITY {

// One state of one file. Never changed once it is made.
struct OVLIniFile {
    Stamp stamp;
    Sections sections;
    std::size_t handles = 0;  // given out and not freed; guarded by the cache's lock
};

}  // namespace KWOVL_UTILITY

namespace rq {
namespace {

using KWOVL_UTILITY::OVLIniFile;

class IniCache {
  public:
    OVLIniFile* Load(const std::string& path) RQ_EXCLUDES(m_mutex);
    void Free(OVLIniFile* file) RQ_EXCLUDES(m_mutex);
    std::uint64_t Parses() const { return m_parses.load(); }

  private:
    void Retire(std::unique_ptr<OVLIniFile> file) RQ_REQUIRES(m_mutex) {
        if (file && file->handles > 0) m_retired.push_back(std::move(file));
    }

    Mutex m_mutex;
    std::map<std::string, std::unique_ptr<OVLIniFile>> m_current RQ_GUARDED_BY(m_mutex);  // by path
    // Older states of files with handles that are still out.
    std::vector<std::unique_ptr<OVLIniFile>> m_retired RQ_GUARDED_BY(m_mutex);
    std::atomic<std::uint64_t> m_parses{0};
};

OVLIniFile* IniCache::Load(const std::string& path) {
    MutexLock lock(m_mutex);
    std::unique_ptr<OVLIniFile>& current = m_current[path];
    // Taken before the file is read: a change in between makes the next load read again.
    const std::optional<Stamp> stamp = StampOf(path);
    if (!stamp) {
        Retire(std::move(current));
        m_current.erase(path);
        return nullptr;
    }
    if (!current || !(current->stamp == *stamp)) {
        m_parses.fetch_add(1);
        std::optional<Sections> sections = Parse(path);
        Retire(std::move(current));
        if (!sections) {
            m_current.erase(path);
            return nullptr;
        }
        current = std::make_unique<OVLIniFile>(OVLIniFile{*stamp, *std::move(sections)});
    }
    ++current->handles;
    return current.get();
}

void IniCache::Free(OVLIniFile* file) {
    MutexLock lock(m_mutex);
    if (file->handles > 0) --file->handles;
    if (file->handles == 0) {
        std::erase_if(m_retired, [file](const auto& retired) { return retired.get() == file; });
    }
}

IniCache& TheCache() {
    static auto* cache = new IniCache();  // a status may be reported until the very end of the process
    return *cache;
}

}  // namespace

std::uint64_t IniParses() {
    return TheCache().Parses();
}

}  // namespace rq

namespace KWOVL_UTILITY {

OVLIniHandle OVLIniLoad(std::string path) {
    try {
        return rq::TheCache().Load(path);
    } catch (const std::exception& error) {  // no memory
        rq::Log(4, "INI file " + path + " is not used: " + error.what());
        return nullptr;
    }
}

std::int32_t OVLIniGetString(OVLIniHandle handle, const char* key, std::string fallback, std::wstring& text) {
    const std::string_view whole = key == nullptr ? std::string_view() : key;
    const std::size_t colon = whole.rfind(':');
    if (handle != nullptr && colon != std::string_view::npos) {
        const auto section = handle->sections.find(whole.substr(0, colon));
        if (section != handle->sections.end()) {
            const auto entry = section->second.find(whole.substr(colon + 1));
            if (entry != section->second.end()) {
                text = rq::WidenUtf8(entry->second);
                return kIniFound;
            }
        }
    }
    text = rq::WidenUtf8(fallback);
    return kIniFallback;
}

void OVLIniFree(OVLIniHandle handle) {
    if (handle != nullptr) rq::TheCache().Free(handle);
}

}  // namespace KWOVL_UTILITY
