// The real host under Valgrind's memcheck (host-under-valgrind), which turns exit status 0 into 99
// on any memory error or leak; its report, KERROW_MEMCHECK_LOGS/<pid>.log, is quoted on failure.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/host_session.h"

namespace kerrow::test {
namespace {

// Memcheck runs the host some twenty to fifty times slower; every wait is stretched to match.
constexpr Duration slow = 60'000ms;

TEST(MemcheckTest, RelaysReconnectsAndEndsWhileRetryingWithoutMemoryErrorsOrLeaks) {
    HostSession session{KERROW_HOST_BINARY};
    auto connection = session.start(slow);
    session.host().send(R"({"tabs":[1]})");
    EXPECT_EQ(connection.receive(slow), R"({"tabs":[1]}kerrow.tabList)");
    for (const std::string command :
         {"kerrow.closeTab-42", "kerrow.closeTab-abc", "kerrow.disableInternetSchool/hours",
          "kerrow.enableInternet",
          R"(kerrow.websiteList{"name":"n","websites":["a.example"],"listType":0})",
          R"(kerrow.websiteList{"name":"n","websites":[],"listType":9})", "kerrow.websiteList[",
          "\xFF\xFE"}) {
        connection.send(command);
    }
    connection.send("kerrow.closeTab-43");
    for (std::optional<std::string> next; next != closeTabFrame(43);) {
        ASSERT_TRUE(next = session.host().receive(slow)) << session.log();
    }

    connection.close();  // the host reconnects
    auto second = session.core().accept(slow);
    ASSERT_TRUE(second) << session.log();
    session.postStart();  // and starts again, retiring the service and channel it has
    auto third = session.core().accept(slow);
    ASSERT_TRUE(third) << session.log();
    EXPECT_EQ(third->receive(slow), "kerrow.updateDeviceTwin");
    session.host().send("last");
    EXPECT_EQ(third->receive(slow), "lastkerrow.tabList");

    // The core service goes away; the host ends while it retries.
    session.stopCore();
    third->close();
    session.host().send("nobody listens");
    ASSERT_TRUE(session.waitForLog("info Sending Tab Data to Browser Messaging", slow));
    session.host().closeInput();
    const auto status = session.host().waitForExit(slow);
    const std::string report = readFile(std::filesystem::path(KERROW_MEMCHECK_LOGS) /
                                        (std::to_string(session.host().pid()) + ".log"));
    EXPECT_EQ(status, 0) << report;
    EXPECT_NE(report.find("ERROR SUMMARY: 0 errors"), std::string::npos) << report;
}

}  // namespace
}  // namespace kerrow::test
