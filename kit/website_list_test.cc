#include "kit/website_list.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "platform/data.h"
#include "tests/support/test_support.h"

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
    // Of a member given twice, the last counts, even where the first was not valid.
    const auto repeated = decode(
        R"({"name":1,"websites":[2],"listType":-1,"name":"b","websites":["c"],"listType":0})");
    ASSERT_TRUE(repeated);
    EXPECT_EQ(repeated->websites, std::vector<std::string>{"c"});
}

// Keeps nothing, and notes how much heap was in use while the websites came.
struct MeasuringSink : WebsiteList::WebsiteSink {
    void restart() override {}
    void add(std::string_view /*website*/) override {
        if (++count % 4096 == 0) {
            peak = std::max(peak, test::heapInUse());
        }
    }
    std::size_t count = 0;
    std::size_t peak = 0;
};

// Decoding costs the longest text, not the list: a 16 MiB list is read with almost no memory.
TEST(WebsiteListDecoding, ReadsALargeListWithoutHoldingIt) {
    std::string json = R"({"name":"n","websites":[)";
    while (json.size() < 16 * 1024 * 1024) {
        json += "\"a.example\",";
    }
    json += R"("b"],"listType":0})";
    const Data bytes = dataFromText(json);
    const std::size_t before = test::heapInUse();
    if (before == 0) {
        GTEST_SKIP() << "no heap figures under a sanitizer";
    }
    MeasuringSink sink;
    EXPECT_EQ(WebsiteList::decode(bytes, sink), WebsiteList::ListType::allow);
    EXPECT_GT(sink.count, 1'000'000u);
    EXPECT_LT(sink.peak - before, 1024u * 1024) << "bytes in use while decoding";
}

// Also invalid UTF-8, and nesting deeper than the decoder follows, without crashing.
TEST(WebsiteListDecoding, RefusesAnythingElse) {
    for (const auto& json : std::vector<std::string>{
             R"({"websites":[],"listType":0})",  // no name
             R"({"name":"n","listType":0})",     // no websites
             R"({"name":"n","websites":[]})",    // no listType
             R"({"name":null,"websites":[],"listType":0})",
             R"({"name":"n","websites":["a",2],"listType":0})",
             R"({"name":"n","websites":"a","listType":0})",
             R"({"name":"n","websites":["a"],"listType":0,"websites":"a"})",
             R"({"name":"n","websites":[],"listType":256})",
             R"({"name":"n","websites":[],"listType":-1})",
             R"({"name":"n","websites":[],"listType":0.5})",
             R"({"name":"n","websites":[],"listType":"0"})",
             R"({"name":"n","websites":[],"listType":true})",
             R"([])",
             R"({"name":"n","websites":[],"listType":0)",
             "{\"name\":\"\xff\",\"websites\":[],\"listType\":0}",
             R"({"name":"n","websites":[],"listType":0,"x":)" + std::string(100000, '[') +
                 std::string(100000, ']') + "}",
         }) {
        EXPECT_FALSE(decode(json)) << json.substr(0, 80);
    }
}

}  // namespace
}  // namespace kerrow
