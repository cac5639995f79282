// Users and passwords by name: RQWorkerCredentials.xml in the node's configuration folder, which only the
// worker's user may read (docs/tasks/transfer.md). What is said about the file never repeats a value of it.
// Any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "failure.h"

namespace rq::transfer {

constexpr std::string_view kCredentialsFile = "RQWorkerCredentials.xml";

struct Credential {
    std::string host;  // in lower case; nobody else gets them
    std::string user;  // empty: none
    std::string password;
    std::string caFile;  // whose certificates are trusted instead of the system's; empty: the system's
    // With sftp: the hosts' keys, as ssh keeps them, and the user's own, with what it is encrypted by.
    std::string knownHosts;
    std::string privateKeyFile;
    std::string passphrase;
};

// The entry of this name, for this host.
Problem FindCredential(const std::string& name, const std::string& host, Credential& found);

// Whether a file belongs to this process's user, and only that one may read or write it; on Windows the
// system and its administrators, too, who may anyway.
bool IsPrivateFile(const std::string& path);
// What to do with one that does not.
std::string PrivacyRemedy(const std::string& path);

}  // namespace rq::transfer
