#include "ctl/transfer_task.h"

#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "ctl/file_argument.h"

namespace rq::ctl {

namespace {

using nlohmann::json;

bool IsUrl(const std::string& name) {
    const std::size_t end = name.find("://");
    return end != std::string::npos && end > 1 && name.find_first_of("/\\") == end + 1;
}

std::string Element(const std::string& name, const std::string& text) {
    return text.empty() ? "" : "<" + name + ">" + EscapeXml(text) + "</" + name + ">";
}

std::string Setting(const std::string& name, const std::string& text) {
    return text.empty() ? "" : "  " + Element(name, text) + "\n";
}

std::string Line(const json& output) {
    const auto size = output.find("size_bytes");
    const auto bytes = size != output.end() && size->is_number_unsigned() ? size->get<std::uint64_t>() : 0;
    char text[64];
    std::snprintf(text, sizeof text, ", %.1f MiB", static_cast<double>(bytes) / (1 << 20));
    const std::string further = output.value("further_text", "");
    return output.value("first", "") + ": " + output.value("second", "") + text +
           (further.empty() ? "" : ", " + further) + "\n";
}

}  // namespace

Result<TransferOptions> PrepareTransfer(TransferOptions options) {
    const bool isFolder = !IsUrl(options.source) && IsFolderName(options.source);
    if (!IsUrl(options.source)) {
        auto source = isFolder ? ExistingFolder(options.source) : ExistingFile(options.source);
        if (!source) return source.error();
        options.source = std::move(*source);
    }
    if (!IsUrl(options.target)) {
        // A folder may be filled further.
        auto target = isFolder && IsFolderName(options.target) ? ExistingFolder(options.target)
                                                               : NewFile(options.target, options.overwrite);
        if (!target) return target.error();
        options.target = std::move(*target);
    }
    return options;
}

std::string BuildTransferTaskXml(const std::string& id, const TransferOptions& options) {
    const auto flag = [](const char* name, bool isSet) { return Setting(name, isSet ? "true" : ""); };
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<TransferTask>\n" + Setting("ID", id) +
           Setting("Mode", options.move ? "move" : "") + flag("Overwrite", options.overwrite) +
           flag("MD5", options.md5) + flag("SHA256", options.sha256) + flag("Verify", options.verify) +
           flag("Manifest", options.manifest) + Setting("RateLimit_kBps", options.rate_kBps) +
           "  <Items><Item>" + Element("Source", options.source) + Element("Target", options.target) +
           Element("MD5", options.expected) + Element("Credentials", options.credentials) +
           "</Item></Items>\n</TransferTask>\n";
}

std::string ReportTransfer(const json& result) {
    std::string text;
    if (!result.is_object() || result.value("kind", "") != "transfer" || !result.contains("outputs"))
        return text;
    for (const auto& output : result["outputs"])
        if (output.is_object()) text += Line(output);
    return text;
}

}  // namespace rq::ctl
