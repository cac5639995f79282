// Transfers from and to URLs, against servers of the test's own (testdata/servers.py).
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>
#include <thread>

#include "credentials.h"
#include "transfer_test_folder.h"
#include "url.h"

namespace rq::transfer {
namespace {

namespace fs = std::filesystem;

class UrlTest : public TransferTest {
  protected:
    UrlTest() : m_noProxy("no_proxy", "127.0.0.1") { fs::create_directory(At("served")); }

    void Serve(const std::string& certificate = {}) {
        std::vector<std::string> arguments{"-B", RQ_SERVERS, PathOf("served")};
        if (!certificate.empty()) arguments.push_back(certificate);
        m_servers.emplace(RQ_PYTHON, arguments);
        const auto end = std::chrono::steady_clock::now() + kit::kPatience;
        while (m_servers->Output().find("ready\n") == std::string::npos) {
            ASSERT_LT(std::chrono::steady_clock::now(), end) << m_servers->Errors();
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    std::string Url(const std::string& kind, const std::string& path) const {
        std::istringstream lines(m_servers->Output());
        std::string word, port;
        while (lines >> word >> port && word != kind) {
        }
        return kind + "://127.0.0.1:" + port + "/" + path;
    }
    void Credentials(const std::string& inner, mode_t mode = 0600) const {
        const fs::path file =
            m_configDir.Write("RQWorkerCredentials.xml",
                              "<Credentials><Entry><Name>own</Name>" + inner + "</Entry></Credentials>");
        ASSERT_EQ(::chmod(file.c_str(), mode), 0);
    }
    std::string From(const std::string& url, const std::string& target, const std::string& more = {}) const {
        return "<Item><Source>" + url + "</Source><Target>" + PathOf(target) + "</Target>" + more + "</Item>";
    }
    std::string To(const std::string& source, const std::string& url, const std::string& more = {}) const {
        return "<Item><Source>" + PathOf(source) + "</Source><Target>" + url + "</Target>" + more + "</Item>";
    }
    bool WasAsked(const std::string& line) const {
        return m_servers->Output().find(line) != std::string::npos;
    }
    static int FreePort() {
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(::bind(fd, generic, size) | ::getsockname(fd, generic, &size), 0);
        ::close(fd);
        return ::ntohs(address.sin_port);
    }
    // Nothing that a task or a log keeps has the password.
    void ExpectNoPassword() const {
        EXPECT_EQ(Detail().find("p w"), std::string::npos);
        EXPECT_EQ(Further().find("p w"), std::string::npos);
        for (const std::string& line : m_log) EXPECT_EQ(line.find("p w"), std::string::npos) << line;
    }

    kit::ScopedEnvironment m_noProxy;
    std::optional<kit::Child> m_servers;
};

constexpr const char* kOwn = "<Credentials>own</Credentials>";
constexpr const char* kUser = "<Host>127.0.0.1</Host><User>u</User><Password>p w</Password>";

TEST_F(UrlTest, DownloadsByHttp) {
    Serve();
    Write("served/a b", Bytes(3'000'000));
    for (const char* place : {"files/a%20b", "moved/a%20b", "busy/a%20b"}) {
        ASSERT_EQ(Do(Text(From(Url("http", place), "got"),
                          Flags({"MD5", "SHA256", "Verify", "Manifest", "Overwrite"}))),
                  RQ_STATUS_FINISHED)
            << Detail();
        EXPECT_TRUE(Read("got") == Read("served/a b"));
        EXPECT_EQ(Names(), (Strings{"got", "got.md5", "got.sha256", "served"}));
        ASSERT_EQ(m_outputs.size(), 1u);
        EXPECT_EQ(m_outputs[0].second, "copied");
        EXPECT_EQ(m_outputs[0].size_bytes, 3'000'000u);
        EXPECT_EQ(m_outputs[0].further.substr(0, 36), "md5:" + kit::ReferenceMd5(At("served/a b")));
        ExpectWholeProgress();
    }
}

TEST_F(UrlTest, GoesOnWhereTheConnectionBroke) {
    Serve();
    Write("served/a", Bytes(3'000'000));
    ASSERT_EQ(Do(Text(From(Url("http", "cut/a"), "b"), Flags({"MD5"}))), RQ_STATUS_FINISHED) << Detail();
    EXPECT_TRUE(Read("b") == Read("served/a"));
    EXPECT_EQ(m_outputs[0].further, "md5:" + kit::ReferenceMd5(At("served/a")));
    EXPECT_TRUE(WasAsked("GET /cut/a bytes=1500000-")) << m_servers->Output();
}

TEST_F(UrlTest, BeginsAnewWhereItCannotGoOn) {
    Serve();
    Write("served/a", Bytes(3'000'000));
    ASSERT_EQ(Do(Text(From(Url("http", "norange/a"), "b"), Flags({"MD5"}))), RQ_STATUS_FINISHED) << Detail();
    EXPECT_TRUE(Read("b") == Read("served/a"));
    EXPECT_EQ(m_outputs[0].further, "md5:" + kit::ReferenceMd5(At("served/a")));
    // The file is another one by then: never half of each.
    ASSERT_EQ(Do(Text(From(Url("http", "changes/a"), "c"), Flags({"MD5"}))), RQ_STATUS_FINISHED) << Detail();
    std::string other = Read("served/a");
    std::reverse(other.begin(), other.end());
    EXPECT_TRUE(Read("c") == other);
    EXPECT_TRUE(WasAsked("GET /changes/a bytes=1500000-")) << m_servers->Output();
}

TEST_F(UrlTest, WhatIsNotThereIsSaid) {
    Serve();
    Do(Text(From(Url("http", "files/missing"), "b")));
    ExpectFailure(0x84100010, "/files/missing: there is no such file");
    const std::string url = "http://127.0.0.1:1/x";
    Do(Text(From(url, "b")));
    ExpectFailure(0x8410003B, url + ": ");
    EXPECT_EQ(m_info->detailErrorCode, 7u);  // the library's "cannot connect"
    EXPECT_EQ(Names(), Strings{"served"});
}

TEST_F(UrlTest, CredentialsAreFoundByName) {
    Serve();
    Write("served/a", "abc");
    const std::string url = Url("http", "private/a");
    Do(Text(From(url, "b")));
    ExpectFailure(0x8410003B,
                  "private/a: the other side refuses these credentials, or wants some (answer 401)");
    Do(Text(From(url, "b", kOwn)));
    ExpectFailure(0x84100034, "this node has no credentials: there is no ");
    Credentials(kUser);
    ASSERT_EQ(Do(Text(From(url, "b", kOwn))), RQ_STATUS_FINISHED) << Detail();
    EXPECT_EQ(Read("b"), "abc");
    ExpectNoPassword();
    Do(Text(From(url, "c", "<Credentials>other</Credentials>")));
    ExpectFailure(0x84100034, "has no entry \"other\"");
    // A task cannot have them sent to a host of its own.
    Credentials("<Host>ftp.example.org</Host><User>u</User><Password>p w</Password>");
    Do(Text(From(url, "c", kOwn)));
    ExpectFailure(0x84100034, "the entry \"own\" is for another host than 127.0.0.1, which does not get it");
    Credentials(kUser, 0640);
    Do(Text(From(url, "c", kOwn)));
    ExpectFailure(0x84100034, "others than the worker's user may read or write it, so it is not used");
    Credentials("<Host>127.0.0.1</Host><Pasword>p w</Pasword>");
    Do(Text(From(url, "c", kOwn)));
    ExpectFailure(0x84100034, "RQWorkerCredentials.xml: line 1: ");
    ExpectNoPassword();
    EXPECT_EQ(Names(), (Strings{"b", "served"}));
}

TEST_F(UrlTest, UploadsByHttp) {
    Serve();
    Write("a", Bytes(3'000'000));
    for (const char* place : {"files/新%20b", "cut/c"}) {
        std::string url = Url("http", place);
        if (const auto at = url.find("新"); at != std::string::npos) url.replace(at, 3, Encoded("新"));
        ASSERT_EQ(Do(Text(To("a", url), Flags({"MD5", "Verify"}))), RQ_STATUS_FINISHED) << Detail();
        EXPECT_TRUE(Read(std::string("served/") + (*place == 'f' ? "新 b" : "c")) == Read("a"));
        EXPECT_EQ(m_outputs[0].further, "md5:" + kit::ReferenceMd5(At("a")));
        ASSERT_EQ(m_compared.size(), 1u);
        EXPECT_EQ(m_compared[0].secondMd5, m_compared[0].firstMd5);
        Do(Text(To("a", url)));
        ExpectFailure(0x84100000,
                      ": the target exists already; say <Overwrite>true</Overwrite> to replace it");
        EXPECT_EQ(Do(Text(To("a", url), Flags({"Overwrite"}))), RQ_STATUS_FINISHED) << Detail();
    }
    Do(Text(To("a", Url("http", "full/d"))));
    ExpectFailure(0x84100038, "(answer 507)");
    Do(Text(To("a", Url("http", "moved/f"))));
    ExpectFailure(0x8410003B, "moved/f: the other side answers 307");
    Do(Text(To("a", Url("http", "spoils/e")), Flags({"Verify"})));
    ExpectFailure(7, "e: what was written has the MD5 ");
}

TEST_F(UrlTest, DownloadsByFtp) {
    Serve();
    Credentials(kUser);
    Write("served/sub/a", Bytes(3'000'000));
    Write("served/sub/cut", Bytes(2'000'000));
    for (const char* name : {"a", "cut"}) {
        ASSERT_EQ(Do(Text(From(Url("ftp", std::string("sub/") + name), name, kOwn), Flags({"MD5"}))),
                  RQ_STATUS_FINISHED)
            << Detail();
        EXPECT_TRUE(Read(name) == Read(std::string("served/sub/") + name));
        EXPECT_EQ(m_outputs[0].further, "md5:" + kit::ReferenceMd5(At(name)));
    }
    EXPECT_TRUE(WasAsked("ftp REST 1000000\n")) << m_servers->Output();
    Do(Text(From(Url("ftp", "sub/missing"), "b", kOwn)));
    ExpectFailure(0x84100010, "missing: there is no such file");
    Do(Text(From(Url("ftp", "sub/a"), "b")));
    ExpectFailure(0x8410003B, "refuses these credentials, or wants some");
    ExpectNoPassword();
}

TEST_F(UrlTest, UploadsByFtpUnderAnotherName) {
    Serve();
    Credentials(kUser);
    Write("a", Bytes(3'000'000));
    fs::create_directory(At("served/sub"));
    for (const char* name : {"b c", "cut"}) {
        const std::string url = Url("ftp", "sub/" + Encoded(name));
        ASSERT_EQ(Do(Text(To("a", url, kOwn), Flags({"MD5", "Verify"}))), RQ_STATUS_FINISHED) << Detail();
        EXPECT_TRUE(Read(std::string("served/sub/") + name) == Read("a"));
        EXPECT_EQ(m_outputs[0].further, "md5:" + kit::ReferenceMd5(At("a")));
        Do(Text(To("a", url, kOwn)));
        ExpectFailure(0x84100000, ": the target exists already");
        EXPECT_EQ(Do(Text(To("a", url, kOwn), Flags({"Overwrite"}))), RQ_STATUS_FINISHED) << Detail();
    }
    EXPECT_TRUE(WasAsked("ftp APPE ")) << m_servers->Output();
    EXPECT_TRUE(WasAsked(".rqpart\nftp RNTO b c\n")) << m_servers->Output();
    EXPECT_EQ(Names("served/sub"), (Strings{"b c", "cut"}));
    Do(Text(To("a", Url("ftp", "sub/full"), kOwn)));
    ExpectFailure(0x84100038, "sub/full: ");
    Do(Text(To("a", Url("ftp", "sub/short"), kOwn)));
    ExpectFailure(0x8410003B, "sub/short: the other side has 1000 bytes of it, not 3000000");
    Do(Text(To("a", Url("ftp", "nowhere/a"), kOwn)));
    ExpectFailure(0x84100013, "nowhere/a: the other side does not take the file there");
    // A file that is not what was expected gets no name.
    Do(Text(To("a", Url("ftp", "sub/d"), std::string(kOwn) + "<MD5>" + kAbcMd5 + "</MD5>")));
    ExpectFailure(7, "nothing was published");
    EXPECT_EQ(Names("served/sub"), (Strings{"b c", "cut"}));
}

TEST_F(UrlTest, ATwinsUploadIsNotReplaced) {
    Serve();
    Credentials(kUser);
    Write("a", Bytes(3'000'000));
    m_onSignOfLife = [&] {
        for (const std::string& name : Names("served"))
            if (name.front() == '.') Write("served/b", "twin");
    };
    Do(Text(To("a", Url("ftp", "b"), kOwn), "<RateLimit_kBps>10000</RateLimit_kBps>"));
    ExpectFailure(0x84100000, "b: the target has come into being meanwhile");
    EXPECT_EQ(Read("served/b"), "twin");
    EXPECT_EQ(Names("served"), Strings{"b"});
}

TEST_F(UrlTest, TheOtherSideMustBeWhoItSaysByHttps) {
    const std::string file = PathOf("certificate.pem");
    kit::Child openssl("/usr/bin/openssl",
                       {"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                        "-days", "2", "-subj", "/CN=test", "-addext", "subjectAltName=IP:127.0.0.1",
                        "-keyout", file, "-out", PathOf("public.pem")});
    ASSERT_EQ(openssl.ExitCode(), 0) << openssl.Errors();
    Write("certificate.pem", Read("certificate.pem") + Read("public.pem"));
    Serve(file);
    Write("served/a", "abc");
    const std::string url = Url("https", "files/a");
    Do(Text(From(url, "b")));
    ExpectFailure(0x8410003B, url + ": ");
    EXPECT_EQ(m_info->detailErrorCode, 60u);  // the library's "certificate is not right"
    Credentials("<Host>127.0.0.1</Host><CaFile>" + PathOf("public.pem") + "</CaFile>");
    EXPECT_EQ(Do(Text(From(url, "b", kOwn))), RQ_STATUS_FINISHED) << Detail();
    EXPECT_EQ(Read("b"), "abc");
}

TEST_F(UrlTest, StopsAndKeepsToItsRate) {
    Serve();
    Write("served/a", Bytes(8'000'000));
    m_onSignOfLife = [&] {
        if (m_progress.size() > 1) RQStore32(&m_stop, RQ_STOP_CANCEL);
    };
    EXPECT_EQ(Do(Text(From(Url("http", "slow/a"), "b"))), RQ_STATUS_CANCELLED);
    RQStore32(&m_stop, RQ_STOP_NONE);
    Credentials(kUser);
    Write("up", Bytes(8'000'000));
    EXPECT_EQ(Do(Text(To("up", Url("ftp", "b"), kOwn), "<RateLimit_kBps>4000</RateLimit_kBps>")),
              RQ_STATUS_CANCELLED);
    fs::remove(At("up"));
    EXPECT_EQ(Names("served"), Strings{"a"});
    RQStore32(&m_stop, RQ_STOP_NONE);
    m_onSignOfLife = nullptr;
    EXPECT_EQ(Names(), Strings{"served"});
    Write("served/c", Bytes(2'000'000));
    Write("d", Bytes(2'000'000));
    for (const std::string& item : {From(Url("http", "files/c"), "b"), To("d", Url("http", "files/d"))}) {
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(Do(Text(item, "<RateLimit_kBps>1000</RateLimit_kBps>")), RQ_STATUS_FINISHED) << Detail();
        EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1900));
    }
}

// A server of this user's own, with keys of its own.
TEST_F(UrlTest, BothWaysBySftp) {
    const std::string program = "/usr/sbin/sshd";
    if (!fs::exists(program)) GTEST_SKIP() << "there is no " << program;
    if (::geteuid() == 0 && !fs::exists("/run/sshd")) GTEST_SKIP() << "as root it wants /run/sshd";
    const auto makeKey = [&](const std::string& name, const std::string& passphrase) {
        kit::Child keygen("/usr/bin/ssh-keygen",
                          {"-q", "-t", "ed25519", "-N", passphrase, "-C", "test", "-f", PathOf(name)});
        ASSERT_EQ(keygen.ExitCode(), 0) << keygen.Errors();
    };
    makeKey("host", "");
    makeKey("user", "phrase");
    const std::string port = std::to_string(FreePort());
    // Its configuration takes no blanks in a file's name unless quoted.
    Write("config",
          "ListenAddress 127.0.0.1\nPort " + port + "\nHostKey \"" + PathOf("host") +
              "\"\nAuthorizedKeysFile \"" + PathOf("user.pub") +
              "\"\nStrictModes no\nPasswordAuthentication no\nPidFile none\nSubsystem sftp internal-sftp\n");
    Write("known", "[127.0.0.1]:" + port + " " + Read("host.pub"));
    const kit::Child server(program, {"-D", "-e", "-f", PathOf("config")});
    std::string url = "sftp://127.0.0.1:" + port;
    for (const fs::path& part : PathFromUtf8(PathOf("served")).relative_path())
        url += "/" + Encoded(part.string());
    const std::string user = "<Host>127.0.0.1</Host><User>" + std::string(::getpwuid(::geteuid())->pw_name) +
                             "</User><PrivateKeyFile>" + PathOf("user") +
                             "</PrivateKeyFile><Passphrase>phrase</Passphrase>";
    Credentials(user + "<KnownHosts>" + PathOf("known") + "</KnownHosts>");
    const std::string bytes = Bytes(3'000'000);
    Write("a", bytes);
    ASSERT_EQ(Do(Text(To("a", url + "/b%20%22c", kOwn), Flags({"MD5", "Verify"}))), RQ_STATUS_FINISHED)
        << Detail() << server.Errors();
    EXPECT_TRUE(Read("served/b \"c") == bytes);
    EXPECT_EQ(m_compared.size(), 1u);
    EXPECT_EQ(m_outputs[0].further, "md5:" + kit::ReferenceMd5(At("a")));
    Do(Text(To("a", url + "/b%20%22c", kOwn)));
    ExpectFailure(0x84100000, ": the target exists already");
    Write("a", "new");
    EXPECT_EQ(Do(Text(To("a", url + "/b%20%22c", kOwn), Flags({"Overwrite"}))), RQ_STATUS_FINISHED)
        << Detail();
    EXPECT_EQ(Read("served/b \"c"), "new");
    EXPECT_EQ(Names("served"), Strings{"b \"c"});
    Do(Text(To("a", url + "/nowhere/b", kOwn)));
    ExpectFailure(0x84100013, "nowhere/b: the other side does not take the file there");

    Write("served/d", bytes);
    Write("served/empty", "");
    ASSERT_EQ(Do(Text(From(url + "/d", "d", kOwn) + From(url + "/empty", "e", kOwn), Flags({"MD5"}))),
              RQ_STATUS_FINISHED)
        << Detail();
    EXPECT_TRUE(Read("d") == bytes);
    EXPECT_EQ(Read("e"), "");
    EXPECT_EQ(m_progress.back().total, 3'000'000);
    Do(Text(From(url + "/missing", "f", kOwn)));
    ExpectFailure(0x84100010, "missing: there is no such file");

    Credentials(user);
    Do(Text(From(url + "/d", "f", kOwn)));
    ExpectFailure(0x84100034,
                  "sftp needs <Credentials>, and their entry a <KnownHosts> with the key of the host");
    // Another host's key.
    Write("known", "[127.0.0.1]:" + port + " " + Read("user.pub"));
    Credentials(user + "<KnownHosts>" + PathOf("known") + "</KnownHosts>");
    Do(Text(From(url + "/d", "f", kOwn)));
    ExpectFailure(0x8410003B, "/d: ");
    EXPECT_EQ(m_info->detailErrorCode, 60u);
    for (const std::string& line : m_log) EXPECT_EQ(line.find("phrase"), std::string::npos) << line;
}

TEST_F(UrlTest, TheCredentialsOnThePageAreRead) {
    const std::string page = kit::ReadText(RQ_TASK_DOCS "/transfer.md");
    const std::size_t begin = page.find("```xml credentials\n") + 19;
    const fs::path file =
        m_configDir.Write("RQWorkerCredentials.xml", page.substr(begin, page.find("```", begin) - begin));
    ASSERT_EQ(::chmod(file.c_str(), 0600), 0);
    Credential found;
    ASSERT_FALSE(FindCredential("incoming", "ftp.example.org", found));
    EXPECT_EQ(found.user, "newsroom");
    EXPECT_EQ(found.password, "an example");
    ASSERT_FALSE(FindCredential("archive", "archive.example.org", found));
    EXPECT_EQ(found.caFile, "/etc/rqworker/archive.pem");
    EXPECT_EQ(found.user, "");
    ASSERT_FALSE(FindCredential("ingest", "ingest.example.org", found));
    EXPECT_EQ(found.knownHosts, "/etc/rqworker/known_hosts");
}

TEST_F(UrlTest, FoldersAreNotSent) {
    Write("tree/a", "abc");
    Do(Text(To("tree", "http://127.0.0.1:1/x")));
    ExpectFailure(0x84100010, "tree: is a folder, and only files are sent to URLs");
}

}  // namespace
}  // namespace rq::transfer
