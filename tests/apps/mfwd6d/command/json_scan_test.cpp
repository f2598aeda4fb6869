#include "apps/mfwd6d/command/json_scan.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <random>

namespace daemon_ns = mfwd6::daemon;
using nlohmann::json;

namespace {

TEST(Request, IsTakenApart) {
    daemon_ns::request_parts parts;
    ASSERT_TRUE(daemon_ns::split_request(
        R"( { "id" : 7 , "action":"lines", "args" : {"lines":["a","b"]} } )", &parts));
    EXPECT_EQ(parts.id, "7");
    EXPECT_EQ(parts.action, "lines");
    EXPECT_EQ(parts.args, R"({"lines":["a","b"]})");
    ASSERT_TRUE(daemon_ns::split_request(R"({"action":"status"})", &parts));
    EXPECT_EQ(parts.id, "null");
    EXPECT_EQ(parts.args, "{}");
    ASSERT_TRUE(
        daemon_ns::split_request(R"({"id":"a\"b","action":"x","more":[{"y":null}]})", &parts));
    EXPECT_EQ(parts.id, R"("a\"b")");
}

TEST(Request, OtherThingsAreRefused) {
    daemon_ns::request_parts parts;
    const std::string deep = R"({"id":1,"action":"x","args":{"a":)" + std::string(100, '[') +
                             std::string(100, ']') + "}}";
    for (const std::string &text :
         {std::string(""), std::string("{"), std::string("[]"), std::string("GET / HTTP/1.1"),
          std::string(R"({"id":1,"action":"x")"), std::string(R"({"id":1 "action":"x"})"),
          std::string(R"({"id":[1],"action":"x"})"), std::string(R"({"id":{},"action":"x"})"),
          std::string(R"({"action":"x","args":[]})"), std::string(R"({"action":"x"} more)"),
          std::string(R"({"action":"x)"), std::string(R"({"action":"x\)"),
          std::string("{\"a\0b\":1}", 9),
          std::string(R"({"id":)") + std::string(65, '1') + R"(,"action":"x"})", deep})
        EXPECT_FALSE(daemon_ns::split_request(text, &parts)) << text;
}

// An answer repeats the id, so it must be JSON by itself.
TEST(Request, NumbersTextsAndBytesMustBeJson) {
    daemon_ns::request_parts parts;
    for (const char *id :
         {"1-2", "01", "-", "1.", ".5", "1e", "1e+", "+1", "true", "false", R"("\x")",
          R"("\ud800")", "\"\xff\"", "\"\xc0\x80\"", "\"\xe0\x80\x80\"", "\"\xed\xa0\x80\"",
          "\"\xf4\x90\x80\x80\"", "\"\xf0\x80\x80\x80\"", "\"\xc3\""})
        EXPECT_FALSE(
            daemon_ns::split_request(std::string(R"({"id":)") + id + R"(,"action":"x"})", &parts))
            << id;
    for (const char *id : {"0", "-0", "10", "-1.5e+3", "1E9", "null", R"("\ud83d\ude00")",
                           "\"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\xf4\x8f\xbf\xbf\""}) {
        const std::string request = std::string(R"({"id":)") + id + R"(,"action":"x"})";
        EXPECT_TRUE(daemon_ns::split_request(request, &parts)) << id;
        EXPECT_EQ(parts.id, id);
    }
    using namespace std::string_view_literals;
    EXPECT_FALSE(daemon_ns::split_request("{\"action\":\"x\"}\0more"sv, &parts));
    EXPECT_FALSE(daemon_ns::split_request(R"({"\x":1,"action":"x"})", &parts));
}

TEST(Request, NamesMayHaveEscapesAndTheLastOneCounts) {
    daemon_ns::request_parts parts;
    ASSERT_TRUE(
        daemon_ns::split_request(R"({"id":1,"\u0069d":2,"action":"x","action":4})", &parts));
    EXPECT_EQ(parts.id, "2");
    EXPECT_EQ(parts.action, "");
}

std::vector<std::string> texts_of(const std::string &object, bool *good) {
    std::vector<std::string> texts;
    std::string buffer;
    *good = daemon_ns::each_string(object, "lines", &buffer, [&](std::string_view text) {
        texts.emplace_back(text);
        return true;
    });
    return texts;
}

TEST(Texts, AreReadInPlaceAndUnescaped) {
    bool good = false;
    EXPECT_EQ(texts_of(R"({"other":[1],"lines":["a", "b\tc" ,"\u00e9\ud83d\ude00"]})", &good),
              (std::vector<std::string>{"a", "b\tc", "\xc3\xa9\xf0\x9f\x98\x80"}));
    EXPECT_TRUE(good);
    EXPECT_EQ(texts_of(R"({"l\u0069nes":["a"]})", &good), std::vector<std::string>{"a"});
    EXPECT_TRUE(texts_of(R"({"lines":[]})", &good).empty());
    EXPECT_TRUE(good);
    for (const char *bad :
         {"{}", R"({"lines":"a"})", R"({"lines":["a",1]})", R"({"lines":["a" "b"]})",
          R"({"lines":["\x"]})", R"({"lines":["\u12"]})", R"({"lines":["\udc00"]})",
          R"({"lines":["\ud800x"]})", R"({"lines":["a",]})", R"({"lines":[)"}) {
        texts_of(bad, &good);
        EXPECT_FALSE(good) << bad;
    }
}

// The library of the tests says what a text means.
TEST(Texts, RandomOnesComeBack) {
    std::mt19937 random(9);
    for (int n = 0; n < 20000; ++n) {
        json list = json::array();
        std::vector<std::string> wanted;
        for (auto count = random() % 4; count > 0; --count) {
            std::string text;
            for (auto length = random() % 8; length > 0; --length)
                text += std::string("a\"\\\n\t\x01/\x7f")[random() % 8];
            wanted.push_back(text);
            list.push_back(text);
        }
        bool good = false;
        ASSERT_EQ(texts_of(json{{"lines", list}}.dump(), &good), wanted);
        ASSERT_TRUE(good);
    }
}

}  // namespace
