#include "platform/arguments.h"
#include "platform/win_api.h"

// After the system's own header.
#include <shellapi.h>

namespace rq::platform {

Arguments::Arguments(int argc, char** argv) {
    int count = 0;
    wchar_t** words = ::CommandLineToArgvW(::GetCommandLineW(), &count);
    for (int i = 0; words != nullptr && i < count; ++i) m_texts.push_back(Utf8Of(words[i]));
    if (words == nullptr) m_texts.assign(argv, argv + argc);
    ::LocalFree(words);
    for (auto& text : m_texts) m_pointers.push_back(text.data());
    m_pointers.push_back(nullptr);
}

}  // namespace rq::platform
