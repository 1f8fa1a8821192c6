// DispatchQueue: a labelled serial queue with one worker thread of its own.
//
// Work items run one at a time, in the order submitted, on the queue's thread. The owner of the
// queue destroys it from any thread, including from one of its own work items (the usual end of a
// service whose loop held the last reference to it): pending items still run, then the thread
// ends; the destructor waits for that unless it runs on the worker itself. finish() ends the
// thread the same way while the queue lives on (a channel whose loop is over).
// async() may be called from any thread.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace kerrow {

class DispatchQueue {
  public:
    explicit DispatchQueue(std::string label);
    ~DispatchQueue();
    DispatchQueue(const DispatchQueue&) = delete;
    DispatchQueue& operator=(const DispatchQueue&) = delete;

    /// Queues `work` to run after every item queued before it, and returns at once. Does nothing
    /// once the queue is finished.
    void async(std::function<void()> work);

    /// Takes no more items: the thread ends once those queued have run, without waiting for the
    /// owner's end. Any thread, also one of the queue's own work items.
    void finish();

    [[nodiscard]] const std::string& label() const { return label_; }

  private:
    struct State;
    static void run(std::shared_ptr<State> state);

    std::string label_;
    std::shared_ptr<State> state_;  // shared with the worker, which may outlive this object
    std::thread worker_;
};

}  // namespace kerrow
