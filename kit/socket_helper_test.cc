#include "kit/socket_helper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <thread>

#include "tests/support/test_support.h"

namespace kerrow {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using ::testing::HasSubstr;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

constexpr uid_t nobody = 65534;

// Keeps what the endpoint delivers. Tests read it only when no read runs (after joining).
struct RecordingDelegate : SocketReaderDelegate {
    void didReadData(const Data& data) override { messages.emplace_back(textView(data)); }
    std::vector<std::string> messages;
};

sockaddr_un addressOf(const std::filesystem::path& path) {
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

// Runs `call` on a thread of its own; the future holds the code of the error it threw, if any.
std::future<std::error_code> errorCodeOf(std::function<void()> call) {
    return std::async(std::launch::async, [call = std::move(call)] {
        try {
            call();
        } catch (const std::system_error& error) {
            return error.code();
        }
        return std::error_code();
    });
}

// A Unix socket bound at `path` and not listening (yet): connecting to it is refused.
Descriptor boundSocket(const std::filesystem::path& path) {
    Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const auto address = addressOf(path);
    EXPECT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return socket;
}

// An endpoint at the browser socket location of a private XDG_RUNTIME_DIR, and a core service.
class SocketTest : public ::testing::Test {
  protected:
    std::optional<test::CoreConnection> connect(SocketHelper& helper) {
        helper.setupSocket();
        return core->accept();
    }

    test::TemporaryDirectory directory;
    test::ScopedEnvironmentVariable runtimeDirectory{"XDG_RUNTIME_DIR", directory.path().string()};
    const std::filesystem::path socketPath = directory.path() / "kerrow" / "browser.sock";
    std::optional<test::TestCoreService> core{socketPath};
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
    std::shared_ptr<SocketHelper> endpoint =
        std::make_shared<SocketHelper>(SocketType::browser, SocketHelper::browserSocketLocation());
};

// The same, connected, with the delegate in place.
class ConnectedSocketTest : public SocketTest {
  protected:
    void SetUp() override {
        auto accepted = connect(*endpoint);
        ASSERT_TRUE(accepted);
        connection.emplace(std::move(*accepted));
        endpoint->setReaderDelegate(delegate);
    }

    std::optional<test::CoreConnection> connection;
};

TEST(SocketLocation, IsInAnAbsoluteXdgRuntimeDirElseInTmp) {
    const std::string fallback = "/tmp/kerrow-" + std::to_string(::getuid()) + "/browser.sock";
    const test::ScopedEnvironmentVariable variable("XDG_RUNTIME_DIR", "/run/user/1000");
    EXPECT_EQ(SocketHelper::browserSocketLocation(), "/run/user/1000/kerrow/browser.sock");
    for (const auto& relativeEmptyOrUnset :
         {std::optional<std::string>("run/user/1000"), std::optional<std::string>(""),
          std::optional<std::string>()}) {
        const test::ScopedEnvironmentVariable changed("XDG_RUNTIME_DIR", relativeEmptyOrUnset);
        EXPECT_EQ(SocketHelper::browserSocketLocation(), fallback);
    }
}

TEST_F(SocketTest, ConnectsWithoutADelegateAndFramesBothWays) {
    auto connection = connect(*endpoint);
    ASSERT_TRUE(connection);
    // Bodies in two pieces, counted together by their headers; several frames in one send.
    const Data he = dataFromText("he"), llo = dataFromText("llo");
    const std::vector<SocketHelper::OutgoingFrame> frames{{he, llo}, {{}, {}}, {llo, {}}};
    std::size_t whole = 0;
    endpoint->sendFrames(frames, whole);
    EXPECT_EQ(whole, 3u);
    EXPECT_EQ(test::readExactly(connection->fd(), 20),
              "\x05\x00\x00\x00hello\x00\x00\x00\x00\x03\x00\x00\x00llo"s);

    connection->send("dropped");  // no delegate yet: read and dropped
    endpoint->readSocket();
    endpoint->setReaderDelegate(delegate);
    // One read delivers every frame that arrived; bodies and headers split across reads are
    // reassembled.
    connection->sendRaw("\x03\x00\x00\x00one\x00\x00\x00\x00\x05\x00\x00\x00sp"s);
    endpoint->readSocket();
    EXPECT_EQ(delegate->messages, (std::vector<std::string>{"one", ""}));
    for (const auto* piece : {"lit\x01", "\x00\x00\x00!"}) {
        connection->sendRaw(std::string(piece, 4));
        endpoint->readSocket();
    }
    EXPECT_EQ(delegate->messages, (std::vector<std::string>{"one", "", "split", "!"}));
}

// A large frame that arrives in many reads is delivered whole, and its buffer goes after it.
TEST_F(ConnectedSocketTest, GivesBackTheBufferOfALargeFrame) {
    const std::string large(8 * 1024 * 1024, 'l');
    const std::size_t before = test::heapInUse();
    if (before == 0) {
        GTEST_SKIP() << "no heap figures under a sanitizer";
    }
    std::jthread sender([&] {
        connection->send(large);
        connection->send("small");
    });
    while (delegate->messages.size() < 2) {
        endpoint->readSocket();
    }
    EXPECT_TRUE(delegate->messages == (std::vector<std::string>{large, "small"}));
    delegate->messages.clear();
    delegate->messages.shrink_to_fit();
    EXPECT_LT(test::heapInUse(), before + 1024 * 1024);
}

// One byte over 64 MiB is refused; a header of exactly 64 MiB is taken (faults/ shows it).
TEST_F(ConnectedSocketTest, RefusesAFrameOverTheLimitAsSoonAsItsHeaderArrives) {
    connection->sendRaw(test::frame("before") + "\x01\x00\x00\x04"s);
    EXPECT_THAT([&] { endpoint->readSocket(); },
                ThrowsMessage<SocketFrameError>(
                    StrEq("inbound frame of 67108865 bytes exceeds the 64 MiB limit")));
    EXPECT_EQ(delegate->messages, std::vector<std::string>{"before"});
}

// Each frame is more than the socket buffer holds, so that each send takes several writes.
TEST_F(ConnectedSocketTest, FramesFromConcurrentSendersNeverInterleave) {
    constexpr int framesEach = 20;
    constexpr std::size_t size = 300000;
    std::vector<std::jthread> senders;
    for (std::uint8_t sender = 'a'; sender < 'e'; ++sender) {
        senders.emplace_back([&, sender] {
            try {
                for (int index = 0; index < framesEach; ++index) {
                    endpoint->sendData(Data(size, sender));
                }
            } catch (const std::system_error&) {
                // The test failed and closed the connection below.
            }
        });
    }
    for (int received = 0; received < 4 * framesEach; ++received) {
        const auto frame = connection->receive().value_or("");
        if (frame.size() != size || frame.find_first_not_of(frame[0]) != std::string::npos) {
            ADD_FAILURE() << "frame " << received << " is missing or garbled";
            break;
        }
    }
    connection->close();  // releases senders blocked after a failure
}

// The socket's directory is missing, then a core service that ended left its socket (refused),
// then one listens, a second after setup began. Tries at 0, 20, 60, 140, 300, 620 and 1260 ms:
// a back-off that did not grow would connect at once instead of at the 1260 ms try.
TEST_F(SocketTest, SetupWaitsWithGrowingPausesWhileTheSocketIsMissingOrRefuses) {
    core.reset();
    std::filesystem::remove(socketPath.parent_path());
    Descriptor left;
    const auto began = std::chrono::steady_clock::now();
    {
        const std::jthread starter([&] {
            std::this_thread::sleep_for(150ms);
            ::mkdir(socketPath.parent_path().c_str(), 0700);  // as the core service does
            left = boundSocket(socketPath);
            std::this_thread::sleep_for(850ms);
            core.emplace(socketPath);
        });
        endpoint->setupSocket();
    }
    EXPECT_GE(std::chrono::steady_clock::now() - began, 1200ms);
    EXPECT_TRUE(endpoint->isConnected());
    EXPECT_TRUE(core->accept());
}

// What can end a setupSocket() that waits, for a socket that is missing or whose backlog is full.
enum class Wake { stopReading, retire, stopSignal };
enum class Core { missing, backlogFull };

class SetupWakeTest : public SocketTest,
                      public ::testing::WithParamInterface<std::tuple<Core, Wake>> {
  protected:
    void TearDown() override { SocketHelper::setStopSignalDescriptor(nullptr); }
};

TEST_P(SetupWakeTest, ASetupThatWaitsGivesUpAtOnceWhenWoken) {
    const auto [situation, wake] = GetParam();
    core.reset();
    Descriptor listener;
    std::vector<Descriptor> queued;  // connections that fill the backlog
    if (situation == Core::backlogFull) {
        listener = boundSocket(socketPath);
        ASSERT_EQ(::listen(listener.get(), 0), 0);
        const auto address = addressOf(socketPath);
        do {
            queued.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        } while (::connect(queued.back().get(), reinterpret_cast<const sockaddr*>(&address),
                           sizeof address) == 0);
    }
    const auto stop = std::make_shared<const Descriptor>(::eventfd(0, EFD_CLOEXEC));
    SocketHelper::setStopSignalDescriptor(stop);
    auto outcome = errorCodeOf([&] { endpoint->setupSocket(); });
    EXPECT_EQ(outcome.wait_for(200ms), std::future_status::timeout);  // it does wait
    if (wake == Wake::stopReading) {
        endpoint->stopReading();
    } else if (wake == Wake::retire) {
        endpoint->retire(10s);
    } else {
        ::eventfd_write(stop->get(), 1);
    }
    ASSERT_EQ(outcome.wait_for(1s), std::future_status::ready);
    EXPECT_EQ(outcome.get(), std::errc::operation_canceled);
}

INSTANTIATE_TEST_SUITE_P(Waits, SetupWakeTest,
                         ::testing::Combine(::testing::Values(Core::missing, Core::backlogFull),
                                            ::testing::Values(Wake::stopReading, Wake::retire,
                                                              Wake::stopSignal)));

// A core service that drops every connection at once, with our frame unread (a reset, which is
// no error), is asked again with growing pauses.
TEST_F(SocketTest, PacesConnectionsThatEndAtOnce) {
    int connections = 0;
    const auto until = std::chrono::steady_clock::now() + 2s;
    while (std::chrono::steady_clock::now() < until) {
        auto connection = connect(*endpoint);
        ASSERT_TRUE(connection);
        ++connections;
        endpoint->sendData(dataFromText("never read"));
        connection->close();
        endpoint->readSocket();
        ASSERT_FALSE(endpoint->isConnected());
        endpoint->readSocket();  // returns at once
        endpoint->resetSocket(SocketHelper::browserSocketLocation());
    }
    EXPECT_LE(connections, 10);  // 20 ms doubling to 1 s; without pacing, thousands
}

// Retired, the endpoint reads and sends only for its grace: a send held back fails, reading stops.
// (The read here also shows that a blocked send never holds a read back.) Of frames sent
// together, those before the one cut off went whole, and the core service gets no more.
TEST_F(ConnectedSocketTest, RetiredEndpointReadsAndSendsOnlyForItsGrace) {
    // The second frame is more than the socket buffers hold.
    const Data first = dataFromText("first"), large(std::size_t{16} * 1024 * 1024);
    const std::vector<SocketHelper::OutgoingFrame> frames{{first, {}}, {large, {}}, {first, {}}};
    std::size_t whole = 0;
    auto blocked = errorCodeOf([&] { endpoint->sendFrames(frames, whole); });
    EXPECT_EQ(blocked.wait_for(100ms), std::future_status::timeout);
    endpoint->retire(10s);
    connection->send("on its way");
    endpoint->readSocket();
    EXPECT_EQ(delegate->messages, std::vector<std::string>{"on its way"});
    endpoint->retire(0ms);  // a later retirement shortens the grace, a blocked send's included
    ASSERT_EQ(blocked.wait_for(2s), std::future_status::ready);
    EXPECT_EQ(blocked.get(), std::errc::timed_out);
    EXPECT_EQ(whole, 1u);
    while (endpoint->isConnected()) {
        endpoint->readSocket();  // returns once the grace is over
    }
    EXPECT_EQ(connection->receive(), "first");
    EXPECT_EQ(connection->receive(), std::nullopt);  // the cut-off frame ended the connection
}

// The trust rules, each broken once (the reason follows the socket's directory or path); the cases
// of another user need root.
TEST_F(SocketTest, RefusesEverySocketThatBreaksTheTrustRules) {
    using Breach = std::function<void(const std::filesystem::path& socket)>;
    const auto directoryMode = [](mode_t mode) -> Breach {
        return [mode](auto& s) { ::chmod(s.parent_path().c_str(), mode); };
    };
    const auto setUid = [](uid_t uid) { return ::syscall(SYS_setresuid, -1, uid, -1) == 0; };
    const std::string writable = " is writable by group or others";
    Descriptor foreignListener;
    const std::vector<std::tuple<Breach, std::string, bool>> cases{
        {directoryMode(0770), writable, false},
        {directoryMode(0707), writable, false},
        {directoryMode(01777), writable, false},  // sticky and shared, as /tmp
        {[](auto& s) {
             std::filesystem::rename(s.parent_path(), s.parent_path().string() + "-real");
             std::filesystem::create_directory_symlink("kerrow-real", s.parent_path());
         },
         " is a symbolic link", false},
        {[](auto& s) { ::chown(s.parent_path().c_str(), nobody, nobody); },
         " is owned by uid 65534", true},
        {[](auto& s) { ::chown(s.c_str(), nobody, nobody); }, " is owned by uid 65534", true},
        // The peer's credentials are those of the thread that called listen(): a helper thread
        // takes nobody's effective uid for that call only.
        {[&](auto& s) {
             std::filesystem::remove(s);
             foreignListener = boundSocket(s);
             std::thread([&] {
                 ASSERT_TRUE(setUid(nobody));
                 ::listen(foreignListener.get(), 4);
                 ASSERT_TRUE(setUid(0));
             }).join();
         },
         " runs as uid 65534", true},
    };
    for (std::size_t index = 0; index < cases.size(); ++index) {
        const auto& [breakTrust, reason, needsRoot] = cases[index];
        SCOPED_TRACE(index);
        if (needsRoot && ::geteuid() != 0) {
            continue;
        }
        test::TemporaryDirectory own;
        const auto socket = own.path() / "kerrow" / "browser.sock";
        ::mkdir(socket.parent_path().c_str(), 0700);
        const test::TestCoreService listening(socket);
        breakTrust(socket);
        SocketHelper helper(SocketType::browser, socket.string());
        EXPECT_THAT([&] { helper.setupSocket(); },
                    ThrowsMessage<SocketTrustError>(HasSubstr(reason)));
    }
}

}  // namespace
}  // namespace kerrow
