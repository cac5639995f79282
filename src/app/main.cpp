// The program's entry. Windows calls wmain itself; elsewhere main gives it the arguments as wide texts.
#ifndef _WIN32
#include <vector>

#include "app/start_up.h"
#include "base/text.h"

// Arguments that are not UTF-8 get U+FFFD for what is not.
int main(int argc, char** argv) {
    std::vector<rq::WideText> texts;
    for (int i = 0; i < argc; ++i) texts.push_back(rq::WidenUtf8(argv[i]));
    std::vector<wchar_t*> arguments;
    for (auto& text : texts) arguments.push_back(text.data());
    arguments.push_back(nullptr);
    return wmain(argc, arguments.data());
}
#endif
