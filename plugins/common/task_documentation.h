// The examples of a page of docs/tasks, and what its schema says of a text. For tests.
#pragma once

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "base/paths.h"
#include "kit/child.h"
#include "kit/files.h"
#include "kit/os.h"
#include "kit/temp_dir.h"

namespace rq::task {

struct Example {
    bool isRefused = false;
    bool schemaTakes = true;
    std::string error;  // what the reader says
    std::string text;
    int line = 0;  // in the page
};

// Fenced blocks that begin with ```xml, ```xml refused "..." or, when a schema cannot say it, ```xml mixed
// "...".
inline std::vector<Example> ReadExamples(const std::string& pageFile) {
    std::vector<Example> examples;
    std::istringstream lines(kit::ReadText(PathFromUtf8(pageFile)));
    int number = 0;
    bool inside = false;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        if (inside && line == "```") {
            inside = false;
        } else if (inside) {
            examples.back().text += line + "\n";
        } else if (line == "```xml" || line.rfind("```xml refused ", 0) == 0 ||
                   line.rfind("```xml mixed ", 0) == 0) {
            inside = true;
            Example& example = examples.emplace_back();
            example.line = number;
            example.isRefused = line != "```xml";
            example.schemaTakes = line.find(" refused ") == std::string::npos;
            if (const std::size_t quote = line.find('"'); quote != std::string::npos)
                example.error = line.substr(quote + 1, line.rfind('"') - quote - 1);
        }
    }
    return examples;
}

// The text with the absolute paths of these elements as this system has them.
inline std::string ForThisSystem(std::string text, const std::vector<std::string>& elements = {"Path"}) {
    for (const std::string& element : elements) {
        const std::string begin = "<" + element + ">/";
        for (std::size_t at = text.find(begin); at != std::string::npos; at = text.find(begin, at + 1))
            text.insert(at + begin.size() - 1, kit::RootName());
    }
    return text;
}

// Whether xmllint finds the text valid against the schema.
inline bool SchemaTakes(const std::string& schema, const std::string& text) {
    const kit::TempDir dir;
    const std::string file = Utf8FromPath(dir.Write("example.xml", text));
    kit::Child xmllint(RQ_XMLLINT, {"--nonet", "--noout", "--schema", RQ_TASK_DOCS "/" + schema, file});
    // 0 valid; 3 not valid. Anything else is xmllint's or the schema's own trouble.
    const int code = xmllint.ExitCode();
    EXPECT_TRUE(code == 0 || code == 3) << code << xmllint.Errors();
    return code == 0;
}

}  // namespace rq::task
