#include "url_servers.h"

namespace rq::transfer {

struct UrlServers::Process {
    kit::Child child;
};

UrlServers::UrlServers(const std::string& folder, const std::string& keys,
                       const std::vector<std::string>& wanted) {
    std::vector<std::string> arguments{"-B", RQ_SERVERS, folder, keys};
    arguments.insert(arguments.end(), wanted.begin(), wanted.end());
    m_process.reset(new Process{{RQ_PYTHON, arguments}});
}

UrlServers::~UrlServers() = default;

std::string UrlServers::Output() const {
    return m_process->child.Output();
}

std::string UrlServers::Errors() const {
    return m_process->child.Errors();
}

bool CanServe() {
    return true;
}

std::vector<std::string> SshKeyKinds() {
#ifdef __SANITIZE_ADDRESS__
    return {"ed25519"};  // libssh2 1.10 leaves memory behind for the others
#else
    return {"ecdsa", "ed25519"};
#endif
}

}  // namespace rq::transfer
