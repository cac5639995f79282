#include "platform/private_check.h"

#include "platform/private_access.h"

// After the system's own header.
#include <aclapi.h>
#include <sddl.h>

#include <memory>

namespace rq::platform {

namespace {

struct LocalFreer {
    void operator()(void* memory) const { ::LocalFree(memory); }
};

std::wstring Text(PSID sid) {
    wchar_t* raw = nullptr;
    if (!::ConvertSidToStringSidW(sid, &raw)) return {};
    const std::unique_ptr<wchar_t, LocalFreer> text(raw);
    return text.get();
}

// The system and its administrators can do everything anyway.
bool MayBeThere(PSID sid, const std::wstring& user) {
    if (Text(sid) == user) return true;
    for (const auto type :
         {WinLocalSystemSid, WinBuiltinAdministratorsSid, WinCreatorOwnerSid, WinCreatorOwnerRightsSid}) {
        if (::IsWellKnownSid(sid, type)) return true;
    }
    return false;
}

// The first besides this user who is allowed something.
std::optional<std::string> Other(ACL* list, const std::wstring& user) {
    for (DWORD i = 0; i < list->AceCount; ++i) {
        void* raw = nullptr;
        if (!::GetAce(list, i, &raw)) continue;
        auto* entry = static_cast<ACCESS_ALLOWED_ACE*>(raw);
        if (entry->Header.AceType != ACCESS_ALLOWED_ACE_TYPE || entry->Mask == 0) continue;
        PSID sid = &entry->SidStart;
        if (!MayBeThere(sid, user)) return Utf8Of(Text(sid));
    }
    return std::nullopt;
}

std::optional<std::string> RightsTrouble(const std::string& path, const char* rights) {
    PSID owner = nullptr;
    ACL* list = nullptr;
    PSECURITY_DESCRIPTOR raw = nullptr;
    std::wstring name = NativePath(path);
    const DWORD code = ::GetNamedSecurityInfoW(name.data(), SE_FILE_OBJECT,
                                               OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, &owner,
                                               nullptr, &list, nullptr, &raw);
    const std::unique_ptr<void, LocalFreer> descriptor(raw);
    if (code != ERROR_SUCCESS)
        return path + ": who may use it cannot be found out (error " + std::to_string(code) + ")";
    const std::wstring self = UserSid();
    if (self.empty()) return std::nullopt;  // what is made private then is so in name only
    const std::string remedy =
        "; make it private: icacls \"" + path + "\" /inheritance:r /grant:r \"%USERNAME%\":" + rights;
    if (list == nullptr) return path + " can be used by everybody" + remedy;
    if (const auto other = Other(list, self)) return path + " can be used by " + *other + remedy;
    if (owner != nullptr && !MayBeThere(owner, self))
        return path + " belongs to " + Utf8Of(Text(owner)) + ", another user" + remedy;
    return std::nullopt;
}

}  // namespace

std::optional<std::string> FilePrivacyTrouble(const std::string& path) {
    const DWORD attributes = ::GetFileAttributesW(NativePath(path).c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) return path + " cannot be found";
    if ((attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) != 0)
        return path + " is " + ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? "no regular file" : "a link") +
               "; put a file of this user's in its place, or remove it";
    return RightsTrouble(path, "F");
}

std::optional<std::string> FolderPrivacyTrouble(const std::string& path) {
    return RightsTrouble(path, "(OI)(CI)F");
}

}  // namespace rq::platform
