#include "platform/application.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <future>
#include <string>
#include <thread>

#include "platform/distributed_notification_center.h"
#include "tests/support/private_bus.h"
#include "tests/support/test_support.h"

namespace kerrow {
namespace {

using namespace test;

// The main loop belongs to the process, so each application runs in a forked copy of the test
// process and reports what happened as lines on a pipe.
class Child {
  public:
    /// Runs `body` with the pipe's write end in a new process, which ends when `body` returns.
    explicit Child(const std::function<void(int output)>& body) : pid_(::fork()) {
        if (pid_ == 0) {
            output_.readEnd.reset();
            body(output_.writeEnd.get());
            ::_exit(99);  // applicationMain returned, which it must not
        }
        output_.writeEnd.reset();
    }
    ~Child() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }
    [[nodiscard]] int output() const { return output_.readEnd.get(); }

    std::optional<int> waitForExit() {
        const auto status = test::waitForExit(pid_);
        pid_ = status ? -1 : pid_;
        return status;
    }

  private:
    Pipe output_;
    pid_t pid_;
};

// Writes a line for each delegate callback, saying where the launch callback ran.
class RecordingDelegate final : public ApplicationDelegate {
  public:
    RecordingDelegate(int output, std::function<void()> afterLaunch)
        : output_(output), afterLaunch_(std::move(afterLaunch)) {}

    void applicationDidFinishLaunching() override {
        const bool inLoop =
            sd_event_get_state(Application::shared().eventLoop()) == SD_EVENT_RUNNING;
        writeAll(output_, std::string("launched") + (inLoop ? " inside the loop" : "") +
                              (::gettid() == ::getpid() ? " on the main thread" : "") + "\n");
        afterLaunch_();
    }
    void applicationWillTerminate() override { writeAll(output_, "terminating\n"); }

  private:
    int output_;
    std::function<void()> afterLaunch_;
};

void runApplication(int output, const std::function<void()>& afterLaunch) {
    RecordingDelegate delegate(output, afterLaunch);
    Application::shared().setDelegate(&delegate);
    applicationMain(0, nullptr);
}

constexpr std::string_view launchedLine = "launched inside the loop on the main thread\n";

class ApplicationTest : public ::testing::TestWithParam<int> {};

// The host's handshake: observe the answer, announce, and get the answer on the main thread.
// A stop signal that comes while the main thread serves the answer (busy outside the loop, as
// setupSocket() is), with another answer queued behind it, ends the loop before the queued one is
// served. It is sent to a thread that started before the loop, like a logger's writer, which
// therefore does not block it.
TEST_P(ApplicationTest, DeliversNotificationsOnTheMainThreadAndAStopSignalComesBeforeQueuedOnes) {
    constexpr std::string_view announcement = "com.kerrowsoftware.test.didFinishLaunching";
    constexpr std::string_view answer = "com.kerrowsoftware.test.start";
    PrivateBus bus;
    BusClient client(bus.address());
    client.observe(announcement);
    Child child([&](int output) {
        std::promise<pid_t> started;
        std::thread([&started] {
            started.set_value(::gettid());
            for (;;) {
                ::pause();
            }
        }).detach();
        const std::string id = std::to_string(started.get_future().get());
        writeAll(output, id + std::string(11 - id.size(), ' '));  // 11 characters
        runApplication(output, [&] {
            auto& center = DistributedNotificationCenter::defaultCenter();
            center.addObserver(answer, [output] {
                writeAll(output, ::gettid() == ::getpid() ? "answered on the main thread\n"
                                                          : "answered elsewhere\n");
                pollfd stop{Application::shared().stopSignalDescriptor()->get(), POLLIN, 0};
                ::poll(&stop, 1, 60'000);
            });
            center.postNotificationName(announcement, true);
        });
    });
    const pid_t earlyThread = std::stoi(readExactly(child.output(), 11));
    ASSERT_TRUE(client.waitForSignal(announcement));
    client.post(answer);
    const std::string answered = "answered on the main thread\n";
    ASSERT_EQ(readExactly(child.output(), launchedLine.size() + answered.size()),
              std::string(launchedLine) + answered);
    client.post(answer);
    std::this_thread::sleep_for(100ms);  // the second one waits in the host's bus connection
    ASSERT_EQ(::tgkill(child.pid(), earlyThread, GetParam()), 0);
    EXPECT_EQ(child.waitForExit(), 0);
    EXPECT_EQ(readExactly(child.output(), std::string::npos), "terminating\n");
}

INSTANTIATE_TEST_SUITE_P(Signals, ApplicationTest, ::testing::Values(SIGTERM, SIGINT, SIGHUP));

}  // namespace
}  // namespace kerrow
