#include "kit/logger.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <fstream>
#include <functional>
#include <future>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "platform/descriptor.h"
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

    // A message stays one line of at most 64 KiB, escapes included, whatever it carries, and
    // every escape reads one way: a backslash of the text is escaped too.
    logger.logInformation(
        "Received Disable Internet: a\n2026-01-01T00:00:00.000Z error forged\r\x1b[2J\tend\x7f\\n",
        exampleTime());
    // 12 MiB of text whose cut falls inside a two-byte character, and control bytes that escape
    // to four times their size.
    std::string huge = "x";
    for (int index = 0; index < 6 * 1024 * 1024; ++index) {
        huge += "\xc3\xa9";
    }
    logger.logInformation(huge, exampleTime());
    logger.logInformation(std::string(100000, '\x01'), exampleTime());
    Logger::flushAll();
    std::vector<std::string> lines;
    std::istringstream log(test::readFile(logFile).substr(expected.size()));
    for (std::string line; std::getline(log, line);) {
        lines.push_back(line);
    }
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0],
              "2026-11-22T09:14:03.042Z info Received Disable Internet: "
              "a\\n2026-01-01T00:00:00.000Z error forged\\r\\x1b[2J\tend\\x7f\\\\n");
    const std::string prefix = "2026-11-22T09:14:03.042Z info ";
    for (const auto& [line, unit] : {std::pair{lines[1], std::string("\xc3\xa9")},
                                     std::pair{lines[2], std::string("\\x01")}}) {
        const std::string message = line.substr(prefix.size());
        EXPECT_LE(message.size(), 64u * 1024);
        const std::size_t note = message.rfind(" [");
        const std::size_t leftOut = std::stoul(message.substr(note + 2));
        EXPECT_TRUE(message.ends_with(" bytes left out]")) << message.substr(note);
        // Whole characters and whole escapes only, and the note counts exactly what is missing.
        const std::string kept =
            message.substr(unit.size() == 2 ? 1 : 0, note - (unit.size() == 2));
        EXPECT_EQ(kept.size() % unit.size(), 0u);
        EXPECT_EQ(kept.find_first_not_of(unit), std::string::npos);
        const std::size_t total = unit.size() == 2 ? huge.size() : 100000;
        EXPECT_EQ(leftOut + (unit.size() == 2 ? kept.size() + 1 : kept.size() / 4), total);
    }
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
    std::vector<std::string> kept;
    for (const auto* suffix : {"", ".1", ".2"}) {
        const std::filesystem::path file = logFile.string() + suffix;
        EXPECT_LE(std::filesystem::file_size(file), 9u * 1024 * 1024);
        const auto messages = test::logMessages(file);
        kept.insert(kept.end(), messages.begin(), messages.end());
    }
    EXPECT_FALSE(std::filesystem::exists(logFile.string() + ".3"));
    EXPECT_GE(kept.size(), 2u * 7 * 1024);  // the files hold what fits; older lines rotated away
    // The newest lines of both hosts are kept (the two hosts' writes may interleave).
    for (const int index : {lines - 2, lines - 1}) {
        const std::string line = "info " + std::to_string(index) + filler;
        EXPECT_EQ(std::count(kept.begin(), kept.end(), line), 1);
    }
}

// The relay never waits on the log: a rotation whose lock is held elsewhere is skipped and done
// by a later batch. Lines a full disk refuses are counted and reported once writing works again,
// after the line a failed write cut off has been ended. A rename that fails is reported once.
TEST_F(LoggerTest, NeverWaitsOnALockAndSaysWhatAFullDiskLost) {
    const Logger logger(now(), logsDir);
    const auto logBatches = [&](int batches, char fill) {  // of 1,000 lines, about 1 MB
        return std::async(std::launch::async, [&logger, batches, fill] {
            for (int index = 1; index <= batches * 1000; ++index) {
                logger.logInformation(std::string(999, fill), exampleTime());
                if (index % 1000 == 0) {
                    Logger::flushAll();
                }
            }
        });
    };
    logger.logInformation("first", exampleTime());
    Logger::flushAll();
    std::future<void> logging;
    {
        // An open file of its own: its flock() conflicts with the logger's as another process's.
        const Descriptor held(::open(logFile.c_str(), O_RDONLY | O_CLOEXEC));
        ASSERT_EQ(::flock(held.get(), LOCK_EX), 0);
        logging = logBatches(10, 'l');
        EXPECT_EQ(logging.wait_for(10s), std::future_status::ready) << "waited for the lock";
        EXPECT_FALSE(std::filesystem::exists(logFile.string() + ".1"));
    }
    logging.wait();
    logBatches(1, 'l').wait();
    EXPECT_LT(std::filesystem::file_size(logFile), 2u * 1000 * 1000) << "not rotated later";

    std::signal(SIGXFSZ, SIG_IGN);
    rlimit saved{};
    ::getrlimit(RLIMIT_FSIZE, &saved);
    rlimit full = saved;  // writes beyond fail as on a full disk
    full.rlim_cur = std::filesystem::file_size(logFile) + 100000;
    ::setrlimit(RLIMIT_FSIZE, &full);
    logBatches(1, 'd').wait();
    ::setrlimit(RLIMIT_FSIZE, &saved);
    logger.logInformation("after", exampleTime());
    Logger::flushAll();
    const std::string log = test::readFile(logFile);
    const std::string line = "2026-11-22T09:14:03.042Z info " + std::string(999, 'd') + "\n";
    std::size_t written = 0;
    for (auto at = log.find(line); at != std::string::npos; at = log.find(line, at + 1)) {
        ++written;
    }
    const std::size_t report = log.find("Z error ");
    ASSERT_NE(report, std::string::npos);
    EXPECT_EQ(report - log.rfind('\n', report), line.find('Z') + 1) << "a cut line went on";
    EXPECT_EQ(log.substr(report + 2, log.find('\n', report) - report - 2),
              "error " + std::to_string(1000 - written) +
                  " log lines were lost: writing the log failed or fell behind");
    EXPECT_TRUE(log.ends_with(" info after\n"));

    // .2 a directory with something in it: .1 can never be renamed onto it.
    std::filesystem::create_directories(logsDir / "native-messaging-host.log.2" / "x");
    std::ofstream(logFile.string() + ".1") << "old\n";
    logBatches(12, 'r').wait();
    const auto messages = test::logMessages(logFile);
    EXPECT_EQ(std::count(messages.begin(), messages.end(),
                         "error Could not rotate the log: Is a directory"),
              1);
    EXPECT_LE(std::filesystem::file_size(logFile), 16u * 1024 * 1024);
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
