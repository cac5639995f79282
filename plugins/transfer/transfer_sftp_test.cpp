// A file that replaces another one by sftp: whatever breaks, one of them is there. Against an sshd of the
// test's own, whose sftp server breaks off where it is told to (testdata/sftp_breaks.py).
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "transfer_test_folder.h"
#include "url.h"

namespace rq::transfer {
namespace {

namespace fs = std::filesystem;

constexpr const char* kSshd = "/usr/sbin/sshd";
constexpr const char* kSftpServer = "/usr/lib/openssh/sftp-server";

class SftpTest : public TransferTest {
  protected:
    void SetUp() override {
        if (!fs::exists(kSshd) || !fs::exists(kSftpServer)) GTEST_SKIP() << "there is no " << kSshd;
        if (::geteuid() == 0 && !fs::exists("/run/sshd")) GTEST_SKIP() << "as root it wants /run/sshd";
        for (const char* name : {"host", "user"}) {
            kit::Child keygen("/usr/bin/ssh-keygen",
                              {"-q", "-t", "ed25519", "-N", "", "-C", "test", "-f", PathOf(name)});
            ASSERT_EQ(keygen.ExitCode(), 0) << keygen.Errors();
        }
        const std::string port = std::to_string(FreePort());
        Write("config", "ListenAddress 127.0.0.1\nPort " + port + "\nHostKey \"" + PathOf("host") +
                            "\"\nAuthorizedKeysFile \"" + PathOf("user.pub") +
                            "\"\nStrictModes no\nPasswordAuthentication no\nPidFile none\nSubsystem sftp " +
                            RQ_PYTHON + " -B " + RQ_SFTP_BREAKS + " " + kSftpServer + " " + PathOf("breaks") +
                            "\n");
        Write("known", "[127.0.0.1]:" + port + " " + Read("host.pub"));
        const fs::path file = m_configDir.Write(
            "RQWorkerCredentials.xml",
            "<Credentials><Entry><Name>own</Name><Host>127.0.0.1</Host><User>" +
                std::string(::getpwuid(::geteuid())->pw_name) + "</User><PrivateKeyFile>" + PathOf("user") +
                "</PrivateKeyFile><KnownHosts>" + PathOf("known") + "</KnownHosts></Entry></Credentials>");
        ASSERT_EQ(::chmod(file.c_str(), 0600), 0);
        m_server.emplace(kSshd, std::vector<std::string>{"-D", "-e", "-f", PathOf("config")});
        m_url = "sftp://127.0.0.1:" + port;
        fs::create_directory(At("served"));
        for (const fs::path& part : At("served").relative_path()) m_url += "/" + Encoded(part.string());
        Write("a", "new");
        Write("served/b", "the old one");
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
    std::uint32_t Send(const std::string& breaks, const std::string& name = "b") {
        Write("breaks", breaks);
        return Do(Text("<Item><Source>" + PathOf("a") + "</Source><Target>" + m_url + "/" + name +
                           "</Target><Credentials>own</Credentials></Item>",
                       Flags({"Overwrite"})));
    }

    std::optional<kit::Child> m_server;
    std::string m_url;
};

TEST_F(SftpTest, ReplacesAFile) {
    EXPECT_EQ(Send(""), RQ_STATUS_FINISHED) << Detail() << m_server->Errors();
    EXPECT_EQ(Read("served/b"), "new");
    EXPECT_EQ(Names("served"), Strings{"b"});
    EXPECT_EQ(Send("", "c"), RQ_STATUS_FINISHED) << Detail();
    EXPECT_EQ(Names("served"), (Strings{"b", "c"}));
}

// Before and after each of the two renames; the connection that is made next works.
TEST_F(SftpTest, AConnectionThatBreaksLosesNothing) {
    for (const char* when : {"after", "-\nbefore", "-\nafter"}) {
        Write("served/b", "the old one");
        EXPECT_EQ(Send(when), RQ_STATUS_FINISHED) << when << ": " << Detail() << m_server->Errors();
        EXPECT_EQ(Read("served/b"), "new") << when;
        EXPECT_EQ(Names("served"), Strings{"b"}) << when;
    }
    Write("served/b", "the old one");
    EXPECT_EQ(Send("before"), RQ_STATUS_ERROR);
    EXPECT_EQ(Read("served/b"), "the old one");
    EXPECT_EQ(Names("served"), Strings{"b"});
}

// The second rename breaks again and again: the old one is put back.
TEST_F(SftpTest, ANameThatCannotBeGivenGivesTheOldFileBack) {
    EXPECT_EQ(Send("-\nbefore\nbefore"), RQ_STATUS_ERROR);
    EXPECT_EQ(Read("served/b"), "the old one");
    EXPECT_EQ(Names("served"), Strings{"b"});
}

// Nor can that be done: both stay, and their names are said.
TEST_F(SftpTest, WhatMayBeTheLastIsNotRemoved) {
    EXPECT_EQ(Send("-\nbefore\nbefore\nbefore"), RQ_STATUS_ERROR);
    const Strings names = Names("served");
    ASSERT_EQ(names.size(), 2u);
    std::string both;
    for (const std::string& name : names) {
        EXPECT_NE(Detail().find(PathOf("served/" + name)), std::string::npos) << Detail();
        both += Read("served/" + name) + " ";
    }
    EXPECT_TRUE(both == "new the old one " || both == "the old one new ") << both;
}

// The name was given, and only the answer to that is lost.
TEST_F(SftpTest, AnAnswerThatIsLostIsNoFailure) {
    EXPECT_EQ(Send("after", "c"), RQ_STATUS_FINISHED) << Detail();
    EXPECT_EQ(Read("served/c"), "new");
    EXPECT_EQ(Names("served"), (Strings{"b", "c"}));
}

TEST_F(SftpTest, AFolderIsNotReplaced) {
    Write("served/folder/x", "1");
    EXPECT_EQ(Send("", "folder"), RQ_STATUS_ERROR);
    ExpectFailure(0x84100000, "the target exists and is no plain file; it is not overwritten");
    EXPECT_EQ(Names("served"), (Strings{"b", "folder"}));
    EXPECT_EQ(Read("served/folder/x"), "1");
}

}  // namespace
}  // namespace rq::transfer
