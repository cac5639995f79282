#include <curl/curl.h>

#include <algorithm>
#include <cstring>
#include <thread>
#include <vector>

#include "plugin_common/codes.h"
#include "plugin_common/file.h"
#include "plugin_common/node.h"
#include "remote.h"
#include "url.h"

namespace rq::transfer {
namespace {

constexpr long kConnect_s = 30;
constexpr long kSilence_s = 60;
constexpr int kPoll_ms = 50;
constexpr int kMostNewBeginnings = 3;
// How long giving a name may take, and again looking what became of it.
constexpr std::chrono::seconds kNaming{30};

bool IsHttp(const std::string& url) {
    return SchemeOf(url).rfind("http", 0) == 0;
}

bool IsSftp(const std::string& url) {
    return SchemeOf(url) == "sftp";
}

// A path in a command of libcurl's for sftp.
std::string Quoted(const std::string& url) {
    std::string text = "\"";
    for (const char c : PathOnServer(url)) {
        if (c == '"' || c == '\\') text += '\\';
        text += c;
    }
    return text + "\"";
}

// What may be otherwise in a moment. `isMoved`: bytes came or went before it.
bool IsPassing(CURLcode code, long answer, bool isMoved = false) {
    switch (code) {
        case CURLE_SSH:  // its one word for all troubles after the greeting
            return isMoved;
        case CURLE_PARTIAL_FILE:
        case CURLE_RECV_ERROR:
        case CURLE_SEND_ERROR:
        case CURLE_GOT_NOTHING:
        case CURLE_OPERATION_TIMEDOUT:
        case CURLE_COULDNT_CONNECT:
        case CURLE_FTP_WEIRD_SERVER_REPLY:
        case CURLE_FTP_ACCEPT_TIMEOUT:
            return true;
        case CURLE_HTTP_RETURNED_ERROR:
            return answer == 429 || answer == 500 || answer == 502 || answer == 503 || answer == 504;
        default:
            return false;
    }
}

}  // namespace

struct Remote::Curl {
    CURL* easy = nullptr;
    CURLM* multi = nullptr;
    curl_slist* list = nullptr;
    bool isStopped = false;
    std::uint64_t position = 0;  // of the transfer, for progress
    // Of a download
    Sink* sink = nullptr;
    std::string validator;  // ETag or time of the first answer
    // Of an upload
    Supply* supply = nullptr;
    std::uint64_t passed_bytes = 0;
    Settings* settings = nullptr;

    Curl() {
        static const bool isReady = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
        if (!isReady) return;
        easy = curl_easy_init();
        multi = curl_multi_init();
    }
    ~Curl() {
        FreeList();
        curl_easy_cleanup(easy);
        curl_multi_cleanup(multi);
    }
    Curl(const Curl&) = delete;
    Curl& operator=(const Curl&) = delete;

    void FreeList() {
        curl_slist_free_all(list);
        list = nullptr;
    }

    template <class Value>
    void Set(CURLoption option, Value value) {
        curl_easy_setopt(easy, option, value);
    }

