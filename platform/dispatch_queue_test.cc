#include "platform/dispatch_queue.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <numeric>
#include <set>
#include <vector>

#include "tests/support/host_process.h"
#include "tests/support/test_support.h"

namespace kerrow {
namespace {

// Several submitters at once: nothing lost, each one's items in order, all on one own thread.
TEST(DispatchQueue, RunsItemsInOrderOnOneThreadOfItsOwn) {
    constexpr int submitters = 4;
    constexpr int each = 250;
    std::mutex mutex;
    std::vector<std::vector<int>> order(submitters);
    std::set<std::thread::id> threads;
    {
        DispatchQueue queue("serial");
        std::vector<std::thread> threadsSubmitting;
        for (int submitter = 0; submitter < submitters; ++submitter) {
            threadsSubmitting.emplace_back([&, submitter] {
                for (int index = 0; index < each; ++index) {
                    queue.async([&, submitter, index] {
                        const std::lock_guard lock(mutex);
                        order[submitter].push_back(index);
                        threads.insert(std::this_thread::get_id());
                    });
                }
            });
        }
        for (auto& thread : threadsSubmitting) {
            thread.join();
        }
    }  // the destructor lets every queued item run
    std::vector<int> expected(each);
    std::iota(expected.begin(), expected.end(), 0);
    for (const auto& items : order) {
        EXPECT_EQ(items, expected);
    }
    ASSERT_EQ(threads.size(), 1u);
    EXPECT_NE(*threads.begin(), std::this_thread::get_id());
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
