// Transfers from and to URLs, against servers of the test's own (testdata/servers.py).
#include <sstream>
#include <thread>

#include "credentials.h"
#include "platform/files.h"
#include "plugin_common/file.h"
#include "transfer_test_folder.h"
#include "url.h"
#include "url_servers.h"

namespace rq::transfer {
namespace {

namespace fs = std::filesystem;

class UrlTest : public TransferTest {
  protected:
    UrlTest() : m_noProxy("no_proxy", "127.0.0.1,localhost") { fs::create_directory(At("served")); }
    void SetUp() override {
        if (!CanServe()) GTEST_SKIP() << "the servers of these tests are programs of a Unix";
    }

    void Serve(const Strings& wanted = {}) {
        m_servers.emplace(PathOf("served"), m_keys.Utf8(), wanted);
        const auto end = std::chrono::steady_clock::now() + kit::kPatience;
        while (m_servers->Output().find("ready\n") == std::string::npos) {
            ASSERT_LT(std::chrono::steady_clock::now(), end) << m_servers->Errors();
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    // What the servers said behind this word.
    std::string Said(const std::string& wanted) const {
        std::istringstream lines(m_servers->Output());
        for (std::string line; std::getline(lines, line);)
            if (line.rfind(wanted + " ", 0) == 0) return line.substr(wanted.size() + 1);
        return {};
    }
    std::string Url(const std::string& kind, const std::string& path) const {
        // With TLS by the name that the certificate has.
        return kind + (kind.back() == 's' ? "://localhost:" : "://127.0.0.1:") + Said(kind) + "/" + path;
    }
    std::string SftpUrl(const std::string& path, const std::string& kind = "sftp") const {
        return "sftp://127.0.0.1:" + Said(kind) + Said("place") + "/" + path;
    }
    void Credentials(const std::string& inner, bool isPrivate = true) const {
        const std::string file = m_configDir.Utf8("RQWorkerCredentials.xml");
        const std::string text = "<Credentials><Entry><Name>own</Name>" + inner + "</Entry></Credentials>";
        fs::remove(PathFromUtf8(file));
        ASSERT_TRUE(platform::CreatePrivateFile(file, text));
        if (isPrivate) return;
        fs::remove(PathFromUtf8(file));
        m_configDir.Write("RQWorkerCredentials.xml", text);
        fs::permissions(PathFromUtf8(file), fs::perms::owner_all | fs::perms::others_read);
    }
    std::string SshUser() const {
        return "<Host>127.0.0.1</Host><User>" + Said("user") + "</User><PrivateKeyFile>" +
               m_keys.Utf8("user") + "</PrivateKeyFile><Passphrase>phrase</Passphrase>";
    }
    std::string KnownHosts() const { return "<KnownHosts>" + m_keys.Utf8("known") + "</KnownHosts>"; }
    std::string From(const std::string& url, const std::string& target, const std::string& more = {}) const {
        return "<Item><Source>" + url + "</Source><Target>" + PathOf(target) + "</Target>" + more + "</Item>";
    }
    std::string To(const std::string& source, const std::string& url, const std::string& more = {}) const {
        return "<Item><Source>" + PathOf(source) + "</Source><Target>" + url + "</Target>" + more + "</Item>";
    }
    bool WasAsked(const std::string& line) const { return TimesAsked(line) != 0; }
    std::size_t TimesAsked(const std::string& line) const {
        const std::string said = m_servers->Output();
        std::size_t times = 0;
        for (std::size_t at = said.find(line); at != std::string::npos; at = said.find(line, at + 1)) ++times;
        return times;
    }
    // Nothing that a task or a log keeps has the password.
    void ExpectNoPassword() const {
        EXPECT_EQ(Detail().find("p w"), std::string::npos);
        EXPECT_EQ(Further().find("p w"), std::string::npos);
        for (const std::string& line : m_log) EXPECT_EQ(line.find("p w"), std::string::npos) << line;
    }
    void UpAndDownBySftp();

    kit::ScopedEnvironment m_noProxy;
    kit::TempDir m_keys;
    std::optional<UrlServers> m_servers;
};

// As far as the system lets files have such names.
const char* const kOddName = kit::RootName().empty() ? "b%20%22c" : "b%20'c";
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
    Credentials(kUser, false);
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

// The other side publishes what it has got whole: a file that is not what was expected never gets there
// whole.
TEST_F(UrlTest, APutThatIsNotWhatWasExpectedEndsBeforeItsLastBytes) {
    Serve();
    Write("a", Bytes(3'000'000));
    Write("empty", "");
    const std::string other = std::string("<MD5>") + kAbcMd5 + "</MD5>";
    for (const char* name : {"a", "empty"}) {
        Do(Text(To(name, Url("http", "files/new"), other)));
        ExpectFailure(7, "nothing was published");
    }
    EXPECT_EQ(Names("served"), Strings{});
    const std::string own = "<MD5>" + kit::ReferenceMd5(At("a")) + "</MD5>";
    EXPECT_EQ(Do(Text(To("a", Url("http", "files/new"), own))), RQ_STATUS_FINISHED) << Detail();
    EXPECT_TRUE(Read("served/new") == Read("a"));
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
    Serve({"tls"});
    Write("served/a", "abc");
    const std::string url = Url("https", "files/a");
    const auto trust = [&](const std::string& host, const std::string& certificates) {
        Credentials("<Host>" + host + "</Host><CaFile>" + m_keys.Utf8(certificates) + "</CaFile>");
    };
    const auto expectNoTrust = [&](const std::string& place) {
        ExpectFailure(0x8410003B, place + ": ");
        EXPECT_EQ(m_info->detailErrorCode, 60u);  // the library's "certificate is not right"
        EXPECT_EQ(Names(), Strings{"served"});
    };
    if (!kit::IsWine()) {  // which takes any certificate when it is to look at them itself
        Do(Text(From(url, "b")));
        expectNoTrust(url);
    }
    trust("localhost", "other.pem");
    Do(Text(From(url, "b", kOwn)));
    expectNoTrust(url);
    trust("127.0.0.1", "public.pem");
    std::string byAddress = url;
    byAddress.replace(byAddress.find("localhost"), 9, "127.0.0.1");
    Do(Text(From(byAddress, "b", kOwn)));
    expectNoTrust(byAddress);
    trust("localhost", "public.pem");
    EXPECT_EQ(Do(Text(From(url, "b", kOwn))), RQ_STATUS_FINISHED) << Detail();
    EXPECT_EQ(Read("b"), "abc");
}

TEST_F(UrlTest, BothWaysByFtpsAndOnWhereTheConnectionBroke) {
    Serve({"tls"});
    Write("served/cut", Bytes(2'000'000));
    Write("up", Bytes(3'000'000));
    const std::string user = "<Host>localhost</Host><User>u</User><Password>p w</Password><CaFile>";
    Credentials(user + m_keys.Utf8("other.pem") + "</CaFile>");
    Do(Text(From(Url("ftps", "cut"), "b", kOwn)));
    ExpectFailure(0x8410003B, "cut: ");
    EXPECT_EQ(m_info->detailErrorCode, 60u);
    Credentials(user + m_keys.Utf8("public.pem") + "</CaFile>");
    ASSERT_EQ(Do(Text(From(Url("ftps", "cut"), "b", kOwn), Flags({"MD5"}))), RQ_STATUS_FINISHED) << Detail();
    EXPECT_TRUE(Read("b") == Read("served/cut"));
    EXPECT_EQ(m_outputs[0].further, "md5:" + kit::ReferenceMd5(At("b")));
    EXPECT_TRUE(WasAsked("ftp REST 1000000\n")) << m_servers->Output();
    ASSERT_EQ(Do(Text(To("up", Url("ftps", "cut2"), kOwn), Flags({"MD5", "Verify"}))), RQ_STATUS_FINISHED)
        << Detail();
    EXPECT_TRUE(Read("served/cut2") == Read("up"));
    EXPECT_TRUE(WasAsked("ftp APPE ")) << m_servers->Output();
    EXPECT_EQ(Names("served"), (Strings{"cut", "cut2"}));
    ExpectNoPassword();
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

// By a server of this user's own, with keys of its own.
void UrlTest::UpAndDownBySftp() {
    Credentials(SshUser() + KnownHosts());
    const std::string bytes = Bytes(3'000'000);
    const std::string url = SftpUrl(kOddName);
    Write("a", bytes);
    ASSERT_EQ(Do(Text(To("a", url, kOwn), Flags({"MD5", "Verify", "Overwrite"}))), RQ_STATUS_FINISHED)
        << Detail() << m_servers->Errors();
    EXPECT_EQ(m_outputs[0].further, "md5:" + kit::ReferenceMd5(At("a")));
    EXPECT_EQ(m_compared.size(), 1u);
    ASSERT_EQ(Do(Text(From(url, "d", kOwn), Flags({"MD5", "Overwrite"}))), RQ_STATUS_FINISHED) << Detail();
    EXPECT_TRUE(Read("d") == bytes);
    EXPECT_EQ(Names("served").size(), 1u);
}

TEST_F(UrlTest, BothWaysBySftp) {
    for (const std::string& kind : SshKeyKinds()) {
        SCOPED_TRACE(kind);
        for (const fs::directory_entry& old : fs::directory_iterator(m_keys.Path())) fs::remove(old);
        Serve({"sftp:" + kind});
        if (const std::string lack = Said("lacks"); !lack.empty()) GTEST_SKIP() << lack;
        UpAndDownBySftp();
    }
    const std::string url = SftpUrl(kOddName);
    Do(Text(To("a", url, kOwn)));
    ExpectFailure(0x84100000, ": the target exists already");
    Write("a", "new");
    EXPECT_EQ(Do(Text(To("a", url, kOwn), Flags({"Overwrite"}))), RQ_STATUS_FINISHED) << Detail();
    ASSERT_EQ(Do(Text(From(url, "d", kOwn), Flags({"Overwrite"}))), RQ_STATUS_FINISHED) << Detail();
    EXPECT_EQ(Read("d"), "new");
    EXPECT_EQ(Names("served").size(), 1u);
    Do(Text(To("a", SftpUrl("nowhere/b"), kOwn)));
    ExpectFailure(0x84100013, "nowhere/b: the other side does not take the file there");

    Write("served/empty", "");
    ASSERT_EQ(Do(Text(From(SftpUrl("empty"), "e", kOwn))), RQ_STATUS_FINISHED) << Detail();
    EXPECT_EQ(Read("e"), "");
    Do(Text(From(SftpUrl("missing"), "f", kOwn)));
    ExpectFailure(0x84100010, "missing: there is no such file");

    Credentials(SshUser());
    Do(Text(From(url, "f", kOwn)));
    ExpectFailure(0x84100034,
                  "sftp needs <Credentials>, and their entry a <KnownHosts> with the key of the host");
    // Another host's key.
    m_keys.Write("known", "[127.0.0.1]:" + Said("sftp") + " " + kit::ReadText(m_keys.Path() / "user.pub"));
    Credentials(SshUser() + KnownHosts());
    Do(Text(From(url, "f", kOwn)));
    ExpectFailure(0x8410003B, "c: ");
    EXPECT_EQ(m_info->detailErrorCode, 60u);
    for (const std::string& line : m_log) EXPECT_EQ(line.find("phrase"), std::string::npos) << line;
}

TEST_F(UrlTest, BySftpOnWhereTheConnectionBroke) {
    Serve({"sftp:" + SshKeyKinds().back()});
    if (const std::string lack = Said("lacks"); !lack.empty()) GTEST_SKIP() << lack;
    Credentials(SshUser() + KnownHosts());
    const std::string bytes = Bytes(3'000'000);
    Write("served/a", bytes);
    ASSERT_EQ(Do(Text(From(SftpUrl("a", "sftp-cut"), "b", kOwn), Flags({"MD5"}))), RQ_STATUS_FINISHED)
        << Detail();
    EXPECT_TRUE(Read("b") == bytes);
    EXPECT_EQ(m_outputs[0].further, "md5:" + kit::ReferenceMd5(At("b")));
    EXPECT_GE(TimesAsked("sftp connection\n"), 2u) << m_servers->Output();
}

TEST_F(UrlTest, AnUploadBySftpGoesOnWhereTheConnectionBroke) {
    Serve({"sftp:" + SshKeyKinds().back()});
    if (const std::string lack = Said("lacks"); !lack.empty()) GTEST_SKIP() << lack;
    Credentials(SshUser() + KnownHosts());
    Write("b", Bytes(3'000'000));
    ASSERT_EQ(Do(Text(To("b", SftpUrl("c", "sftp-cut"), kOwn), Flags({"MD5", "Verify"}))), RQ_STATUS_FINISHED)
        << Detail();
    EXPECT_TRUE(Read("served/c") == Read("b"));
    EXPECT_EQ(Names("served"), Strings{"c"});
    EXPECT_GE(TimesAsked("sftp connection\n"), 2u) << m_servers->Output();
}

// The library signs with SHA-1 for RSA keys, which servers of today take only when they are told to.
TEST_F(UrlTest, RsaKeysBySftp) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "libssh2 1.10 copies overlapping memory when it gets RSA preferences";
#endif
    Serve({"sftp:rsa"});
    if (const std::string lack = Said("lacks"); !lack.empty()) GTEST_SKIP() << lack;
    Credentials(SshUser() + KnownHosts());
    Write("served/a", "abc");
    Do(Text(From(SftpUrl("a"), "b", kOwn)));
    ExpectFailure(0x8410003B, "/a: ");
    for (const fs::directory_entry& old : fs::directory_iterator(m_keys.Path())) fs::remove(old);
    fs::remove(At("served/a"));
    Serve({"sftp:rsa-sha1"});
    UpAndDownBySftp();
}

TEST_F(UrlTest, TheCredentialsOnThePageAreRead) {
    const std::string page = kit::ReadText(RQ_TASK_DOCS "/transfer.md");
    const std::size_t begin = page.find("```xml credentials\n") + 19;
    if (!task::IsAbsolutePath("/etc")) GTEST_SKIP() << "the paths on the page are those of Linux";
    const std::string text = page.substr(begin, page.find("```", begin) - begin);
    ASSERT_TRUE(platform::CreatePrivateFile(m_configDir.Utf8("RQWorkerCredentials.xml"), text));
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
