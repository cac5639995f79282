// URLs of task texts: which are taken, and their parts. What is said about one never repeats it. Pure; any
// thread.
#pragma once

#include <string>
#include <string_view>

namespace rq::transfer {

// "scheme://...", whatever the scheme.
bool IsUrl(std::string_view text);

// Why a URL is not taken, as it stands behind the element's name; empty when it is: http, https, ftp, ftps or
// sftp, a host, and the path of a file, without user, query and fragment.
std::string WhyNotTaken(std::string_view url);

// Of a URL that is taken. The host in lower case, without its port.
std::string SchemeOf(std::string_view url);
std::string HostOf(std::string_view url);
// Up to the last slash, with it; and what stands behind it, with its %XX decoded.
std::string FolderOf(std::string_view url);
std::string FileNameOf(std::string_view url);
// The whole path as an sftp server takes it: decoded, and relative to the user's folder behind "/~/".
std::string PathOnServer(std::string_view url);
// A file name as it stands in a URL.
std::string Encoded(std::string_view name);

}  // namespace rq::transfer
