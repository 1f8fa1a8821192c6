#include "platform/dispatch_queue.h"

#include <pthread.h>

#include <condition_variable>
#include <deque>
#include <mutex>

namespace kerrow {

struct DispatchQueue::State {
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<std::function<void()>> items;  // guarded by mutex
    bool closed = false;                      // guarded by mutex; no items are added once set
};

DispatchQueue::DispatchQueue(std::string label)
    : label_(std::move(label)), state_(std::make_shared<State>()) {
    worker_ = std::thread(&DispatchQueue::run, state_);
    // Thread names are limited to 15 bytes; the tail of a reverse-DNS label is the telling part.
    const std::string name = label_.size() > 15 ? label_.substr(label_.size() - 15) : label_;
    pthread_setname_np(worker_.native_handle(), name.c_str());
}

DispatchQueue::~DispatchQueue() {
    finish();
    if (worker_.get_id() == std::this_thread::get_id()) {
        worker_.detach();  // the worker finishes the item that destroyed us, then ends
    } else {
        worker_.join();
    }
}

void DispatchQueue::async(std::function<void()> work) {
    // Notified under the lock: once it is released, the item may already have run and destroyed
    // this queue, so nothing of `this` may be touched after it.
    const std::lock_guard lock(state_->mutex);
    if (!state_->closed) {
        state_->items.push_back(std::move(work));
        state_->wake.notify_one();
    }
}

void DispatchQueue::finish() {
    {
        const std::lock_guard lock(state_->mutex);
        state_->closed = true;
    }
    state_->wake.notify_one();
}

void DispatchQueue::run(std::shared_ptr<State> state) {
    for (;;) {
        std::function<void()> item;
        {
            std::unique_lock lock(state->mutex);
            state->wake.wait(lock, [&] { return state->closed || !state->items.empty(); });
            if (state->items.empty()) {
                return;
            }
            item = std::move(state->items.front());
            state->items.pop_front();
        }
        item();
    }
}

}  // namespace kerrow
