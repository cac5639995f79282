// The generated texts, looked at as their readers do: the XML through an XML parser.
#include "records/generate_text.h"

#include <gtest/gtest.h>
#include <tinyxml.h>

#include <set>
#include <string>

namespace rq {
namespace {

std::string TextOf(const TiXmlElement* element) {
    const char* text = element == nullptr ? nullptr : element->GetText();
    return text == nullptr ? std::string() : text;
}

TEST(Generate, XmlHasOneElementForEachParameterOfTheFile) {
    TiXmlDocument document;
    document.Parse(RunningParameterXml().c_str(), nullptr, TIXML_ENCODING_UTF8);
    ASSERT_FALSE(document.Error()) << document.ErrorDesc();
    const TiXmlElement* root = document.RootElement();
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(root->ValueStr(), "RunningParameters");
    std::set<std::string> names;
    for (const TiXmlElement* child = root->FirstChildElement(); child != nullptr;
         child = child->NextSiblingElement())
        EXPECT_TRUE(names.insert(child->ValueStr()).second) << child->ValueStr();
    EXPECT_EQ(names.size(), 68u) << "69 parameters, of which the next server index has no element";
    EXPECT_EQ(names.count("nextServerIndex"), 0u);
    EXPECT_EQ(TextOf(root->FirstChildElement("HeartbeatInterval")), "60");
    EXPECT_EQ(TextOf(root->FirstChildElement("Real18")), "8");
    EXPECT_EQ(TextOf(root->FirstChildElement("Text48")), "MPEG2_IBP,");
    EXPECT_EQ(TextOf(root->FirstChildElement("HttpEndpoint")), "http://127.0.0.1:8802");
}

TEST(Generate, XmlHoldsListsAsItems) {
    TiXmlDocument document;
    document.Parse(RunningParameterXml().c_str(), nullptr, TIXML_ENCODING_UTF8);
    ASSERT_FALSE(document.Error()) << document.ErrorDesc();
    const TiXmlElement* root = document.RootElement();
    ASSERT_NE(root, nullptr);
    const TiXmlElement* ports = root->FirstChildElement("ServerPorts");
    ASSERT_NE(ports, nullptr);
    EXPECT_EQ(TextOf(ports->FirstChildElement("Item")), "8083");
    EXPECT_EQ(ports->FirstChildElement("Item")->NextSiblingElement(), nullptr);
    ASSERT_NE(root->FirstChildElement("Texts08"), nullptr);
    EXPECT_EQ(root->FirstChildElement("Texts08")->FirstChild(), nullptr);
}

TEST(Generate, HeaderDeclaresEachKindByItsPlainType) {
    const std::string header = RunningParameterHeader();
    for (const char* declaration :
         {"    uint32_t size; ", "    int32_t heartbeatInterval_s; ", "    uint8_t flag05; ",
          "    float real16; ", "    RQText httpEndpoint; ", "    RQTextList serverAddresses; ",
          "    RQPortList serverPorts; ", "    int32_t nextServerIndex; /* no element; "})
        EXPECT_NE(header.find(declaration), std::string::npos) << declaration;
}

TEST(Generate, DocumentHasOneRowForEachParameter) {
    const std::string document = RunningParameterDocument();
    for (int position = 1; position <= 69; ++position) {
        const std::string row = "\n| " + std::to_string(position) + " | ";
        const std::size_t found = document.find(row);
        ASSERT_NE(found, std::string::npos) << position;
        EXPECT_EQ(document.find(row, found + 1), std::string::npos) << position;
    }
    EXPECT_NE(document.find("| `HeartbeatInterval` | whole number | 60 | s | "), std::string::npos);
}

}  // namespace
}  // namespace rq
