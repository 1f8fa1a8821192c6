// Faults on the core service's side of the real host: garbage, invalid UTF-8 and a header at the
// frame limit. (Reconnection and a header over the limit are proven by the unit tests and
// host_test.)
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "kit/frame_codec.h"
#include "tests/faults/fault_support.h"

namespace kerrow::test {
namespace {

std::string closeTabFrame(int id) {
    return R"({"action":"closeTab","payload":{"id":)" + std::to_string(id) + "}}";
}

class CoreFaultTest : public ::testing::Test {
  protected:
    HostSession session{KERROW_HOST_BINARY};
    CoreConnection connection = session.start();
};

TEST_F(CoreFaultTest, DropsGarbageAndInvalidUTF8AndStaysInStep) {
    std::mt19937 random(20261122);
    std::vector<std::string> garbage;
    for (int i = 0; i < 200; ++i) {
        std::string bytes(random() % 300, '\0');
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
        garbage.push_back(bytes);
    }
    garbage.insert(garbage.end(),
                   {"", std::string(3, '\0'), "kerrow.closeTab-5\xFF",
                    "kerrow.closeTab-\xC0\xB6",               // an overlong "6"
                    "kerrow.disableInternet\xED\xA0\x80",     // a surrogate
                    "kerrow.enableInternet\xF4\x90\x80\x80",  // above U+10FFFF
                    "kerrow.closeTab-99999999999999999999", "kerrow.closeTab--",
                    "kerrow.websiteList{not json", "kerrow.websiteList" + std::string(100'000, '['),
                    R"(kerrow.websiteList{"name":1,"websites":[],"listType":0})"});
    for (const auto& message : garbage) {
        connection.send(message);
    }
    connection.send("kerrow.closeTab-7");
    EXPECT_EQ(session.host().receive(), closeTabFrame(7)) << session.log();
    EXPECT_FALSE(session.core().accept(200ms)) << "garbage ended the connection";
    EXPECT_TRUE(session.host().running());
}

TEST_F(CoreFaultTest, TakesAHeaderAtTheLimitWithoutReservingItsSize) {
    const auto peakBefore = procFigure(session.host().pid(), "status", "VmHWM");
    const auto header = encodeFrameLength(64 * 1024 * 1024);
    connection.sendRaw(std::string(header.begin(), header.end()) + "kerrow.closeTab-8");
    connection.close();
    auto second = session.core().accept(12'000ms);
    ASSERT_TRUE(second) << "a header at the limit is no error\n" << session.log();
    EXPECT_LT(procFigure(session.host().pid(), "status", "VmHWM") - peakBefore, 32 * 1024)
        << "memory was reserved for the announced 64 MiB";
    EXPECT_FALSE(session.host().receive(200ms)) << "an incomplete frame was delivered";
}

}  // namespace
}  // namespace kerrow::test
