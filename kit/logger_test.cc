#include "kit/logger.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <regex>
#include <set>
#include <system_error>
#include <thread>
#include <vector>

#include "tests/support/test_support.h"

namespace kerrow {
namespace {

using namespace std::chrono_literals;

// 2026-11-22T09:14:03.042Z
Date exampleTime() {
    using namespace std::chrono;
    return sys_days{year{2026} / November / 22} + 9h + 14min + 3s + 42ms;
}

class LoggerTest : public ::testing::Test {
  protected:
    test::TemporaryDirectory directory;
    std::filesystem::path logsDir = directory.path() / "state" / "kerrow";
    std::filesystem::path logFile = logsDir / "native-messaging-host.log";
};

TEST_F(LoggerTest, WritesTheCallersTimeStampLevelAndMessage) {
    const Logger logger(now(), logsDir);
    logger.logInformation("KerrowNativeMessagingHost started", exampleTime());
    logger.logError(std::system_error(ENOENT, std::generic_category(), "connect"),
                    "Error setting up socket", exampleTime() + 1ms);
    Logger::flushAll();
    EXPECT_EQ(test::readFile(logFile),
              "2026-11-22T09:14:03.042Z info KerrowNativeMessagingHost started\n"
              "2026-11-22T09:14:03.043Z error Error setting up socket: connect: No such file or "
              "directory\n");
}

TEST_F(LoggerTest, AMessageStaysOneLineWhateverItCarries) {
    const Logger logger(now(), logsDir);
    logger.logInformation(
        "Received Disable Internet: a\n2026-01-01T00:00:00.000Z error forged\r\x1b[2J\tend\x7f",
        exampleTime());
    Logger::flushAll();
    EXPECT_EQ(test::readFile(logFile),
              "2026-11-22T09:14:03.042Z info Received Disable Internet: "
              "a\\n2026-01-01T00:00:00.000Z error forged\\r\\x1b[2J\tend\\x7f\n");
}

TEST_F(LoggerTest, CreatesAPrivateDirectoryAndFile) {
    Logger(now(), logsDir).logInformation("line", now());
    Logger::flushAll();
    struct stat status {};
    ASSERT_EQ(::stat(logsDir.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0700u);
    ASSERT_EQ(::stat(logFile.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST_F(LoggerTest, LinesReachTheFileWithinASecondWithoutAnExplicitFlush) {
    Logger(now(), logsDir).logInformation("soon on disk", now());
    EXPECT_TRUE(test::waitUntil([&] { return !test::readFile(logFile).empty(); }, 3000ms));
}

TEST_F(LoggerTest, LoggersOnManyThreadsShareOneFileWithoutTornOrLostLines) {
    constexpr int threads = 8;
    constexpr int linesEach = 2000;
    std::vector<std::thread> writers;
    for (int thread = 0; thread < threads; ++thread) {
        writers.emplace_back([&, thread] {
            const Logger logger(now(), logsDir);  // each thread its own logger, as each service
            for (int index = 0; index < linesEach; ++index) {
                logger.logInformation(
                    "writer " + std::to_string(thread) + " line " + std::to_string(index), now());
            }
        });
    }
    for (auto& writer : writers) {
        writer.join();
    }
    Logger::flushAll();
    const std::regex shape(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z info writer \d+ line \d+)");
    std::set<std::string> seen;
    for (const auto& message : test::logMessages(logFile)) {
        EXPECT_TRUE(std::regex_match("2026-01-01T00:00:00.000Z " + message, shape)) << message;
        seen.insert(message);
    }
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(threads * linesEach));
}

TEST_F(LoggerTest, RotatesSoTheFileStaysBounded) {
    const Logger logger(now(), logsDir);
    const std::string message(1000, 'r');
    for (int index = 0; index < 20000; ++index) {  // about 20 MB of lines
        logger.logInformation(message, now());
    }
    Logger::flushAll();
    const auto size = std::filesystem::file_size(logFile);
    EXPECT_LE(size, 9u * 1024 * 1024);
    EXPECT_TRUE(std::filesystem::exists(logFile.string() + ".1"));
    EXPECT_FALSE(std::filesystem::exists(logFile.string() + ".3"));
}

TEST_F(LoggerTest, FallsBackToStandardErrorNeverStandardOutput) {
    const auto blocker = directory.path() / "not-a-directory";
    {
        std::FILE* file = std::fopen(blocker.c_str(), "w");
        ASSERT_NE(file, nullptr);
        std::fclose(file);
    }
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    Logger(now(), blocker / "kerrow").logInformation("nowhere to write", exampleTime());
    Logger::flushAll();
    const std::string err = ::testing::internal::GetCapturedStderr();
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(err, "2026-11-22T09:14:03.042Z info nowhere to write\n");
    EXPECT_EQ(out, "");
}

TEST(LoggerLocation, FollowsXdgStateHomeThenHome) {
    const char* savedState = std::getenv("XDG_STATE_HOME");
    const char* savedHome = std::getenv("HOME");
    const std::string state = savedState ? savedState : "";
    const std::string home = savedHome ? savedHome : "";
    ::setenv("XDG_STATE_HOME", "/state", 1);
    ::setenv("HOME", "/home/alice", 1);
    EXPECT_EQ(Logger::defaultLogsDirectory(), std::filesystem::path("/state/kerrow"));
    ::setenv("XDG_STATE_HOME", "relative", 1);
    EXPECT_EQ(Logger::defaultLogsDirectory(),
              std::filesystem::path("/home/alice/.local/state/kerrow"));
    ::unsetenv("XDG_STATE_HOME");
    EXPECT_EQ(Logger::defaultLogsDirectory(),
              std::filesystem::path("/home/alice/.local/state/kerrow"));
    savedState ? ::setenv("XDG_STATE_HOME", state.c_str(), 1) : ::unsetenv("XDG_STATE_HOME");
    savedHome ? ::setenv("HOME", home.c_str(), 1) : ::unsetenv("HOME");
}

}  // namespace
}  // namespace kerrow