    // Connections stay; everything else is as new.
    void Prepare(const std::string& url) {
        curl_easy_reset(easy);
        FreeList();
        const Credential& credential = settings->credential;
        Set(CURLOPT_URL, url.c_str());
        Set(CURLOPT_NOSIGNAL, 1L);
        Set(CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
        Set(CURLOPT_PROTOCOLS_STR, "http,https,ftp,ftps,sftp");
        // Never from a protected connection to a plain one.
        Set(CURLOPT_REDIR_PROTOCOLS_STR, SchemeOf(url) == "https" ? "https" : "http,https");
        Set(CURLOPT_FAILONERROR, 1L);
        Set(CURLOPT_CONNECTTIMEOUT, kConnect_s);
        Set(CURLOPT_LOW_SPEED_LIMIT, 1L);
        Set(CURLOPT_LOW_SPEED_TIME, kSilence_s);
        Set(CURLOPT_TCP_KEEPALIVE, 1L);
        if (!credential.user.empty()) Set(CURLOPT_USERNAME, credential.user.c_str());
        if (!credential.password.empty()) Set(CURLOPT_PASSWORD, credential.password.c_str());
        if (!credential.caFile.empty()) Set(CURLOPT_CAINFO, credential.caFile.c_str());
        // Where the system looks at lists of revoked certificates (Windows): a certificate without one will
        // do.
        Set(CURLOPT_SSL_OPTIONS, static_cast<long>(CURLSSLOPT_REVOKE_BEST_EFFORT));
        Set(CURLOPT_WRITEFUNCTION, &Curl::Drop);
        if (SchemeOf(url) != "sftp") return;
        Set(CURLOPT_SSH_KNOWNHOSTS, credential.knownHosts.c_str());  // without it any host would do
        if (credential.privateKeyFile.empty()) {
            Set(CURLOPT_SSH_AUTH_TYPES, static_cast<long>(CURLSSH_AUTH_PASSWORD | CURLSSH_AUTH_KEYBOARD));
        } else {
            Set(CURLOPT_SSH_AUTH_TYPES, static_cast<long>(CURLSSH_AUTH_PUBLICKEY));
            Set(CURLOPT_SSH_PRIVATE_KEYFILE, credential.privateKeyFile.c_str());
            // Not every library finds the public key in the private one.
            const std::string publicKey = credential.privateKeyFile + ".pub";
            if (!task::IsAbsent(publicKey)) Set(CURLOPT_SSH_PUBLIC_KEYFILE, publicKey.c_str());
            Set(CURLOPT_KEYPASSWD, credential.passphrase.c_str());
        }
    }

    static std::size_t Drop(char*, std::size_t size, std::size_t count, void*) { return size * count; }

    static std::size_t Write(char* bytes, std::size_t size, std::size_t count, void* self) {
        auto& curl = *static_cast<Curl*>(self);
        const std::size_t length = size * count;
        curl.sink->code = curl.sink->write(curl.position, bytes, length);
        if (curl.sink->code != 0) return 0;
        curl.position += length;
        return curl.LetPass(length) ? length : 0;
    }

    static std::size_t Read(char* bytes, std::size_t size, std::size_t count, void* self) {
        auto& curl = *static_cast<Curl*>(self);
        std::size_t got = 0;
        const auto wanted = static_cast<std::size_t>(curl.settings->limit->Portion(size * count));
        curl.supply->code = curl.supply->file.ReadAt(curl.position, bytes, wanted, got);
        if (curl.supply->code != 0) return CURL_READFUNC_ABORT;
        const std::uint64_t end = curl.position + got;
        if (end > curl.passed_bytes) {
            const auto skipped = static_cast<std::size_t>(curl.passed_bytes - curl.position);
            if (!curl.supply->pass(bytes + skipped, got - skipped)) return CURL_READFUNC_ABORT;
            curl.passed_bytes = end;
        }
        curl.position = end;
        return curl.LetPass(got) ? got : CURL_READFUNC_ABORT;
    }

    // Never beyond what was passed: each byte has to be seen once.
    static int Seek(void* self, curl_off_t offset, int origin) {
        auto& curl = *static_cast<Curl*>(self);
        if (origin != SEEK_SET || offset < 0 || static_cast<std::uint64_t>(offset) > curl.passed_bytes)
            return CURL_SEEKFUNC_FAIL;
        curl.position = static_cast<std::uint64_t>(offset);
        return CURL_SEEKFUNC_OK;
    }

    bool LetPass(std::size_t count) {
        if (!settings->limit->Pass(count, [this] { return settings->goOn(position); })) isStopped = true;
        return !isStopped;
    }

    CURLcode Perform() {
        if (curl_multi_add_handle(multi, easy) != CURLM_OK) return CURLE_FAILED_INIT;
        CURLcode code = CURLE_OK;
        for (int running = 1; running != 0;) {
            if (curl_multi_perform(multi, &running) != CURLM_OK) {
                code = CURLE_FAILED_INIT;
                break;
            }
            if (!settings->goOn(position)) isStopped = true;
            if (isStopped) break;
            if (running != 0) curl_multi_poll(multi, nullptr, 0, kPoll_ms, nullptr);
        }
        int left = 0;
        while (const CURLMsg* message = curl_multi_info_read(multi, &left))
            if (message->msg == CURLMSG_DONE) code = message->data.result;
        curl_multi_remove_handle(multi, easy);
        return code;
    }

    // Commands of the protocol's own; with ftp in the folder that the URL names.
    CURLcode Order(const std::string& folder, const std::vector<std::string>& commands) {
        Prepare(folder);
        Set(CURLOPT_NOBODY, 1L);
        for (const std::string& command : commands) list = curl_slist_append(list, command.c_str());
        Set(IsSftp(folder) ? CURLOPT_QUOTE : CURLOPT_POSTQUOTE, list);
        return Perform();
    }

    // By sftp: a file cannot be listed.
    bool IsFolder(const std::string& url) {
        Prepare(url + "/");
        Set(CURLOPT_DIRLISTONLY, 1L);
        return Perform() == CURLE_OK && !isStopped;
    }

    // False when it was stopped meanwhile.
    bool Wait(std::chrono::milliseconds time) {
        const auto end = std::chrono::steady_clock::now() + time;
        while (std::chrono::steady_clock::now() < end) {
            if (!settings->goOn(position)) isStopped = true;
            if (isStopped) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return true;
    }

    long Answer() const {
        long answer = 0;
        curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &answer);
        return answer;
    }

    std::int64_t Length() const {
        curl_off_t length = -1;
        curl_easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
        return length;
    }

    // An ETag that stands for the same bytes, or the time of modification.
    std::string Validator() const {
        curl_header* header = nullptr;
        if (curl_easy_header(easy, "ETag", 0, CURLH_HEADER, -1, &header) == CURLHE_OK &&
            std::strncmp(header->value, "W/", 2) != 0)
            return header->value;
        if (curl_easy_header(easy, "Last-Modified", 0, CURLH_HEADER, -1, &header) == CURLHE_OK)
            return header->value;
        return {};
    }

    bool IsAbsent(CURLcode code) const {
        const long answer = Answer();
        return code == CURLE_REMOTE_FILE_NOT_FOUND || code == CURLE_REMOTE_ACCESS_DENIED ||
               (code == CURLE_HTTP_RETURNED_ERROR && (answer == 404 || answer == 410));
    }

    // Nor is it there when the answer is no failure and no success: one that leads elsewhere, for instance.
    Problem OddAnswer(const std::string& url) const {
        if (!IsHttp(url) || Answer() / 100 == 2) return std::nullopt;
        return Failure{task::kErrorRemote, 0, url + ": the other side answers " + std::to_string(Answer())};
    }

    // The library's words name neither URL nor user.
    Failure FailureOf(CURLcode code, const std::string& what = {}) const {
        const long answer = Answer();
        std::int32_t error = task::kErrorRemote;
        std::string words = curl_easy_strerror(code);
        const bool isRefused = code == CURLE_LOGIN_DENIED ||
                               (code == CURLE_HTTP_RETURNED_ERROR && (answer == 401 || answer == 403));
        if (isRefused)
            words = "the other side refuses these credentials, or wants some";
        else if (code == CURLE_REMOTE_DISK_FULL || answer == 507 || answer == 552)
            error = task::kErrorTargetFull;
        else if (settings->isSource && IsAbsent(code))
            error = task::kErrorSourceUnreadable, words = "there is no such file";
        else if (!settings->isSource && (IsAbsent(code) || code == CURLE_UPLOAD_FAILED))
            error = task::kErrorTargetUnwritable, words = "the other side does not take the file there";
        if (answer >= 400) words += " (answer " + std::to_string(answer) + ")";
        return {error, static_cast<std::uint32_t>(code),
                settings->url + ": " + (what.empty() ? "" : what + ": ") + words};
    }
};

Remote::Remote(Settings settings) : m_curl(std::make_unique<Curl>()), m_settings(std::move(settings)) {
    m_curl->settings = &m_settings;
}

Remote::~Remote() {
    Discard();
}

Problem Remote::Look(RemoteFacts& facts) {
    return LookAt(m_settings.url, facts);
}

Problem Remote::LookAt(const std::string& url, RemoteFacts& facts) {
    facts = {};
    auto pause = m_settings.firstPause;
    for (int i = 1;; ++i, pause *= 2) {
        m_curl->Prepare(url);
        m_curl->Set(CURLOPT_NOBODY, 1L);
        m_curl->Set(CURLOPT_FOLLOWLOCATION, 1L);
        m_curl->Set(CURLOPT_MAXREDIRS, 5L);
        const CURLcode code = m_curl->Perform();
        if (m_curl->isStopped) return kStopped;
        if (code == CURLE_OK) {
            if (auto failure = m_curl->OddAnswer(url)) return failure;
            facts = {true, m_curl->Length()};
            return std::nullopt;
        }
        if (m_curl->IsAbsent(code)) return std::nullopt;
        // A server that does not answer to HEAD says more when the file is asked for.
        if (code == CURLE_HTTP_RETURNED_ERROR && (m_curl->Answer() == 405 || m_curl->Answer() == 501)) {
            facts.isThere = m_settings.isSource;
            return std::nullopt;
        }
        if (i == kTries || !IsPassing(code, m_curl->Answer())) return m_curl->FailureOf(code);
        if (!m_curl->Wait(pause)) return kStopped;
    }
}

Problem Remote::Download(Sink& sink, std::uint64_t& size_bytes) {
    return Get(m_settings.url, sink, size_bytes);
}

Problem Remote::ReadBack(Sink& sink, std::uint64_t& size_bytes) {
    return Get(m_temporary.empty() ? m_settings.url : m_temporary, sink, size_bytes);
}

Problem Remote::Get(const std::string& url, Sink& sink, std::uint64_t& size_bytes) {
    Curl& curl = *m_curl;
    curl.sink = &sink;
    curl.position = 0;
    std::int64_t whole = -1;
    int beginnings = 0;
    int tries = 0;
    auto pause = m_settings.firstPause;
    for (;;) {
        // Only what is still the same can be gone on with.
        if (curl.position != 0 && IsHttp(url) && curl.validator.empty()) curl.position = 0;
        const std::uint64_t from = curl.position;
        if (from == 0) {
            if (beginnings++ == kMostNewBeginnings)
                return Failure{task::kErrorRemote, CURLE_RANGE_ERROR,
                               url + ": the connection breaks, and the other side cannot go on where it was"};
            sink.begin();
            whole = -1;
        }
        curl.Prepare(url);
        curl.Set(CURLOPT_FOLLOWLOCATION, 1L);
        curl.Set(CURLOPT_MAXREDIRS, 5L);
        curl.Set(CURLOPT_WRITEFUNCTION, &Curl::Write);
        curl.Set(CURLOPT_WRITEDATA, m_curl.get());
        curl.Set(CURLOPT_RESUME_FROM_LARGE, static_cast<curl_off_t>(from));
        if (from != 0 && IsHttp(url)) {
            curl.list = curl_slist_append(nullptr, ("If-Range: " + curl.validator).c_str());
            curl.Set(CURLOPT_HTTPHEADER, curl.list);
        }
        const CURLcode code = curl.Perform();
        if (sink.code != 0) return Failure{task::kErrorTargetUnwritable, sink.code, {}};
        if (curl.isStopped) return kStopped;
        if (from == 0) {
            whole = curl.Length();
            curl.validator = IsHttp(url) ? curl.Validator() : std::string();
        }
        if (code == CURLE_OK) {
            if (auto failure = curl.OddAnswer(url)) return failure;
            // A server whose file shrank or grew while it was read says so by its length alone.
            if (whole >= 0 && static_cast<std::uint64_t>(whole) != curl.position)
                return Failure{task::kErrorSourceChanged, 0, url + ": the source changed while it was read"};
            size_bytes = curl.position;
            return std::nullopt;
        }
        if (code == CURLE_RANGE_ERROR || code == CURLE_BAD_DOWNLOAD_RESUME) {
            curl.position = 0;
            continue;
        }
        if (!IsPassing(code, curl.Answer(), curl.position > from)) {
            if (from != 0 && m_settings.isSource && curl.IsAbsent(code))
                return Failure{task::kErrorSourceVanished, static_cast<std::uint32_t>(code),
                               url + ": the source is gone"};
            return curl.FailureOf(code);
        }
        if (curl.position > from) {
            tries = 0;
            pause = m_settings.firstPause;
        }
        if (++tries == kTries) return curl.FailureOf(code);
        if (!curl.Wait(pause)) return kStopped;
        pause *= 2;
    }
}

Problem Remote::Upload(Supply& supply, bool overwrite) {
    Curl& curl = *m_curl;
    RemoteFacts there;
    if (!overwrite) {
        if (Problem problem = Look(there)) return problem;
        if (there.isThere)
            return Failure{task::kErrorTargetExists, 0,
                           m_settings.url +
                               ": the target exists already; say <Overwrite>true</Overwrite> to replace it"};
    }
    const bool isHttp = IsHttp(m_settings.url);
    std::string url = m_settings.url;
    if (!isHttp) {
        url = FolderOf(url) + Encoded("." + FileNameOf(url) + "." + task::RandomDigits() + ".rqpart");
        m_temporary = url;
    }
    curl.supply = &supply;
    curl.position = 0;
    curl.passed_bytes = 0;
    int tries = 0;
    auto pause = m_settings.firstPause;
    for (bool isFirst = true;; isFirst = false) {
        const std::uint64_t before = curl.passed_bytes;
        curl.Prepare(url);
        curl.position = 0;
        curl.Set(CURLOPT_UPLOAD, 1L);
        curl.Set(CURLOPT_READFUNCTION, &Curl::Read);
        curl.Set(CURLOPT_READDATA, m_curl.get());
        curl.Set(CURLOPT_SEEKFUNCTION, &Curl::Seek);
        curl.Set(CURLOPT_SEEKDATA, m_curl.get());
        curl.Set(CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(supply.file.Size()));
        // ftp: behind what is there already.
        if (!isHttp && !isFirst) curl.Set(CURLOPT_RESUME_FROM_LARGE, static_cast<curl_off_t>(-1));
        if (isHttp) {
            curl.list = curl_slist_append(nullptr, "Expect:");
            if (!overwrite) curl.list = curl_slist_append(curl.list, "If-None-Match: *");
            curl.Set(CURLOPT_HTTPHEADER, curl.list);
        }
        const CURLcode code = curl.Perform();
        if (supply.code != 0) return Failure{task::kErrorSourceUnreadable, supply.code, {}};
        if (curl.isStopped) return kStopped;
        if (code == CURLE_OK) break;
        if (isHttp && curl.Answer() == 412)
            return Failure{task::kErrorTargetExists, 0,
                           m_settings.url + ": the target has come into being meanwhile"};
        if (code == CURLE_ABORTED_BY_CALLBACK || code == CURLE_SEND_FAIL_REWIND)
            return Failure{task::kErrorSourceChanged, 0,
                           m_settings.url + ": the source cannot be read as it was"};
        if (!IsPassing(code, curl.Answer(), curl.passed_bytes > before)) return curl.FailureOf(code);
        if (curl.passed_bytes > before) {
            tries = 0;
            pause = m_settings.firstPause;
        }
        if (++tries == kTries) return curl.FailureOf(code);
        if (!curl.Wait(pause)) return kStopped;
        pause *= 2;
    }
    if (curl.passed_bytes != supply.file.Size())
        return Failure{task::kErrorSourceChanged, 0,
                       m_settings.url + ": the source became shorter while it was read"};
    if (isHttp) return curl.OddAnswer(url);
    if (Problem problem = LookAt(m_temporary, there)) return problem;
    if (there.size_bytes >= 0 && static_cast<std::uint64_t>(there.size_bytes) != supply.file.Size())
        return Failure{task::kErrorRemote, 0,
                       m_settings.url + ": the other side has " + std::to_string(there.size_bytes) +
                           " bytes of it, not " + std::to_string(supply.file.Size())};
    return std::nullopt;
}

// A stop that comes meanwhile is too late: half of it would be worse than all.
Problem Remote::Publish(bool overwrite) {
    if (m_temporary.empty()) return std::nullopt;
    RemoteFacts there;
    const bool isReplaced = overwrite && IsSftp(m_settings.url);
    if (!overwrite || isReplaced) {
        if (Problem problem = Look(there)) return problem;
        if (there.isThere && !overwrite)
            return Failure{task::kErrorTargetExists, 0,
                           m_settings.url + ": the target has come into being meanwhile"};
    }
    if (m_curl->isStopped) return kStopped;
    const auto goOn = m_settings.goOn;
    m_settings.goOn = [&](std::uint64_t done) {
        goOn(done);
        return std::chrono::steady_clock::now() < m_namingEnd;
    };
    TakeTime();
    Problem problem = isReplaced && there.isThere ? Replace() : GiveName();
    m_settings.goOn = goOn;
    if (problem && problem->errorCode == task::kErrorTargetUnwritable && !overwrite && !Look(there) &&
        there.isThere)
        return Failure{task::kErrorTargetExists, 0,
                       m_settings.url + ": the target has come into being meanwhile"};
    return problem;
}

std::vector<std::string> Remote::Rename(const std::string& from, const std::string& to) {
    if (IsSftp(from)) return {"rename " + Quoted(from) + " " + Quoted(to)};
    return {"RNFR " + FileNameOf(from), "RNTO " + FileNameOf(to)};
}

void Remote::TakeTime() {
    m_curl->isStopped = false;
    m_namingEnd = std::chrono::steady_clock::now() + kNaming;
}

int Remote::Order(const std::vector<std::string>& commands) {
    const CURLcode code = m_curl->Order(FolderOf(m_settings.url), commands);
    return m_curl->isStopped ? CURLE_OPERATION_TIMEDOUT : code;
}

Failure Remote::NotNamed(int code) const {
    Failure failure = m_curl->FailureOf(static_cast<CURLcode>(code), "the file cannot be given its name");
    if (code == CURLE_QUOTE_ERROR) failure.errorCode = task::kErrorTargetUnwritable;
    return failure;
}

// What is there decides, and not the answer, which may be lost.
Problem Remote::GiveName() {
    const int code = Order(Rename(m_temporary, m_settings.url));
    if (code != CURLE_OK) {
        const Failure failure = NotNamed(code);
        TakeTime();
        RemoteFacts temporary, target;
        if (LookAt(m_temporary, temporary) || temporary.isThere || Look(target) || !target.isThere)
            return failure;
    }
    m_temporary.clear();
    return std::nullopt;
}

// Servers of sftp replace nothing by a rename: the old file gets another name, the new one its name, and then
// the old one is removed. Until then one of them is always there, and nothing is removed that may be the
// last.
Problem Remote::Replace() {
    const std::string folder = FolderOf(m_settings.url);
    if (m_curl->IsFolder(m_settings.url))
        return Failure{task::kErrorTargetExists, 0,
                       m_settings.url + ": the target exists and is no plain file; it is not overwritten"};
    const std::string aside =
        folder + Encoded("." + FileNameOf(m_settings.url) + "." + task::RandomDigits() + ".rqold");
    std::vector<std::string> commands = Rename(m_settings.url, aside);
    for (const std::string& command : Rename(m_temporary, m_settings.url)) commands.push_back(command);
    commands.push_back("*rm " + Quoted(aside));
    const int code = Order(commands);
    if (code == CURLE_OK) {
        m_temporary.clear();
        return std::nullopt;
    }
    const Failure failure = NotNamed(code);
    TakeTime();
    RemoteFacts old, temporary, target;
    const bool isKnown = !LookAt(aside, old) && !LookAt(m_temporary, temporary) && !Look(target);
    if (isKnown && !temporary.isThere && target.isThere) {  // all was done but the last
        if (old.isThere) (void)Order({"rm " + Quoted(aside)});
        m_temporary.clear();
        return std::nullopt;
    }
    if (isKnown && target.isThere && !old.isThere) return failure;  // nothing was done
    // The old one is away, and the new one not there yet.
    if (isKnown && Order(Rename(m_temporary, m_settings.url)) == CURLE_OK) {
        (void)Order({"rm " + Quoted(aside)});
        m_temporary.clear();
        return std::nullopt;
    }
    if (isKnown && Order(Rename(aside, m_settings.url)) == CURLE_OK) return failure;
    const std::string kept = PathOnServer(m_temporary);
    m_temporary.clear();  // and stays
    return Failure{failure.errorCode, failure.systemCode,
                   failure.words + "; look on the server: the old file may be " + PathOnServer(aside) +
                       ", the new one " + kept};
}

void Remote::Discard() {
    if (m_temporary.empty()) return;
    // Also after a stop: once, and not for long.
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    const auto goOn = m_settings.goOn;
    m_settings.goOn = [&](std::uint64_t) { return std::chrono::steady_clock::now() < end; };
    m_curl->isStopped = false;
    (void)m_curl->Order(
        FolderOf(m_settings.url),
        {IsSftp(m_settings.url) ? "rm " + Quoted(m_temporary) : "DELE " + FileNameOf(m_temporary)});
    m_settings.goOn = goOn;
    m_temporary.clear();
}

}  // namespace rq::transfer
