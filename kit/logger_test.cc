#include "kit/logger.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <set>
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

std::string repeated(std::string_view unit, std::size_t count) {
    std::string text;
    for (std::size_t index = 0; index < count; ++index) {
        text += unit;
    }
    return text;
}

// Without an explicit flush, the lines reach the file within a second.
TEST_F(LoggerTest, WritesEachMessageAsOneEscapedLineOfAtMost64KiB) {
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

    // Every escape reads one way: a backslash of the text is escaped too.
    logger.logInformation(
        "Received Disable Internet: a\n2026-01-01T00:00:00.000Z error forged\r\x1b[2J\tend\x7f\\n",
        exampleTime());
    Logger::flushAll();
    EXPECT_EQ(test::logMessages(logFile).back(),
              "info Received Disable Internet: "
              "a\\n2026-01-01T00:00:00.000Z error forged\\r\\x1b[2J\tend\\x7f\\\\n");
    // Cut to 64 KiB, escapes included, after a whole escape or character (here the cut falls
    // after three bytes of a four-byte one), with a note of exactly the bytes left out.
    for (const auto& [head, unit, escaped] :
         {std::tuple{"x", "\xf0\x9f\x98\x80", "\xf0\x9f\x98\x80"},
          std::tuple{"", "\x01", "\\x01"}}) {
        logger.logInformation(head + repeated(unit, 100000), exampleTime());
        Logger::flushAll();
        const std::string message = test::logMessages(logFile).back().substr(5);  // "info "
        const std::size_t note = message.find(" [");
        ASSERT_NE(note, std::string::npos);
        const std::size_t kept = (note - std::strlen(head)) / std::strlen(escaped);
        EXPECT_EQ(message, head + repeated(escaped, kept) + " [" +
                               std::to_string((100000 - kept) * std::strlen(unit)) +
                               " bytes left out]");
        EXPECT_TRUE(message.size() <= 64u * 1024 && message.size() > 63u * 1024) << message.size();
    }
}

// Two hosts sharing one log (two directory spellings give two channels, each with a descriptor
// of its own, as two processes have), each logging from two threads: they rotate the log once
// each time it is full, so it stays bounded, and no line is torn, lost, or lands in an unlinked
// file or a file rotated twice.
TEST_F(LoggerTest, HostsAndThreadsSharingALogRotateItWithoutTornOrLostLines) {
    const std::string filler(1000, 'r');
    const auto line = [&](int thread, int index) {
        return std::to_string(thread) + " " + std::to_string(index) + filler;
    };
    std::set<std::string> expected;
    {
        std::vector<std::jthread> threads;
        for (int thread = 0; thread < 4; ++thread) {
            threads.emplace_back([&, thread] {
                const Logger logger(now(), thread % 2 == 0 ? logsDir : logsDir / ".");
                for (int index = 0; index < 5000; ++index) {  // 20 MB in all: two rotations
                    logger.logInformation(line(thread, index), now());
                    if (index % 500 == 499) {
                        Logger::flushAll();  // as the writers keep up: no queue fills
                    }
                }
            });
            for (int index = 0; index < 5000; ++index) {
                expected.insert("info " + line(thread, index));
            }
        }
    }
    Logger::flushAll();
    std::set<std::string> kept;  // the three files hold it all
    for (const auto* suffix : {"", ".1", ".2"}) {
        const std::filesystem::path file = logFile.string() + suffix;
        EXPECT_LE(std::filesystem::file_size(file), 9u * 1024 * 1024);
        for (const auto& message : test::logMessages(file)) {
            EXPECT_TRUE(kept.insert(message).second) << "twice: " << message.substr(0, 20);
        }
    }
    EXPECT_FALSE(std::filesystem::exists(logFile.string() + ".3"));
    EXPECT_TRUE(kept == expected) << kept.size() << " lines kept";
}

