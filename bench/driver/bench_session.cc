#include "bench/driver/bench_session.h"

#include "kit/const.h"

namespace kerrow::bench {
namespace {

std::vector<std::string> commandLine(const Program& program,
                                     const std::vector<std::string>& wrapper) {
    std::vector<std::string> words = wrapper;
    words.insert(words.end(), program.argv.begin(), program.argv.end());
    return words;
}

}  // namespace

std::vector<std::string> splitCommas(std::string_view text) {
    std::vector<std::string> pieces;
    for (std::size_t start = 0;;) {
        const std::size_t end = text.find(',', start);
        pieces.emplace_back(text.substr(start, end - start));
        if (end == std::string_view::npos) {
            return pieces;
        }
        start = end + 1;
    }
}

Program parseProgram(std::string_view description) {
    const std::size_t equals = description.find('=');
    const std::size_t colon = description.find(':', equals);
    if (equals == std::string_view::npos || colon == std::string_view::npos) {
        throw BenchError("a program is name=kind:argv0,argv1,...: " + std::string(description));
    }
    Program program;
    program.name = description.substr(0, equals);
    const std::string_view kind = description.substr(equals + 1, colon - equals - 1);
    if (kind == "host") {
        program.kind = ProgramKind::host;
    } else if (kind == "floor") {
        program.kind = ProgramKind::floor;
    } else if (kind == "typical") {
        program.kind = ProgramKind::typical;
    } else if (kind == "bare") {
        program.kind = ProgramKind::bare;
    } else {
        throw BenchError("unknown program kind: " + std::string(kind));
    }
    program.argv = splitCommas(description.substr(colon + 1));
    return program;
}

BenchSession::BenchSession(Program program, const std::vector<std::string>& wrapper)
    : program_(std::move(program)),
      arguments_(commandLine(program_, wrapper)),
      session_(arguments_.at(0)) {
    arguments_.erase(arguments_.begin());
}

BenchSession::StartTimes BenchSession::start(Deadline deadline) {
    StartTimes times;
    times.spawned = Clock::now();
    session_.launch(arguments_);
    try {
        if (program_.kind != ProgramKind::floor) {
            if (!session_.waitForAnnouncement(timeLeft(deadline))) {
                throw BenchError("no announcement on the bus");
            }
            times.announced = Clock::now();
        }
        if (program_.kind == ProgramKind::bare) {
            if (child().waitForExit(timeLeft(deadline)) != 0) {
                throw BenchError("the bare bus program failed");
            }
            return times;
        }
        if (program_.kind != ProgramKind::floor) {
            times.posted = Clock::now();
            session_.postStart();
        }
        connection_ = session_.core().accept(timeLeft(deadline));
        if (!connection_) {
            throw BenchError("the program did not connect to the core service");
        }
        coreReader_.emplace(connection_->fd());
        const auto request = coreReader_->next(deadline);
        times.connected = Clock::now();
        if (request != Const::Browser::updateDeviceTwin) {
            throw BenchError("expected the device-twin request, got: " + std::string(request));
        }
    } catch (const std::exception& error) {
        throw BenchError(program_.name + ": " + error.what() + "\n" + session_.standardError());
    }
    return times;
}

void BenchSession::stopCore() {
    coreReader_.reset();
    connection_.reset();
    session_.stopCore();
}

}  // namespace kerrow::bench
