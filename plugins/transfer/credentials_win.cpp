#include "credentials.h"

#undef NOUSER  // the header of access lists builds on it
#include "plugin_common/win_text.h"

// After the system's own header.
#include <aclapi.h>

#include <memory>

namespace rq::transfer {
namespace {

struct LocalFreer {
    void operator()(void* memory) const { ::LocalFree(memory); }
};

// TOKEN_USER and what it points to; null when the system cannot tell.
std::unique_ptr<char[]> ThisUser() {
    HANDLE token = nullptr;
    if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &token)) return nullptr;
    DWORD room = 0;
    ::GetTokenInformation(token, TokenUser, nullptr, 0, &room);
    auto user = std::make_unique<char[]>(room);
    const BOOL isKnown = ::GetTokenInformation(token, TokenUser, user.get(), room, &room);
    ::CloseHandle(token);
    return isKnown ? std::move(user) : nullptr;
}

bool MayBeThere(PSID sid, PSID user) {
    if (::EqualSid(sid, user)) return true;
    for (const auto type :
         {WinLocalSystemSid, WinBuiltinAdministratorsSid, WinCreatorOwnerSid, WinCreatorOwnerRightsSid}) {
        if (::IsWellKnownSid(sid, type)) return true;
    }
    return false;
}

}  // namespace

bool IsPrivateFile(const std::string& path) {
    std::wstring name = task::NativePath(path);
    const DWORD attributes = ::GetFileAttributesW(name.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) return false;
    PSID owner = nullptr;
    ACL* list = nullptr;
    PSECURITY_DESCRIPTOR raw = nullptr;
    const DWORD code = ::GetNamedSecurityInfoW(name.data(), SE_FILE_OBJECT,
                                               OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, &owner,
                                               nullptr, &list, nullptr, &raw);
    const std::unique_ptr<void, LocalFreer> descriptor(raw);
    const auto token = ThisUser();
    if (code != ERROR_SUCCESS || !token || owner == nullptr || list == nullptr) return false;
    PSID user = reinterpret_cast<TOKEN_USER*>(token.get())->User.Sid;
    if (!MayBeThere(owner, user)) return false;
    for (DWORD i = 0; i < list->AceCount; ++i) {
        void* entry = nullptr;
        if (!::GetAce(list, i, &entry)) return false;
        auto* allowed = static_cast<ACCESS_ALLOWED_ACE*>(entry);
        if (allowed->Header.AceType == ACCESS_DENIED_ACE_TYPE || allowed->Mask == 0) continue;
        if (allowed->Header.AceType != ACCESS_ALLOWED_ACE_TYPE || !MayBeThere(&allowed->SidStart, user))
            return false;
    }
    return true;
}

std::string PrivacyRemedy(const std::string& path) {
    return "make it that user's own: icacls \"" + path + "\" /inheritance:r /grant:r \"%USERNAME%\":F";
}

}  // namespace rq::transfer