// The relay never waits on the log: a rotation whose lock is held elsewhere is skipped and done
// by a later batch. Lines a full disk refuses are counted and reported once writing works again,
// after the line a failed write cut off has been ended. A rename that fails is reported once.
TEST_F(LoggerTest, NeverWaitsOnALockAndSaysWhatAFullDiskLost) {
    const Logger logger(now(), logsDir);
    const auto logBatches = [&logger](int batches, char fill) {  // of 1,000 lines, about 1 MB
        for (int index = 1; index <= batches * 1000; ++index) {
            logger.logInformation(std::string(999, fill), exampleTime());
            if (index % 1000 == 0) {
                Logger::flushAll();
            }
        }
    };
    logBatches(1, 'l');
    std::future<void> logging;
    {
        // An open file of its own: its flock() conflicts with the logger's as another process's.
        const Descriptor held(::open(logFile.c_str(), O_RDONLY | O_CLOEXEC));
        ASSERT_EQ(::flock(held.get(), LOCK_EX), 0);
        logging = std::async(std::launch::async, logBatches, 9, 'l');
        EXPECT_EQ(logging.wait_for(10s), std::future_status::ready) << "waited for the lock";
        EXPECT_FALSE(std::filesystem::exists(logFile.string() + ".1"));
    }
    logging.wait();
    logBatches(1, 'l');
    EXPECT_LT(std::filesystem::file_size(logFile), 2u * 1000 * 1000) << "not rotated later";

    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit saved{};
    ::getrlimit(RLIMIT_FSIZE, &saved);
    rlimit full = saved;  // writes beyond fail as on a full disk
    full.rlim_cur = std::filesystem::file_size(logFile) + 100000;
    ::setrlimit(RLIMIT_FSIZE, &full);
    logBatches(1, 'd');
    ::setrlimit(RLIMIT_FSIZE, &saved);
    std::signal(SIGXFSZ, handler);
    logger.logInformation("after", exampleTime());
    Logger::flushAll();
    const std::string log = test::readFile(logFile);
    const auto written =
        std::ranges::count(test::logMessages(logFile), "info " + std::string(999, 'd'));
    const std::size_t report = log.find("Z error ");
    ASSERT_NE(report, std::string::npos);
    EXPECT_EQ(log.rfind('\n', report), report - 24) << "a cut line went on";  // 24: the time stamp
    EXPECT_EQ(log.substr(report + 2, log.find('\n', report) - report - 2),
              "error " + std::to_string(1000 - written) +
                  " log lines were lost: writing the log failed or fell behind");
    EXPECT_TRUE(log.ends_with(" info after\n"));

    // .2 a directory with something in it: .1 can never be renamed onto it.
    std::filesystem::create_directories(logsDir / "native-messaging-host.log.2" / "x");
    std::ofstream(logFile.string() + ".1") << "old\n";
    logBatches(12, 'r');
    EXPECT_EQ(std::ranges::count(test::logMessages(logFile),
                                 "error Could not rotate the log: Is a directory"),
              1);
    EXPECT_LE(std::filesystem::file_size(logFile), 16u * 1024 * 1024);
}

// A writer that cannot write (standard error a pipe nobody reads yet) never holds a caller up:
// the lines the full queue cannot take are counted and reported once writing works again.
TEST_F(LoggerTest, CountsTheLinesAFullQueueCouldNotTake) {
    const auto untrusted = directory.path() / "open";
    std::filesystem::create_directory(untrusted);
    ::chmod(untrusted.c_str(), 0777);  // the lines go to standard error
    test::Pipe stalled;
    const Descriptor savedStderr(::dup(STDERR_FILENO));
    ::dup2(stalled.writeEnd.get(), STDERR_FILENO);
    stalled.writeEnd.reset();
    const Logger logger(now(), untrusted);
    constexpr int logged = 20000;  // 20 MB: more than the 8 MiB queue and a batch taken before
    for (int index = 0; index < logged; ++index) {
        logger.logInformation(std::string(999, 'q'), exampleTime());
    }
    std::string written;
    std::thread reader(
        [&] { written = test::readExactly(stalled.readEnd.get(), std::string::npos, 60s); });
    Logger::flushAll();
    ::dup2(savedStderr.get(), STDERR_FILENO);
    reader.join();
    const auto kept = std::ranges::count(written, 'q') / 999;
    EXPECT_NE(written.find(" error " + std::to_string(logged - kept) +
                           " log lines were lost: writing the log failed or fell behind\n"),
              std::string::npos)
        << kept << " kept";
}

