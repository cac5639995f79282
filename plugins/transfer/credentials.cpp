#include "credentials.h"

#include <algorithm>

#include "plugin_common/codes.h"
#include "plugin_common/file.h"
#include "plugin_common/node.h"
#include "plugin_common/typed_fields.h"

namespace rq::transfer {
namespace {

constexpr std::size_t kMaxFile_bytes = 1u << 20;

Failure Wrong(const std::string& words, std::uint32_t code = 0) {
    return {task::kErrorConfiguration, code, words};
}

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return text;
}

// Getters that would quote what stands there are not used: it may be a password in the wrong place.
Credential ReadEntry(const task::XmlElement& element, std::string& name, task::XmlError& error) {
    task::XmlFields fields(
        element, {"Name", "Host", "User", "Password", "CaFile", "KnownHosts", "PrivateKeyFile", "Passphrase"},
        error);
    const auto optional = [&](const char* child) {
        return fields.Optional(child, "leave it out when there is none").value_or("");
    };
    const auto path = [&](const char* child) {
        std::string value = optional(child);
        if (!error.Failed() && !value.empty() && !task::IsAbsolutePath(value))
            error.Set(fields.LineOf(child), "<" + std::string(child) + "> is no absolute path; give one");
        return value;
    };
    Credential entry;
    name = fields.Required("Name", "give the name that tasks call it by");
    entry.host = Lower(std::string(task::TrimXml(fields.Required("Host", "give the host that gets them"))));
    entry.user = optional("User");
    entry.password = optional("Password");
    entry.passphrase = optional("Passphrase");
    entry.caFile = path("CaFile");
    entry.knownHosts = path("KnownHosts");
    entry.privateKeyFile = path("PrivateKeyFile");
    return entry;
}

}  // namespace

Problem FindCredential(const std::string& name, const std::string& host, Credential& found) {
    const std::string folder = task::ConfigFolder();
    if (!task::IsAbsolutePath(folder)) return Wrong("RQ_CONFIG_DIR is no absolute path; give one");
    const std::string file = task::PathIn(folder, std::string(kCredentialsFile));
    if (task::IsAbsent(file)) return Wrong("this node has no credentials: there is no " + file);
    if (!IsPrivateFile(file))
        return Wrong(file + ": others than the worker's user may read or write it, so it is not used; " +
                     PrivacyRemedy(file));
    std::string text;
    bool isTooLong = false;
    const std::uint32_t code = task::ReadSmallFile(file, kMaxFile_bytes, text, isTooLong);
    if (code != 0) return Wrong(file + ": " + task::SystemWords(code), code);
    if (isTooLong) return Wrong(file + ": longer than 1 MiB");
    task::XmlElement root;
    task::XmlError error;
    bool isFound = false;
    if (task::ParseTaskXml(text, root, error) && task::CheckRoot(root, "Credentials", error)) {
        task::XmlFields fields(root, {"Entry"}, error);
        for (const task::XmlElement* child :
             fields.Repeated("Entry", "give at least one, or remove the file")) {
            std::string entryName;
            Credential entry = ReadEntry(*child, entryName, error);
            if (entryName != name) continue;
            if (isFound) error.Set(child->line, "<Name> is given twice");
            isFound = true;
            found = std::move(entry);
        }
    }
    if (error.Failed()) return Wrong(file + ": " + error.Text());
    if (!isFound) return Wrong(file + ": has no entry \"" + name + "\"");
    if (found.host != host)
        return Wrong(file + ": the entry \"" + name + "\" is for another host than " + host +
                     ", which does not get it");
    return std::nullopt;
}

}  // namespace rq::transfer
