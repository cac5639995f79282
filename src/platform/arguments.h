// The command line as UTF-8. On Windows a program's narrow arguments are in the ANSI code page, which loses
// characters, so the wide command line is taken apart again. Main thread, at start-up.
#pragma once

#include <string>
#include <vector>

namespace rq::platform {

class Arguments {
  public:
    // Given what main was given.
    Arguments(int argc, char** argv);
    Arguments(const Arguments&) = delete;
    Arguments& operator=(const Arguments&) = delete;

    // The form that main has, a null pointer at the end; lives as long as this object.
    int Count() const { return static_cast<int>(m_texts.size()); }
    char** Vector() { return m_pointers.data(); }

  private:
    std::vector<std::string> m_texts;
    std::vector<char*> m_pointers;
};

}  // namespace rq::platform