// Two hosts (processes) that find the log full at the same moment rotate it once between them:
// a second rotation over the first would push the rotated log on to .2 and lose what .1 held.
// Each round makes the log full by extending it (a hole, no disk) and lets both log at once.
TEST_F(LoggerTest, TwoProcessesFindingTheLogFullRotateItOnce) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer does not start threads in a child of a threaded fork";
#endif
    std::filesystem::create_directories(logsDir);  // not by both at once: one would lose the race
    std::array<test::Pipe, 2> go;                  // each child's own, so that both wake at once
    test::Pipe done;
    std::array<pid_t, 2> children{};
    for (std::size_t child = 0; child < children.size(); ++child) {
        if ((children[child] = ::fork()) == 0) {
            go[0].writeEnd.reset();  // so that the parent's close ends the loop
            go[1].writeEnd.reset();
            const Logger logger(now(), logsDir);
            while (test::readExactly(go[child].readEnd.get(), 1, 60s) == "x") {
                logger.logInformation("round", exampleTime());
                Logger::flushAll();
                test::writeAll(done.writeEnd.get(), "x");
            }
            ::_exit(0);
        }
    }
    const auto inode = [](const std::filesystem::path& file) {
        struct stat status {};
        return ::stat(file.c_str(), &status) == 0 ? status.st_ino : 0;
    };
    for (int round = 0; round < 200; ++round) {
        const auto full = inode(logFile);
        if (round > 0) {  // the first round makes the log
            std::filesystem::resize_file(logFile, 8 * 1024 * 1024 + 1);
        }
        test::writeAll(go[0].writeEnd.get(), "x");
        test::writeAll(go[1].writeEnd.get(), "x");
        if (test::readExactly(done.readEnd.get(), 2) != "xx" ||
            (round > 0 && inode(logFile.string() + ".1") != full)) {
            ADD_FAILURE() << "round " << round << ": not rotated exactly once";
            break;
        }
    }
    go = {};  // new pipes: the children find the end of theirs
    for (const pid_t child : children) {
        ::waitpid(child, nullptr, 0);
    }
}

// A log place that breaks the trust rules, judged on the opened descriptors, is never written:
// the lines go to standard error instead.
TEST_F(LoggerTest, WritesToStandardErrorWhereTheLogIsNotPrivate) {
    using Path = const std::filesystem::path&;
    const auto makeFile = [](Path file, mode_t mode) {
        ::close(::open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, mode));
        ::chmod(file.c_str(), mode);
    };
    const std::vector<std::function<void(Path log)>> breakTrust{
        [](Path log) { ::chmod(log.parent_path().c_str(), 0777); },  // others may write there
        [&](Path log) { makeFile(log, 0666); },                      // others may read it
        [&](Path log) {
            makeFile(log.parent_path() / "elsewhere", 0600);
            std::filesystem::create_symlink("elsewhere", log);
        },
        [](Path log) { ::mkfifo(log.c_str(), 0600); },
        [&](Path log) {  // another user's, the last case: giving a file away needs root
            makeFile(log, 0600);
            ASSERT_EQ(::chown(log.c_str(), 65534, -1), 0);
        },
    };
    for (std::size_t index = 0; index < breakTrust.size() - (::geteuid() == 0 ? 0 : 1); ++index) {
        SCOPED_TRACE(index);
        const auto logs = directory.path() / std::to_string(index) / "kerrow";
        std::filesystem::create_directories(logs);
        breakTrust[index](logs / Logger::logFileName);
        ::testing::internal::CaptureStderr();
        Logger(now(), logs).logInformation("kept private", exampleTime());
        Logger::flushAll();
        EXPECT_EQ(::testing::internal::GetCapturedStderr(),
                  "2026-11-22T09:14:03.042Z info kept private\n");
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
