#include "plugincheck/host_probe.h"

#include <string>

#include "base/text.h"
#include "plughost/plugin_text.h"

namespace rq::plugincheck {
namespace {

HostProbe& ProbeOf(void* context) {
    return *static_cast<HostProbe*>(context);
}

}  // namespace

HostProbe& HostProbe::Make(JournalWriter& journal, const RQHostServices* services) {
    static HostProbe* const probe = new HostProbe(journal, services);  // one plug-in a process
    return *probe;
}

HostProbe::HostProbe(JournalWriter& journal, const RQHostServices* services)
    : m_journal(journal), m_services(services) {
    m_plain.size = sizeof m_plain;
    m_plain.contractVersion = RQ_CONTRACT_VERSION;
    m_plain.context = this;
    m_plain.log = [](void* context, std::int32_t level, RQText text) {
        HostProbe& probe = ProbeOf(context);
        probe.CheckText(text, "a line for the log");
        probe.m_services->log(probe.m_services->context, level, text);
    };
    m_plain.waitForStop = [](void* context, std::uint32_t timeout_ms) {
        HostProbe& probe = ProbeOf(context);
        return probe.m_services->waitForStop(probe.m_services->context, timeout_ms);
    };
    m_plain.publishError = [](void* context, std::uint32_t detailErrorCode, std::int32_t errorCode,
                              RQText detail, RQText further) {
        HostProbe& probe = ProbeOf(context);
        probe.CheckPerforming("publishError");
        probe.CheckText(detail, "a published detail error text");
        probe.CheckText(further, "a published further text");
        probe.m_services->publishError(probe.m_services->context, detailErrorCode, errorCode, detail,
                                       further);
    };
    m_plain.publishResult = [](void* context, std::uint32_t kind, const void* entry) {
        HostProbe& probe = ProbeOf(context);
        probe.CheckPerforming("publishResult");
        return probe.m_services->publishResult(probe.m_services->context, kind, entry);
    };
    m_plain.quietFor = [](void* context, std::uint32_t seconds) {
        HostProbe& probe = ProbeOf(context);
        probe.m_services->quietFor(probe.m_services->context, seconds);
    };
    m_plain.temporaryFolder = [](void* context) {
        HostProbe& probe = ProbeOf(context);
        return probe.m_services->temporaryFolder(probe.m_services->context);
    };
}

void HostProbe::CheckText(RQText text, const char* what) {
    const std::string_view bytes = PluginTextView(text);
    if (!IsValidUtf8(bytes))
        m_journal.Tell(Check::InvalidUtf8, std::string(what) + ": \"" + RepairUtf8(bytes) + "\"");
}

void HostProbe::CheckPerforming(const char* what) {
    if (!m_isPerforming)
        m_journal.Tell(Check::WrongOrder, std::string(what) + " was called with no perform call running");
}

}  // namespace rq::plugincheck
