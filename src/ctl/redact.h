// Takes secrets out of texts that leave the node. Pure; any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace rq::ctl {

// Replaced by "***": what stands behind a name that speaks of a password, passphrase, secret, token,
// credential or key (as an XML element, an attribute, a JSON field, or name=value), the user and password of
// a URL, and each of `known`.
std::string Redact(std::string_view text, const std::vector<std::string>& known = {});

}  // namespace rq::ctl
