// The servers of the tests of URLs (testdata/servers.py), for as long as the object lives. They are programs
// of the machine's own, also where this test runs in Wine (which starts such programs, but can neither wait
// for one nor end it: they end with the folder that they serve). One thread.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "kit/child.h"

namespace rq::transfer {

class UrlServers {
  public:
    // `folder` is served; `keys` gets the keys and certificates. Both in UTF-8.
    UrlServers(const std::string& folder, const std::string& keys, const std::vector<std::string>& wanted);
    ~UrlServers();
    UrlServers(const UrlServers&) = delete;
    UrlServers& operator=(const UrlServers&) = delete;

    std::string Output() const;
    std::string Errors() const;

  private:
    struct Process;
    std::unique_ptr<Process> m_process;
};

// Whether there is a way to run them at all.
bool CanServe();
// The kinds of ssh keys that work here.
std::vector<std::string> SshKeyKinds();

}  // namespace rq::transfer
