// The XML form of the running parameters: one child element of <RunningParameters> for each field of
// records/running_parameter_table.inc under its element name, a list as repeated <Item>
// (docs/running-parameters.md). No files here. Any thread; a document is used by one thread.
#pragma once

#include <tinyxml.h>

#include <string>
#include <vector>

#include "records/running_parameter.h"

namespace rq {

inline constexpr const char* kRunningParameterRoot = "RunningParameters";

struct BadField {
    std::string element;
    int line = 0;          // of the element in the file, from 1
    std::string value;     // as it stands there
    std::string wanted;    // "a whole number from -2147483648 to 2147483647"
    std::string fallback;  // the default that is used, as it would be written
};

struct ReadReport {
    std::vector<std::string> missing;  // names of elements that the file does not have
    std::vector<BadField> bad;
};

// Fills every field that the root has; the others, and those whose text is no good, get their defaults.
ReadReport ReadFields(const TiXmlElement& root, tagOVLCommunicationParam& parameter);

// Writes every field below the root. Elements that already mean the same stay as they are (comments
// included), so does a text that is no good where the record holds the default; missing ones are added at the
// end; unknown ones stay.
void WriteFields(const tagOVLCommunicationParam& parameter, TiXmlElement& root);

}  // namespace rq
