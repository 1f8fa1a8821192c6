#include "kit/website_list.h"

#include <gtest/gtest.h>

#include "platform/data.h"

namespace kerrow {
namespace {

std::optional<WebsiteList> decode(std::string_view json) {
    return WebsiteList::decode(dataFromText(json));
}

TEST(WebsiteListDecoding, ReadsTheThreeMembersIgnoresOthersAndKeepsAnyByteAsListType) {
    const auto list = decode(
        R"({"name":"School hours","websites":["a.example","b.example"],"listType":1,"x":[1]})");
    ASSERT_TRUE(list);
    EXPECT_EQ(list->name, "School hours");
    EXPECT_EQ(list->websites, (std::vector<std::string>{"a.example", "b.example"}));
    EXPECT_EQ(list->listType, WebsiteList::ListType::block);
    EXPECT_EQ(static_cast<int>(decode(R"({"name":"","websites":[],"listType":255})")->listType),
              255);
}

TEST(WebsiteListDecoding, RefusesAnythingElse) {
    for (const char* json : {
             R"({"websites":[],"listType":0})",                  // no name
             R"({"name":"n","listType":0})",                     // no websites
             R"({"name":"n","websites":[]})",                    // no listType
             R"({"name":null,"websites":[],"listType":0})",      // null name
             R"({"name":"n","websites":["a",2],"listType":0})",  // non-string site
             R"({"name":"n","websites":"a","listType":0})",      // websites not an array
             R"({"name":"n","websites":[],"listType":256})",     // more than a byte
             R"({"name":"n","websites":[],"listType":-1})",      // negative
             R"({"name":"n","websites":[],"listType":0.5})",     // not an integer
             R"({"name":"n","websites":[],"listType":"0"})",     // a string
             R"({"name":"n","websites":[],"listType":true})",    // a boolean
             R"([])",
             R"({"name":"n","websites":[],"listType":0)",
         }) {
        EXPECT_FALSE(decode(json)) << json;
    }
}

TEST(WebsiteListDecoding, RefusesDeepNestingAndInvalidUTF8WithoutCrashing) {
    EXPECT_FALSE(decode(std::string(100000, '[') + std::string(100000, ']')));
    EXPECT_FALSE(decode("{\"name\":\"\xff\",\"websites\":[],\"listType\":0}"));
}

}  // namespace
}  // namespace kerrow
