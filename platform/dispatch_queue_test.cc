#include "platform/dispatch_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <set>
#include <vector>

#include "tests/support/test_support.h"

namespace kerrow {
namespace {

TEST(DispatchQueue, RunsItemsInOrderOnOneThreadOfItsOwn) {
    std::mutex mutex;
    std::vector<int> order;
    std::set<std::thread::id> threads;
    {
        DispatchQueue queue("com.kerrowsoftware.test");
        EXPECT_EQ(queue.label(), "com.kerrowsoftware.test");
        for (int index = 0; index < 1000; ++index) {
            queue.async([&, index] {
                const std::lock_guard lock(mutex);
                order.push_back(index);
                threads.insert(std::this_thread::get_id());
            });
        }
    }  // the destructor lets every queued item run
    ASSERT_EQ(order.size(), 1000u);
    for (int index = 0; index < 1000; ++index) {
        EXPECT_EQ(order[index], index);
    }
    ASSERT_EQ(threads.size(), 1u);
    EXPECT_NE(*threads.begin(), std::this_thread::get_id());
}

TEST(DispatchQueue, ItemsFromSeveralThreadsNeverRunAtOnce) {
    std::atomic<int> running{0};
    std::atomic<int> overlaps{0};
    std::atomic<int> done{0};
    {
        DispatchQueue queue("serial");
        std::vector<std::thread> submitters;
        for (int thread = 0; thread < 4; ++thread) {
            submitters.emplace_back([&] {
                for (int index = 0; index < 250; ++index) {
                    queue.async([&] {
                        if (running.fetch_add(1) != 0) {
                            ++overlaps;
                        }
                        running.fetch_sub(1);
                        ++done;
                    });
                }
            });
        }
        for (auto& submitter : submitters) {
            submitter.join();
        }
    }
    EXPECT_EQ(done.load(), 1000);
    EXPECT_EQ(overlaps.load(), 0);
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

}  // namespace
}  // namespace kerrow
