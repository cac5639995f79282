// File names of a command line on their way into a task text. They only look at the file system; any thread.
#pragma once

#include <string>

#include "base/result.h"

namespace rq::ctl {

// Whether it is an absolute path as systems of the other kind have them ("Z:\media\a" on Linux,
// "/mnt/media/a" on Windows) and nothing here is called so: a node may map it, and only the node can tell
// what is there.
bool IsOfAnotherSystem(const std::string& name);

// The absolute path (links are not followed) of a readable plain file, in UTF-8 and fit for XML. One of
// another system stays as it is. Errors begin with the name.
Result<std::string> ExistingFile(const std::string& name);

// Whether the name is that of a folder, maybe behind a link.
bool IsFolderName(const std::string& name);

// The absolute path of a folder, in the same way.
Result<std::string> ExistingFolder(const std::string& name);

// The same of a file that is to be made: its folder must be there, itself only with `overwrite`. One of
// another system stays as it is.
Result<std::string> NewFile(const std::string& name, bool overwrite);

// Text content of an element: & < > escaped, and what a parser would change kept as character references.
std::string EscapeXml(const std::string& text);

}  // namespace rq::ctl
