// The development peers as a person runs them: the real kerrow-core-peer and kerrow-browser-peer
// with the real host, under a private session bus, in temporary runtime and state directories.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <memory>

#include "tests/support/host_session.h"

namespace kerrow::test {
namespace {

using namespace std::string_literals;
using ::testing::AllOf;
using ::testing::HasSubstr;

/// The next line `peer` wrote on standard output (read a byte at a time), or no value at end or
/// time-out.
std::optional<std::string> line(HostProcess& peer) {
    std::string text;
    for (std::string byte; (byte = readExactly(peer.outputFd(), 1, 10000ms)) != "\n";) {
        if (byte.empty()) {
            return std::nullopt;
        }
        text += byte;
    }
    return text;
}

/// The peers in a HostSession's private places, with no test core service listening.
class PeersTest : public ::testing::Test {
  protected:
    PeersTest() { session_.stopCore(); }

    std::unique_ptr<HostProcess> startCore(const std::vector<std::string>& arguments = {}) {
        return session_.startProcess(KERROW_CORE_PEER, arguments);
    }
    std::unique_ptr<HostProcess> startBrowser(const std::vector<std::string>& arguments = {}) {
        return session_.startProcess(KERROW_BROWSER_PEER, arguments);
    }

    std::filesystem::path write(const std::string& name, const std::string& text) {
        const auto path = session_.directory() / name;
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }
    /// A shell script standing in for a host.
    std::filesystem::path writeHost(const std::string& name, const std::string& script) {
        const auto path = write(name, "#!/bin/sh\n" + script);
        std::filesystem::permissions(path, std::filesystem::perms(0700));
        return path;
    }

