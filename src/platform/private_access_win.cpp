#include "platform/private_access.h"

// After the system's own header.
#include <sddl.h>

#include <memory>

namespace rq::platform {

std::wstring UserSid() {
    HANDLE raw = nullptr;
    if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &raw)) return {};
    const WinHandle token(raw);
    DWORD room = 0;
    ::GetTokenInformation(token.Get(), TokenUser, nullptr, 0, &room);
    const auto buffer = std::make_unique<char[]>(room);
    if (!::GetTokenInformation(token.Get(), TokenUser, buffer.get(), room, &room)) return {};
    wchar_t* text = nullptr;
    if (!::ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(buffer.get())->User.Sid, &text)) return {};
    std::wstring sid = text;
    ::LocalFree(text);
    return sid;
}

PrivateAccess::PrivateAccess() {
    m_attributes.nLength = sizeof m_attributes;
    const std::wstring user = UserSid();
    if (user.empty()) return;
    // Protected: nothing is inherited. Full access for the user, also for what is made inside a folder.
    const std::wstring list = L"D:P(A;OICI;FA;;;" + user + L")";
    ::ConvertStringSecurityDescriptorToSecurityDescriptorW(list.c_str(), SDDL_REVISION_1,
                                                           &m_attributes.lpSecurityDescriptor, nullptr);
}

PrivateAccess::~PrivateAccess() {
    ::LocalFree(m_attributes.lpSecurityDescriptor);
}

SECURITY_ATTRIBUTES* PrivateAccess::Attributes() {
    return m_attributes.lpSecurityDescriptor == nullptr ? nullptr : &m_attributes;
}

}  // namespace rq::platform
