// The texts that are made from the field table of the running parameters: the plain C header of the plug-in
// contract, the page that documents the parameters, and "actor.xml" with every default. Used by the generator
// program and its tests only. Pure functions; any thread.
#pragma once

#include <string>
#include <vector>

namespace rq {

// A generated file: its path under the top of the source tree, and its whole text.
struct GeneratedFile {
    std::string path;
    std::string text;
};

std::string RunningParameterHeader();    // sdk/include/rqworker/running_parameter.h
std::string RunningParameterDocument();  // docs/running-parameters.md
std::string RunningParameterXml();       // data/actor.xml

std::vector<GeneratedFile> GeneratedFiles();

}  // namespace rq
