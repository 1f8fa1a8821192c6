// Faults on the core service's side of the real host: garbage, invalid UTF-8, a header at the
// frame limit, and a core service away for longer than the retry bound. (Reconnection and a
// header over the limit are proven by the unit tests and host_test.)
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>

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

TEST_F(CoreFaultTest, GivesUpAfterTheRetryBoundWithoutSpinningAndReturnsOnTheNextStart) {
    const pid_t host = session.host().pid();
    const auto processorTime = [host] {
        std::ifstream stat("/proc/" + std::to_string(host) + "/stat");
        const std::string text{std::istreambuf_iterator<char>(stat), {}};
        // The fields count from the command name's last ")": utime and stime are 12th and 13th.
        std::istringstream fields(text.substr(text.rfind(')') + 2));
        std::vector<std::string> values{std::istream_iterator<std::string>(fields), {}};
        return std::chrono::milliseconds((std::stoll(values.at(11)) + std::stoll(values.at(12))) *
                                         1000 / ::sysconf(_SC_CLK_TCK));
    };
    session.stopCore();
    const auto processorBefore = processorTime();
    const auto lost = std::chrono::steady_clock::now();
    connection.close();
    ASSERT_TRUE(session.waitForLog("error Error with socket in host-to-core service: ", 30'000ms))
        << session.log();
    EXPECT_GE(std::chrono::steady_clock::now() - lost, 9s) << "gave up before the retry bound";
    EXPECT_LT(processorTime() - processorBefore, 1000ms) << "retrying used the processor";

    // Meanwhile the browser is still served: a frame is taken and dropped, not queued.
    session.host().send("while away");
    ASSERT_TRUE(session.waitForLog("info Sending Tab Data to Browser Messaging")) << session.log();
    session.startCore();
    auto back = session.answer();
    ASSERT_TRUE(back) << session.log();
    EXPECT_EQ(back->receive(), "kerrow.updateDeviceTwin");
    session.host().send("back");
    EXPECT_EQ(back->receive(), "backkerrow.tabList");
}

}  // namespace
}  // namespace kerrow::test
