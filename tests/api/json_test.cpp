// JSON helpers and message builders: readers, their null handling, and the exact
// texts of the builders.
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <stdlib.h>

#include <memory>
#include <string>
#include <vector>

#include "json_text.h"
#include "kep_json.h"

using kep_test::canonicalJson;

namespace {

struct JsonObjDeleter {
    void operator()(json_object *o) const { json_object_put(o); }
};
using Obj = std::unique_ptr<json_object, JsonObjDeleter>;

Obj parse(const char *text) {
    return Obj(json_tokener_parse(text));
}

// Takes ownership of a builder's malloc'd text and gives its compact form.
std::string built(char *text) {
    std::string out = canonicalJson(text);
    free(text);
    return out;
}

TEST(JsonHelpers, ParseAcceptsJsonAndRejectsTheRest) {
    json_object *obj = jsonParseStr("{\"a\": [1, 2]}");
    ASSERT_NE(obj, nullptr);
    EXPECT_EQ(canonicalJson(obj), "{\"a\":[1,2]}");
    jsonObjectPut(obj);

    EXPECT_EQ(jsonParseStr(nullptr), nullptr);
    for (const char *bad : {"", "not json", "{\"a\":", "{} trailing", "{\"a\":1}}"}) {
        EXPECT_EQ(jsonParseStr(bad), nullptr) << bad;
    }
}

TEST(JsonHelpers, MemberIsReadAsItsJsonText) {
    Obj obj = parse("{\"a\": \"x\", \"n\": 42, \"o\": {\"k\": [true]}, \"q\": \"say \\\"hi\\\"\"}");
    for (auto read : {getValueFromJsonObj, getValueFromJsonObj_kep}) {
        EXPECT_STREQ(read(obj.get(), "a"), "\"x\"");
        EXPECT_STREQ(read(obj.get(), "n"), "42");
        EXPECT_EQ(canonicalJson(read(obj.get(), "o")), "{\"k\":[true]}");
        EXPECT_STREQ(read(obj.get(), "q"), "\"say \\\"hi\\\"\"");
        EXPECT_EQ(read(obj.get(), "b"), nullptr);
    }

    EXPECT_EQ(getValueFromJsonObj(nullptr, "a"), nullptr);
    EXPECT_EQ(getValueFromJsonObj_kep(obj.get(), nullptr), nullptr);

    Obj array = parse("[1, 2]");
    EXPECT_EQ(getValueFromJsonObj(array.get(), "a"), nullptr) << "not an object";
}

TEST(JsonHelpers, ArrayElementMember) {
    Obj array = parse("[{\"k\": \"v0\"}, {\"k\": 7}, 3]");
    EXPECT_STREQ(getValueFromArrayJsonObj(array.get(), 0, "k"), "\"v0\"");
    EXPECT_STREQ(getValueFromArrayJsonObj(array.get(), 1, "k"), "7");
    EXPECT_EQ(getValueFromArrayJsonObj(array.get(), 1, "x"), nullptr);
    EXPECT_EQ(getValueFromArrayJsonObj(array.get(), 2, "k"), nullptr) << "element is no object";

    EXPECT_EQ(getValueFromArrayJsonObj(array.get(), 3, "k"), nullptr);
    EXPECT_EQ(getValueFromArrayJsonObj(array.get(), 0xFFFFFFFFu, "k"), nullptr);
    Obj object = parse("{\"k\": 1}");
    EXPECT_EQ(getValueFromArrayJsonObj(object.get(), 0, "k"), nullptr) << "not an array";

    EXPECT_EQ(getValueFromArrayJsonObj(nullptr, 0, "k"), nullptr);
    EXPECT_EQ(getValueFromArrayJsonObj(array.get(), 0, nullptr), nullptr);
}

TEST(JsonHelpers, BoolOnlyFromRealBooleans) {
    Obj obj = parse("{\"t\": true, \"f\": false, \"s\": \"true\", \"one\": 1, \"zero\": 0, \"nul\": null}");
    int value = 7;
    EXPECT_EQ(getBoolFromJsonObj(obj.get(), "t", &value), 0);
    EXPECT_EQ(value, 1);
    EXPECT_EQ(getBoolFromJsonObj(obj.get(), "f", &value), 0);
    EXPECT_EQ(value, 0);

    for (const char *key : {"s", "one", "zero", "nul", "absent"}) {
        value = 7;
        EXPECT_EQ(getBoolFromJsonObj(obj.get(), key, &value), -1) << key;
        EXPECT_EQ(value, 7) << key;
    }

    EXPECT_EQ(getBoolFromJsonObj(nullptr, "t", &value), -1);
    EXPECT_EQ(getBoolFromJsonObj(obj.get(), nullptr, &value), -1);
    EXPECT_EQ(getBoolFromJsonObj(obj.get(), "t", nullptr), -1);
}

TEST(JsonHelpers, StringAndIntPassThePlatformAnswer) {
    Obj obj = parse("{\"s\": \"text\", \"i\": -12, \"b\": true}");
    EXPECT_STREQ(getStringFromJsonObj(obj.get(), "s"), "text");
    EXPECT_STREQ(getStringFromJsonObj(obj.get(), "i"), "-12");
    EXPECT_EQ(getStringFromJsonObj(obj.get(), "x"), nullptr);
    int value = 5;
    EXPECT_EQ(getIntFromJsonObj(obj.get(), "i", &value), 0);
    EXPECT_EQ(value, -12);
    value = 5;
    EXPECT_NE(getIntFromJsonObj(obj.get(), "s", &value), 0);
    EXPECT_EQ(value, 5);
}

TEST(JsonHelpers, PutDropsExactlyOneReference) {
    json_object *obj = json_object_new_object();
    json_object_get(obj);
    jsonObjectPut(obj);
    EXPECT_EQ(json_object_put(obj), 1) << "the last reference was still held";

    jsonObjectPut(nullptr);
}

TEST(JsonHelpers, ErrorMessagesForSdk) {
    EXPECT_EQ(built(generateErrorJsonMsgForSDK(-5, "bad \"thing\"")),
              "{\"error_code\":-5,\"msg\":\"bad \\\"thing\\\"\"}");
    EXPECT_EQ(built(generateErrorJsonMsgForSDK(-5, nullptr)), "{\"error_code\":-5}");
    EXPECT_EQ(built(generateErrorJsonMsgForSDK(0, "")), "{\"error_code\":0,\"msg\":\"\"}");
    EXPECT_EQ(built(responseSuccessJsonMsg()), "{\"error_code\":0}");
    EXPECT_EQ(built(responseErrorJsonMsg(-10100, "no table")),
              "{\"error_code\":-10100,\"msg\":\"no table\"}");
    EXPECT_EQ(built(responseErrorJsonMsg(-1, nullptr)), "{\"error_code\":-1}");
}

TEST(JsonHelpers, ErrorMessageWithIdKeepsSevenCharacters) {
    EXPECT_EQ(built(generateErrorJsonMsg(3, "m", 42)), "{\"id\":\"42\",\"error_code\":3,\"msg\":\"m\"}");
    EXPECT_EQ(built(generateErrorJsonMsg(3, nullptr, 1234567)), "{\"id\":\"1234567\",\"error_code\":3}");
    EXPECT_EQ(built(generateErrorJsonMsg(0, nullptr, 12345678)), "{\"id\":\"1234567\",\"error_code\":0}");
    EXPECT_EQ(built(generateErrorJsonMsg(0, nullptr, -12345678)), "{\"id\":\"-123456\",\"error_code\":0}");
    EXPECT_EQ(built(generateErrorJsonMsg(0, nullptr, INT32_MIN)), "{\"id\":\"-214748\",\"error_code\":0}");
}

TEST(JsonHelpers, FormattedResponseWrapsParsedValue) {
    EXPECT_EQ(built(buildFormatedResponseForSDK("[1, \"two\", {}]")),
              "{\"result\":[1,\"two\",{}],\"error_code\":0}");
    EXPECT_EQ(built(buildFormatedResponseForSDK("{\"a\": {\"b\": 1}}")),
              "{\"result\":{\"a\":{\"b\":1}},\"error_code\":0}");
    EXPECT_EQ(built(buildFormatedResponseForSDK("\"text\"")), "{\"result\":\"text\",\"error_code\":0}");

    EXPECT_EQ(buildFormatedResponseForSDK(nullptr), nullptr);
    EXPECT_EQ(buildFormatedResponseForSDK("[1,"), nullptr);
}

}  // namespace
