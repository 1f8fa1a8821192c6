// The host's trust in the core service's socket, tested against the real binary: a socket in a
// directory that others may write or that another user owns, a socket file another user owns, and
// a listener running as another user are each refused with an error line, and no command from
// them reaches the browser. Cases that need another user's files or processes run as root only.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "tests/e2e/host_session.h"
#include "tests/faults/fault_support.h"

namespace kerrow::test {
namespace {

constexpr uid_t nobody = 65534;

class TrustTest : public ::testing::Test {
  protected:
    void SetUp() override { session.stopCore(); }

    [[nodiscard]] std::filesystem::path socketDirectory() const {
        return session.socketPath().parent_path();
    }

    // Starts the host against `core`, and checks that it refused the socket, said why (the
    // error line holds `reason`), and delivered nothing from it, while it went on serving the
    // browser.
    void expectRefused(HostileCore& core, std::string_view reason) {
        ASSERT_TRUE(core.waitUntilListening()) << session.standardError();
        session.launch();
        ASSERT_TRUE(session.waitForAnnouncement());
        session.postStart();
        const auto refusedWith = [&](std::string_view prefix) {
            return waitUntil([&] {
                const auto lines = session.logMessages();
                return std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
                    return line.starts_with(prefix) && line.find(reason) != std::string::npos;
                });
            });
        };
        EXPECT_TRUE(refusedWith("error Error setting up socket: ")) << session.log();
        EXPECT_TRUE(refusedWith("error Error with socket in host-to-core service: "))
            << session.log();
        EXPECT_FALSE(session.host().receive(500ms)) << "a command of an untrusted peer arrived";
        session.host().send("stays here");
        session.host().closeInput();
        EXPECT_EQ(session.host().waitForExit(), 0);
        EXPECT_EQ(session.host().receiveRest(), "");
        RecordProperty("refusal", session.log());
    }

    HostSession session;
};

class WritableDirectoryTest : public TrustTest, public ::testing::WithParamInterface<mode_t> {};

TEST_P(WritableDirectoryTest, RefusesASocketInADirectoryOthersMayWrite) {
    HostileCore core(session.runtimeDirectory(), session.socketPath(), {});
    ASSERT_EQ(::chmod(socketDirectory().c_str(), GetParam()), 0);
    expectRefused(core, "is writable by group or others");
}

INSTANTIATE_TEST_SUITE_P(Modes, WritableDirectoryTest, ::testing::Values(0770, 0707, 01777),
                         [](const auto& info) {
                             return "Mode" + std::to_string(info.param >> 6 & 07) +
                                    std::to_string(info.param >> 3 & 07) +
                                    std::to_string(info.param & 07) +
                                    (info.param & 01000 ? "Sticky" : "");
                         });

TEST_F(TrustTest, RefusesASocketDirectoryOwnedByAnotherUser) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "giving the directory to another user needs root";
    }
    HostileCore core(session.runtimeDirectory(), session.socketPath(), {});
    ASSERT_EQ(::chown(socketDirectory().c_str(), nobody, nobody), 0);
    expectRefused(core,
                  "socket directory " + socketDirectory().string() + " is owned by uid 65534");
}

TEST_F(TrustTest, RefusesASocketFileOwnedByAnotherUser) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "giving the socket file to another user needs root";
    }
    HostileCore core(session.runtimeDirectory(), session.socketPath(),
                     {.socketOwner = nobody, .listenAs = {}});
    expectRefused(core, "socket " + session.socketPath().string() + " is owned by uid 65534");
}

TEST_F(TrustTest, RefusesAListenerRunningAsAnotherUser) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "listening as another user needs root";
    }
    // The socket file and its directory are in order; only the peer's credentials are not.
    HostileCore core(session.runtimeDirectory(), session.socketPath(),
                     {.socketOwner = {}, .listenAs = nobody});
    expectRefused(core, "runs as uid 65534");
}

TEST_F(TrustTest, TakesASocketOfRootOrItsOwnUser) {
    HostileCore core(session.runtimeDirectory(), session.socketPath(), {});
    ASSERT_TRUE(core.waitUntilListening());
    session.launch();
    ASSERT_TRUE(session.waitForAnnouncement());
    session.postStart();
    EXPECT_EQ(session.host().receive(), R"({"action":"closeTab","payload":{"id":666}})")
        << session.log();
}

}  // namespace
}  // namespace kerrow::test
