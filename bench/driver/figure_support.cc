#include "bench/driver/figure_support.h"

#include <csignal>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string_view>

#include "bench/driver/figures.h"
#include "kit/const.h"
#include "tests/support/test_support.h"

namespace kerrow::bench {

const char* regimeName(Regime regime) {
    switch (regime) {
        case Regime::streamed:
            return "streamed";
        case Regime::paced:
            return "paced";
        case Regime::burst:
            return "burst";
    }
    return "unknown";
}

std::optional<Regime> regimeNamed(std::string_view name) {
    for (const Regime regime : {Regime::streamed, Regime::paced, Regime::burst}) {
        if (name == regimeName(regime)) {
            return regime;
        }
    }
    return std::nullopt;
}

std::string extensionMessage(std::size_t size) {
    constexpr std::size_t wrapping = std::string_view(R"({"tabs":""})").size();
    std::string tabs(size > wrapping ? size - wrapping : 0, ' ');
    for (std::size_t i = 0; i < tabs.size(); ++i) {
        tabs[i] = static_cast<char>('a' + i % 26);
    }
    return nlohmann::json{{"tabs", std::move(tabs)}}.dump();
}

std::string batchOf(std::string_view frame, std::size_t& framesInBatch) {
    constexpr std::size_t batchBytes = 256 * 1024;
    framesInBatch = std::max<std::size_t>(1, batchBytes / frame.size());
    std::string batch;
    batch.reserve(framesInBatch * frame.size());
    for (std::size_t i = 0; i < framesInBatch; ++i) {
        batch.append(frame);
    }
    return batch;
}

WriterThread::WriterThread(HostProcess& child, std::function<void()> work)
    : child_(child), thread_([this, work = std::move(work)] {
          try {
              work();
          } catch (...) {
              failure_ = std::current_exception();
          }
      }) {}

WriterThread::~WriterThread() {
    if (thread_.joinable()) {
        ::kill(child_.pid(), SIGKILL);
        thread_.join();
    }
}

void WriterThread::join() {
    thread_.join();
    if (failure_) {
        std::rethrow_exception(failure_);
    }
}

RelayRun relay(BenchSession& session, const std::string& body, std::size_t frames, bool paced,
               Deadline deadline) {
    const std::string frame = test::frame(body);
    std::size_t perBatch = 1;
    const std::string batch = paced ? frame : batchOf(frame, perBatch);
    const std::size_t expectedLength = body.size() + Const::Browser::tabList.size();
    HostProcess& child = session.child();

    const ProcessSample before = sampleProcess(child.pid());
    const auto started = Clock::now();
    WriterThread writer(child, [&] {
        for (std::size_t sent = 0; sent < frames; sent += perBatch) {
            const std::size_t count = std::min(perBatch, frames - sent);
            test::writeAll(child.inputFd(),
                           std::string_view(batch).substr(0, count * frame.size()));
        }
    });
    for (std::size_t i = 0; i < frames; ++i) {
        const std::string_view received = session.coreReader().next(deadline);
        if (received.size() != expectedLength || !received.ends_with(Const::Browser::tabList) ||
            (i == 0 && received.substr(0, body.size()) != body)) {
            throw BenchError("frame " + std::to_string(i) + " reached the core service altered");
        }
    }
    const auto ended = Clock::now();
    const ProcessSample after = sampleProcess(child.pid());
    writer.join();
    return {std::chrono::duration<double>(ended - started).count(),
            cpuNanosecondsBetween(before, after)};
}

int finish(BenchSession& session, Deadline deadline) {
    session.child().closeInput();
    const auto status = session.child().waitForExit(timeLeft(deadline));
    if (!status) {
        throw BenchError("the program did not end at end of input");
    }
    return *status;
}

std::int64_t countLogLines(const std::filesystem::path& logFile, std::string_view needle) {
    std::int64_t count = 0;
    for (const auto& file : {logFile.string(), logFile.string() + ".1", logFile.string() + ".2"}) {
        std::ifstream in(file);
        std::string line;
        while (std::getline(in, line)) {
            count += line.find(needle) != std::string::npos ? 1 : 0;
        }
    }
    return count;
}

}  // namespace kerrow::bench