    HostSession session_{""};  // runs the peers only
};

TEST_F(PeersTest, FiltersTurnJsonLinesIntoFramesAndBackAndReportBadInput) {
    const std::string frames =
        "\x0c\x00\x00\x00{\"a\":\"x\\/y\"}\x06\x00\x00\x00[1, 2]\x07\x00\x00\x00\"caf\xc3\xa9\""s;
    const struct {
        const char* mode;
        std::string input;
        std::string output;
        int status;
        std::string_view error;  // part of what it says on standard error
    } cases[] = {
        {"--encode", "{\"a\":\"x\\/y\"}\n\n# a comment\n[1, 2]\r\n\"caf\xc3\xa9\"", frames, 0, ""},
        {"--decode", frames + frame("{\n}"), "{\"a\":\"x\\/y\"}\n[1, 2]\n\"caf\xc3\xa9\"\n{}\n", 0,
         "frame 4: the frame's JSON spans lines; shown compact"},
        {"--encode", "{\"ok\":1}\n{\"broken\":\n{\"ok\":2}\n",
         frame("{\"ok\":1}") + frame("{\"ok\":2}"), 1, "line 2 skipped, not JSON: "},
        {"--decode", frame("{}") + "\x0a\x00\x00\x00{\"a\""s, "{}\n", 1,
         "input ended inside frame 2 (4 of 10 body bytes)"},
    };
    for (const auto& [mode, input, output, status, error] : cases) {
        auto filter = startBrowser({mode});
        filter->sendRaw(input);
        filter->closeInput();
        EXPECT_EQ(filter->receiveRest(), output) << mode;
        EXPECT_EQ(filter->waitForExit(), status) << mode;
        EXPECT_THAT(filter->standardError(), HasSubstr(error));
    }
}

// Two hosts, numbered in the order they connect: a command for one host reaches it only.
TEST_F(PeersTest, ScriptedCommandsReachTheBrowsersAsJsonLines) {
    const auto script = write("core.script", R"(# commands for one host, for all, for one gone
wait-hosts 2
expect kerrow.tabList
@2 close-tab 7
@1 close-tab 42
web-off Homework time
wait-hosts 0
@1 web-on
)");
    auto core = startCore({"--no-answer", "--script", script.string()});
    ASSERT_EQ(line(*core), "core: listening on " + session_.socketPath().string());
    auto browser = startBrowser();
    auto second = startBrowser();
    ASSERT_TRUE(session_.waitForAnnouncement(5000ms, 2));
    session_.postStart();  // once for both: a start per launch would restart the first host
    browser->sendRaw("this is not json\n{\"tabs\":[{\"id\":42}]}\n");
    const auto first = line(*browser);
    EXPECT_TRUE(first == closeTabFrame(7) || first == closeTabFrame(42))
        << browser->standardError();
    EXPECT_EQ(line(*second), closeTabFrame(first == closeTabFrame(7) ? 42 : 7));
    const std::string disableWeb = R"({"action":"disableWeb","payload":"Homework time"})";
    EXPECT_EQ(line(*browser), disableWeb) << browser->standardError();
    EXPECT_EQ(line(*second), disableWeb);
    second->closeInput();
    browser->closeInput();
    EXPECT_EQ(line(*browser), std::nullopt);      // nothing else on standard output
    EXPECT_EQ(browser->waitForExit(10000ms), 1);  // the host ended well; a line was bad
    EXPECT_THAT(browser->standardError(), AllOf(HasSubstr("line 1: line is not JSON: "),
                                                HasSubstr("the host exited with status 0")));

    EXPECT_EQ(core->waitForExit(10000ms), 1);
    EXPECT_EQ(core->standardError(),
              "core-peer: " + script.string() + ":8: no host 1 (connected: none)\n");
    EXPECT_THAT(core->receiveRest(),
                AllOf(HasSubstr("core: host 1 connected (pid "),
                      HasSubstr(": tab data {\"tabs\":[{\"id\":42}]}  + kerrow.tabList\n"),
                      HasSubstr("host 1: device-twin update request (kerrow.updateDeviceTwin)\n"),
                      HasSubstr("to host 1: kerrow.closeTab-42  [close tab 42]\n")));
    EXPECT_FALSE(std::filesystem::exists(session_.socketPath()));
}

TEST_F(PeersTest, CorePeerRefusesBadOptionsScriptsAndSocketsAndEndsFailedWaits) {
    const auto script = write("bad.script", "close-tab 1\nfrobnicate\nlist 300\n");
    const auto waits = write("wait.script", "wait-hosts 1\nweb-on\n");
    const auto file = write("plain-file", "");
    const struct {
        std::vector<std::string> arguments;
        int status;
        std::string error;
    } cases[] = {
        {{"--bogus"}, 2, "kerrow-core-peer: unknown option '--bogus' (see --help)\n"},
        {{"--script", script.string()},
         2,
         "kerrow-core-peer: " + script.string() +
             ":2: unknown command 'frobnicate' (type help for the list)\n" + script.string() +
             ":3: list needs a listType from 0 to 255 first: list 2 a.example\n"},
        {{"--no-bus", "--socket", file.string()},
         1,
         "kerrow-core-peer: " + file.string() + " exists and is not a socket\n"},
        {{"--no-bus", "--timeout", "0.2", "--script", waits.string()},
         1,
         "core-peer: " + waits.string() +
             ":1: wait-hosts 1: still 0 connected (none) after 0.2 s\n"},
    };
    for (const auto& [arguments, status, error] : cases) {
        auto core = startCore(arguments);
        EXPECT_EQ(core->waitForExit(), status);
        EXPECT_EQ(core->standardError(), error);
        EXPECT_FALSE(std::filesystem::exists(session_.socketPath()));
    }

    auto listening = startCore({"--no-input"});  // answers a host's launch announcement
    ASSERT_EQ(line(*listening), "core: listening on " + session_.socketPath().string());
    auto browser = startBrowser();
    for (std::optional<std::string> said; !said || !said->starts_with("core: host 1 connected");) {
        ASSERT_TRUE(said = line(*listening));
    }
    auto second = startCore({"--no-bus", "--no-input"});
    EXPECT_EQ(second->waitForExit(), 1);
    EXPECT_EQ(second->standardError(),
              "kerrow-core-peer: socket " + session_.socketPath().string() +
                  " is in use: another core service (or core peer) listens "
                  "there\n");
}

TEST_F(PeersTest, BrowserPeerStartsHostsAsBrowsersDoAndReportsTheirEndAndFaults) {
    const auto arguments = session_.directory() / "arguments";
    const auto fakeHost = writeHost("fake-host", "printf '%s\\n' \"$@\" > " + arguments.string() +
                                                     "\ncat > /dev/null\nexit 3\n");
    auto chrome = startBrowser({"--host", fakeHost.string(), "--extension-id", "abc"});
    chrome->closeInput();
    EXPECT_EQ(chrome->waitForExit(), 1);
    EXPECT_EQ(readFile(arguments), "chrome-extension://abc/\n");
    EXPECT_THAT(chrome->standardError(), HasSubstr("the host exited with status 3"));

    auto firefox =
        startBrowser({"--host", fakeHost.string(), "--firefox", "--manifest", "/m.json"});
    firefox->closeInput();
    EXPECT_EQ(firefox->waitForExit(), 1);
    EXPECT_EQ(readFile(arguments), "/m.json\nkerrow@kerrowsoftware.com\n");

    auto missing = startBrowser({"--host", "/nonexistent/host"});
    EXPECT_EQ(missing->waitForExit(), 2);
    EXPECT_EQ(missing->standardError(),
              "kerrow-browser-peer: cannot start the host /nonexistent/host: No such file or "
              "directory\n");

    // A host that records its input: nothing after a failed expect may reach it.
    const auto input = session_.directory() / "input";
    const auto recordingHost = writeHost("recording-host", "cat > " + input.string() + "\n");
    const auto script = write("browser.script", "expect never\n{\"late\":1}\n");
    auto scripted = startBrowser(
        {"--host", recordingHost.string(), "--timeout", "0.2", "--script", script.string()});
    EXPECT_EQ(scripted->waitForExit(), 1);
    EXPECT_EQ(readFile(input), "");
    EXPECT_THAT(scripted->standardError(),
                AllOf(HasSubstr(script.string() +
                                ":1: expect: the host wrote no frame containing 'never' within "
                                "0.2 s\nbrowser-peer: script stopped\n"),
                      HasSubstr("the host exited with status 0")));

    // One good frame, then a header announcing 1 MiB + 1 byte; then it waits for end of input.
    const auto bigHost = writeHost(
        "big-host", "printf '\\002\\000\\000\\000{}\\001\\000\\020\\000'\ncat > /dev/null\n");
    auto dropping = startBrowser({"--host", bigHost.string()});
    EXPECT_EQ(line(*dropping), "{}");
    EXPECT_EQ(dropping->waitForExit(), 1);  // the host ended (0) once its input closed
    EXPECT_THAT(dropping->standardError(),
                HasSubstr("the host wrote a frame of 1048577 bytes, over the browser limit of 1 "
                          "MiB; a browser drops such a host: closing its pipes"));
}

}  // namespace
}  // namespace kerrow::test
