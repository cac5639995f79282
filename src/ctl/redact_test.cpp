#include "ctl/redact.h"

#include <gtest/gtest.h>

namespace rq::ctl {
namespace {

TEST(Redact, TakesOutWhatANameCallsASecret) {
    const struct {
        const char *text, *clean;
    } cases[] = {
        {"<Password>p w&amp;</Password>", "<Password>***</Password>"},
        {"<FtpPassword>a</FtpPassword><User>u</User>", "<FtpPassword>***</FtpPassword><User>u</User>"},
        {"<Login user=\"u\" passwd='a\"b' x=\"1\"/>", "<Login user=\"u\" passwd='***' x=\"1\"/>"},
        {"{\"api_key\": \"a\\\"b\", \"n\": 1}", "{\"api_key\": \"***\", \"n\": 1}"},
        {"{\"text\": \"<a pwd=\\\"x\\\"/> b\"}", "{\"text\": \"<a pwd=\\\"***\\\"/> b\"}"},
        {"RQ_ENGINE_TOKEN=abc next", "RQ_ENGINE_TOKEN=*** next"},
        {"secret: abc, more", "secret: ***, more"},
        {"ftp://u:p@host/a@b and http://host/x", "ftp://***@host/a@b and http://host/x"},
        {"sftp://user:p:q@ss@host/", "sftp://***@host/"},
        {"<AccessKey>a</AccessKey><Passcode>b</Passcode>",
         "<AccessKey>***</AccessKey><Passcode>***</Passcode>"},
        {"<Password x=\"1\"/><a>b</a> a token of love > b",
         "<Password x=\"1\"/><a>b</a> a token of love > b"},
        {"<EncryptionKey id=\"1\">a</EncryptionKey>", "<EncryptionKey id=\"1\">***</EncryptionKey>"},
        {"private_key=a api.key: b", "private_key=*** api.key: ***"},
        {"{\"key\": \"nightly\"} <KeyFrameInterval>5</KeyFrameInterval>",
         "{\"key\": \"nightly\"} <KeyFrameInterval>5</KeyFrameInterval>"},
        {"<Password></Password>", "<Password></Password>"},
        {"the token is wrong", "the token is wrong"},
        {"", ""},
        {"password", "password"},
        {"password=", "password="},
        {"密码 <密>片</密>", "密码 <密>片</密>"},
    };
    for (const auto& one : cases) EXPECT_EQ(Redact(one.text), one.clean);
}

TEST(Redact, TakesOutWhatIsKnown) {
    EXPECT_EQ(Redact("a 0123 b 0123", {"0123", ""}), "a *** b ***");
}

}  // namespace
}  // namespace rq::ctl
