#include "platform/application.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <future>
#include <string>
#include <thread>

#include "platform/distributed_notification_center.h"
#include "tests/support/host_process.h"
#include "tests/support/private_bus.h"
#include "tests/support/test_support.h"

namespace kerrow {
namespace {

using namespace test;

constexpr std::string_view announcement = "com.kerrowsoftware.test.didFinishLaunching";
constexpr std::string_view answer = "com.kerrowsoftware.test.start";

// The host's handshake, reported as lines on `output`: once launched, it observes the answer and
// announces itself; it serves the answer busy outside the loop (as setupSocket() waits on a full
// backlog) until a stop signal comes.
class HandshakeDelegate final : public ApplicationDelegate {
  public:
    explicit HandshakeDelegate(int output) : output_(output) {}

    void applicationDidFinishLaunching() override {
        const bool inLoop =
            sd_event_get_state(Application::shared().eventLoop()) == SD_EVENT_RUNNING;
        writeAll(output_, std::string("launched") + (inLoop ? " inside the loop" : "") +
                              (::gettid() == ::getpid() ? " on the main thread" : "") + "\n");
        auto& center = DistributedNotificationCenter::defaultCenter();
        center.addObserver(answer, [this] {
            writeAll(output_, ::gettid() == ::getpid() ? "answered on the main thread\n"
                                                       : "answered elsewhere\n");
            pollfd stop{Application::shared().stopSignalDescriptor()->get(), POLLIN, 0};
            ::poll(&stop, 1, 60'000);
        });
        center.postNotificationName(announcement, true);
    }
    void applicationWillTerminate() override { writeAll(output_, "terminating\n"); }

  private:
    int output_;
};

class ApplicationTest : public ::testing::TestWithParam<int> {};

// The main loop belongs to the process, so the application runs in a forked copy of the test
// process. A stop signal that comes while the main thread serves the answer, with another answer
// queued behind it, ends the loop before the queued one is served. It is sent to a thread that
// started before the loop, like a logger's writer, which therefore does not block it.
TEST_P(ApplicationTest, DeliversNotificationsOnTheMainThreadAndAStopSignalComesBeforeQueuedOnes) {
    PrivateBus bus;
    BusClient client(bus.address());
    client.observe(announcement);
    Pipe output;
    const pid_t child = ::fork();
    if (child == 0) {
        std::promise<pid_t> started;
        std::thread([&started] {
            started.set_value(::gettid());
            for (;;) {
                ::pause();
            }
        }).detach();
        const std::string id = std::to_string(started.get_future().get());
        writeAll(output.writeEnd.get(), id + std::string(11 - id.size(), ' '));  // 11 characters
        HandshakeDelegate delegate(output.writeEnd.get());
        Application::shared().setDelegate(&delegate);
        applicationMain(0, nullptr);
        ::_exit(99);  // applicationMain returned, which it must not
    }
    output.writeEnd.reset();
    const pid_t earlyThread = std::stoi(readExactly(output.readEnd.get(), 11));
    EXPECT_TRUE(client.waitForSignal(announcement));
    client.post(answer);
    const std::string handshake =
        "launched inside the loop on the main thread\nanswered on the main thread\n";
    EXPECT_EQ(readExactly(output.readEnd.get(), handshake.size()), handshake);
    client.post(answer);
    std::this_thread::sleep_for(100ms);  // the second one waits in the host's bus connection
    EXPECT_EQ(::tgkill(child, earlyThread, GetParam()), 0);
    const auto status = waitForExit(child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readExactly(output.readEnd.get(), std::string::npos), "terminating\n");
    if (!status) {
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
    }
}

INSTANTIATE_TEST_SUITE_P(Signals, ApplicationTest, ::testing::Values(SIGTERM, SIGINT, SIGHUP));

}  // namespace
}  // namespace kerrow
