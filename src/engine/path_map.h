// PathMap: what a path in a task text is called on this node. A table of prefixes, "Z:\media" ->
// "/mnt/media"; the longest one that a path begins with is replaced, at a whole component only. A prefix with
// a drive letter or of the form \\server\share is a Windows one: it is compared without regard to the case of
// ASCII letters, and both slashes separate. Any other is compared byte for byte. The rest of the path gets
// the separators of what it is put behind. Texts are UTF-8. Pure; any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"

namespace rq::engine {

struct PathRule {
    std::string given;  // as task texts have it
    std::string local;  // on this node

    bool operator==(const PathRule&) const = default;
};

struct MappedPath {
    std::string given;
    std::string local;

    bool operator==(const MappedPath&) const = default;
};

class PathMap {
  public:
    PathMap() = default;
    // An error names the rule that is no prefix, or that is there twice.
    static Result<PathMap> Make(std::vector<PathRule> rules);

    bool IsEmpty() const { return m_rules.empty(); }
    // As they were given.
    const std::vector<PathRule>& Rules() const { return m_rules; }
    // The rule that applies to the path; null when none does.
    const PathRule* RuleFor(std::string_view path) const;
    // The local path; nothing when no rule applies.
    std::optional<std::string> Local(std::string_view path) const;
    // The text with every path replaced that is the whole value of an attribute or the whole content of an
    // element (blanks around it stay); nothing else in it changes. A text that is no XML comes back as it is.
    // `mapped` gets each path that was replaced, in the order of the text.
    std::string Apply(std::string_view xml, std::vector<MappedPath>* mapped = nullptr) const;

  private:
    std::vector<PathRule> m_rules;
};

}  // namespace rq::engine
