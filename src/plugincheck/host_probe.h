// HostProbe: the host services that the plug-in gets here. Each call is looked at and handed on to the
// worker's own implementation. The record lives until the process ends; any thread may call it.
#pragma once

#include <rqworker/plugin.h>

#include <atomic>

#include "plughost/host_services.h"
#include "plugincheck/journal.h"

namespace rq::plugincheck {

class HostProbe {
  public:
    // `services` is the worker's record, which also lives until the process ends.
    static HostProbe& Make(JournalWriter& journal, const RQHostServices* services);

    const RQHostServices* Plain() const { return &m_plain; }
    void SetPerforming(bool isPerforming) { m_isPerforming = isPerforming; }

  private:
    HostProbe(JournalWriter& journal, const RQHostServices* services);
    void CheckText(RQText text, const char* what);
    void CheckPerforming(const char* what);

    JournalWriter& m_journal;
    const RQHostServices* m_services;
    RQHostServices m_plain{};
    std::atomic<bool> m_isPerforming{false};
};

}  // namespace rq::plugincheck
