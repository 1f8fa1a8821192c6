#include "kit/logger.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <regex>
#include <set>
#include <thread>

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

// Without an explicit flush, the lines reach the file within a second.
TEST_F(LoggerTest, WritesEachMessageAsOneLineWithTheCallersTimeSoon) {
    const Logger logger(now(), logsDir);
    logger.logInformation("KerrowNativeMessagingHost started", exampleTime());
    logger.logError(std::system_error(ENOENT, std::generic_category(), "connect"),
                    "Error setting up socket", exampleTime() + 1ms);
    const std::string expected =
        "2026-11-22T09:14:03.042Z info KerrowNativeMessagingHost started\n"
        "2026-11-22T09:14:03.043Z error Error setting up socket: connect: No such file or "
        "directory\n";
    EXPECT_TRUE(test::waitUntil([&] { return test::readFile(logFile) == expected; }, 3000ms))
        << test::readFile(logFile);

    // A message stays one line of at most 64 KiB, whatever it carries.
    logger.logInformation(
        "Received Disable Internet: a\n2026-01-01T00:00:00.000Z error forged\r\x1b[2J\tend\x7f",
        exampleTime());
    // 12 MiB of text whose cut falls inside a two-byte character.
    std::string huge = "x";
    for (int index = 0; index < 6 * 1024 * 1024; ++index) {
        huge += "\xc3\xa9";
    }
    logger.logInformation(huge, exampleTime());
    Logger::flushAll();
    const std::string log = test::readFile(logFile).substr(expected.size());
    const std::string first = log.substr(0, log.find('\n') + 1);
    EXPECT_EQ(first,
              "2026-11-22T09:14:03.042Z info Received Disable Internet: "
              "a\\n2026-01-01T00:00:00.000Z error forged\\r\\x1b[2J\tend\\x7f\n");
    const std::string second = log.substr(first.size());
    EXPECT_EQ(std::count(second.begin(), second.end(), '\n'), 1);
    EXPECT_LE(second.size(), 64u * 1024 + 64);
    EXPECT_TRUE(second.ends_with(" [12517378 bytes left out]\n"))
        << second.substr(second.size() - 40);
}

TEST_F(LoggerTest, LoggersOnManyThreadsShareOneFileWithoutTornOrLostLines) {
    constexpr int threads = 8;
    constexpr int linesEach = 2000;
    std::vector<std::jthread> writers;
    for (int thread = 0; thread < threads; ++thread) {
        writers.emplace_back([&, thread] {
            const Logger logger(now(), logsDir);  // each thread its own logger, as each service
            for (int index = 0; index < linesEach; ++index) {
                logger.logInformation(
                    "writer " + std::to_string(thread) + " line " + std::to_string(index), now());
            }
        });
    }
    writers.clear();  // joins them
    Logger::flushAll();
    const std::regex shape(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z info writer \d+ line \d+)");
    std::set<std::string> seen;
    for (const auto& message : test::logMessages(logFile)) {
        EXPECT_TRUE(std::regex_match("2026-01-01T00:00:00.000Z " + message, shape)) << message;
        seen.insert(message);
    }
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(threads * linesEach));
}

// Two hosts sharing one log (two directory spellings give two channels, as two processes have):
// each rotates it safely, so the log stays bounded and no line lands in an unlinked file.
TEST_F(LoggerTest, HostsSharingALogRotateItWithoutLosingLines) {
    const std::array loggers{Logger(now(), logsDir), Logger(now(), logsDir / ".")};
    const std::string filler(1000, 'r');
    constexpr int lines = 24000;  // about 24 MB in all
    for (int index = 0; index < lines; ++index) {
        loggers[index % 2].logInformation(std::to_string(index) + filler, now());
    }
    Logger::flushAll();
    std::size_t kept = 0;
    for (const auto* suffix : {"", ".1", ".2"}) {
        const std::filesystem::path file = logFile.string() + suffix;
        EXPECT_LE(std::filesystem::file_size(file), 9u * 1024 * 1024);
        kept += test::logMessages(file).size();
    }
    EXPECT_FALSE(std::filesystem::exists(logFile.string() + ".3"));
    EXPECT_GE(kept, 2u * 8 * 1024);  // the three files hold what fits; older lines rotated away
    EXPECT_EQ(test::logMessages(logFile).back(), "info " + std::to_string(lines - 1) + filler);
}

void writeFile(const std::filesystem::path& file, mode_t mode) {
    std::filesystem::create_directories(file.parent_path());
    ::close(::open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, mode));
    ::chmod(file.c_str(), mode);
}

// A log place that breaks the trust rules is never written: the lines go to standard error.
TEST_F(LoggerTest, WritesToStandardErrorWhereTheLogIsNotPrivate) {
    using Setup = std::function<void(const std::filesystem::path& logsDir)>;
    const auto file = [](const auto& logs) { return logs / Logger::logFileName; };
    const std::vector<std::pair<std::string, Setup>> cases{
        {"directory others may write",
         [](auto& logs) {
             std::filesystem::create_directories(logs);
             ::chmod(logs.c_str(), 0777);
         }},
        {"file others may read", [&](auto& logs) { writeFile(file(logs), 0666); }},
        {"linked file",
         [&](auto& logs) {
             writeFile(logs / "elsewhere", 0600);
             std::filesystem::create_symlink("elsewhere", file(logs));
         }},
        {"fifo",
         [&](auto& logs) {
             std::filesystem::create_directories(logs);
             ::mkfifo(file(logs).c_str(), 0600);
         }},
        {"file of another user",
         [&](auto& logs) {
             writeFile(file(logs), 0600);
             ASSERT_EQ(::chown(file(logs).c_str(), 65534, -1), 0);
         }},
    };
    for (std::size_t index = 0; index < cases.size(); ++index) {
        const auto& [name, breakTrust] = cases[index];
        SCOPED_TRACE(name);
        if (name == "file of another user" && ::geteuid() != 0) {
            continue;  // giving a file to another user needs root
        }
        const auto logs = directory.path() / std::to_string(index) / "kerrow";
        breakTrust(logs);
        ::testing::internal::CaptureStdout();
        ::testing::internal::CaptureStderr();
        Logger(now(), logs).logInformation("kept private", exampleTime());
        Logger::flushAll();
        EXPECT_EQ(::testing::internal::GetCapturedStderr(),
                  "2026-11-22T09:14:03.042Z info kept private\n");
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
        std::error_code ignored;
        if (std::filesystem::is_regular_file(file(logs), ignored)) {
            EXPECT_EQ(test::readFile(file(logs)), "");
        }
    }
}

TEST(LoggerLocation, FollowsXdgStateHomeThenHome) {
    const test::ScopedEnvironmentVariable state("XDG_STATE_HOME", "/state");
    const test::ScopedEnvironmentVariable home("HOME", "/home/alice");
    EXPECT_EQ(Logger::defaultLogsDirectory(), "/state/kerrow");
    for (const auto& relativeOrUnset :
         {std::optional<std::string>("relative"), std::optional<std::string>()}) {
        const test::ScopedEnvironmentVariable changed("XDG_STATE_HOME", relativeOrUnset);
        EXPECT_EQ(Logger::defaultLogsDirectory(), "/home/alice/.local/state/kerrow");
    }
}

}  // namespace
}  // namespace kerrow
