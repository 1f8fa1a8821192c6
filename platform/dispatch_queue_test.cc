#include "platform/dispatch_queue.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <latch>
#include <thread>
#include <vector>

#include "tests/support/host_process.h"
#include "tests/support/test_support.h"

namespace kerrow {
namespace {

// Many submitters released at once: nothing lost or run twice, each one's items in order, all on
// one thread of the queue's own. So many items that an unguarded queue loses or corrupts some.
TEST(DispatchQueue, RunsItemsInOrderOnOneThreadOfItsOwn) {
    constexpr int submitters = 8;
    constexpr int each = 100000;
    std::vector<int> next(submitters);  // touched by the queue's thread only
    std::vector<std::thread::id> threads;
    bool inOrder = true;
    {
        DispatchQueue queue("serial");
        std::latch start(submitters);
        std::vector<std::jthread> submitting;
        for (int submitter = 0; submitter < submitters; ++submitter) {
            submitting.emplace_back([&, submitter] {
                start.arrive_and_wait();
                for (int index = 0; index < each; ++index) {
                    queue.async([&, submitter, index] {
                        inOrder = inOrder && next[submitter]++ == index;
                        if (threads.empty() || threads.back() != std::this_thread::get_id()) {
                            threads.push_back(std::this_thread::get_id());
                        }
                    });
                }
            });
        }
    }  // the submitters end first; the queue's destructor lets every queued item run
    EXPECT_TRUE(inOrder);
    EXPECT_EQ(next, std::vector<int>(submitters, each));
    ASSERT_EQ(threads.size(), 1u);
    EXPECT_NE(threads.front(), std::this_thread::get_id());
}

TEST(DispatchQueue, MayBeDestroyedByItsOwnWorkItem) {
    // A service whose loop holds the last reference to it ends on its own queue's thread.
    auto queue = std::make_shared<DispatchQueue>("self-release");
    std::atomic<bool> finished{false};
    auto* raw = queue.get();
    raw->async([held = std::move(queue), &finished]() mutable {
        held.reset();
        finished = true;
    });
    EXPECT_TRUE(test::waitUntil([&] { return finished.load(); }));
}

// A retired channel's queue ends its thread as soon as its loop is over, long before the channel.
TEST(DispatchQueue, AFinishedQueueRunsWhatWasQueuedThenEndsItsThread) {
    const auto threads = [] { return test::procFigure(::getpid(), "status", "Threads"); };
    DispatchQueue queue("finished");
    const auto withWorker = threads();
    std::atomic<int> ran{0};
    queue.async([&] { ++ran; });
    queue.async([&] { ++ran; });
    queue.finish();
    EXPECT_TRUE(test::waitUntil([&] { return threads() < withWorker; }));
    queue.async([&] { ++ran; });  // taken no more
    EXPECT_EQ(ran, 2);
}

}  // namespace
}  // namespace kerrow
