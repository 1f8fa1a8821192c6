// Small RAII pieces for the peers' single-threaded sd-event loops. A Source disables and releases
// its event source when destroyed, so an object that owns its sources can be destroyed at any
// time, also from inside one of its own callbacks' loop iterations. Loop thread only.
#pragma once

#include <signal.h>
#include <systemd/sd-event.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <string_view>
#include <system_error>
#include <vector>

#include "platform/sd_bus_handles.h"

namespace kerrow::tools {

using EventSource = SdEventSource;
using EventLoop = SdEvent;

/// Throws std::system_error("<what>: <description>") for a negative sd-* result; returns it else.
inline int check(int result, std::string_view what) {
    if (result < 0) {
        throw std::system_error(-result, std::generic_category(), std::string(what));
    }
    return result;
}

/// A new event loop. Throws std::system_error.
[[nodiscard]] inline EventLoop newEventLoop() {
    sd_event* event = nullptr;
    check(sd_event_new(&event), "sd_event_new");
    return EventLoop(event);
}

/// A deferred source that calls `object->*run()` once per loop iteration while enabled, below
/// the sockets and pipes (idle priority): what has arrived is handled before it runs. `object`
/// must outlive the source.
template <typename Object, void (Object::*run)()>
[[nodiscard]] EventSource addRunner(sd_event* loop, Object* object) {
    sd_event_source* source = nullptr;
    check(sd_event_add_defer(
              loop, &source,
              [](sd_event_source*, void* self) {
                  (static_cast<Object*>(self)->*run)();
                  return 0;
              },
              object),
          "sd_event_add_defer");
    EventSource runner(source);
    check(sd_event_source_set_priority(source, SD_EVENT_PRIORITY_IDLE), "set_priority");
    return runner;
}

/// A source that calls `object->*ready()` whenever `descriptor` has one of `events` (EPOLLIN,
/// EPOLLOUT). `object` and the descriptor must outlive it.
template <typename Object, void (Object::*ready)()>
[[nodiscard]] EventSource addIo(sd_event* loop, Object* object, int descriptor,
                                std::uint32_t events) {
    sd_event_source* source = nullptr;
    check(sd_event_add_io(
              loop, &source, descriptor, events,
              [](sd_event_source*, int, std::uint32_t, void* self) {
                  (static_cast<Object*>(self)->*ready)();
                  return 0;
              },
              object),
          "sd_event_add_io");
    return EventSource(source);
}

/// A timer that calls `object->*run()` once, `seconds` from now. `object` must outlive it.
template <typename Object, void (Object::*run)()>
[[nodiscard]] EventSource addTimer(sd_event* loop, Object* object, double seconds) {
    sd_event_source* source = nullptr;
    check(sd_event_add_time_relative(
              loop, &source, CLOCK_MONOTONIC,
              static_cast<std::uint64_t>(std::llround(seconds * 1e6)), 0,
              [](sd_event_source*, std::uint64_t, void* self) {
                  (static_cast<Object*>(self)->*run)();
                  return 0;
              },
              object),
          "sd_event_add_time_relative");
    return EventSource(source);
}

/// Blocks `number` for the calling thread, so that the loop's signalfd or child source gets it.
inline void blockSignal(int number) {
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, number);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
}

/// Ignores SIGPIPE, blocks SIGINT and SIGTERM, and has `loop` call `object->*arrived(signal)` for
/// each of them. `object` must outlive the sources.
template <typename Object, void (Object::*arrived)(int signal)>
[[nodiscard]] std::vector<EventSource> addStopSignals(sd_event* loop, Object* object) {
    ::signal(SIGPIPE, SIG_IGN);
    std::vector<EventSource> sources;
    for (const int number : {SIGINT, SIGTERM}) {
        blockSignal(number);
        sd_event_source* source = nullptr;
        check(sd_event_add_signal(
                  loop, &source, number,
                  [](sd_event_source*, const signalfd_siginfo* info, void* self) {
                      (static_cast<Object*>(self)->*arrived)(static_cast<int>(info->ssi_signo));
                      return 0;
                  },
                  object),
              "sd_event_add_signal");
        sources.emplace_back(source);
    }
    return sources;
}

}  // namespace kerrow::tools
