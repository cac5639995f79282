#include "platform/arguments.h"

namespace rq::platform {

Arguments::Arguments(int argc, char** argv) : m_texts(argv, argv + argc) {
    for (auto& text : m_texts) m_pointers.push_back(text.data());
    m_pointers.push_back(nullptr);
}

}  // namespace rq::platform
