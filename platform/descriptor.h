// Descriptor: sole owner of one POSIX file descriptor, closed on destruction or reset.
//
// Every class of the project that keeps a descriptor in a field keeps it in one of these. A
// move-only value; use it from one thread at a time (or guard it as its owner says).
#pragma once

#include <unistd.h>

#include <utility>

namespace kerrow {

class Descriptor {
  public:
    Descriptor() = default;
    /// Takes ownership of `descriptor` (-1 for none).
    explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
    ~Descriptor() { reset(); }
    Descriptor(Descriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) {
            reset(std::exchange(other.descriptor_, -1));
        }
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    [[nodiscard]] int get() const { return descriptor_; }
    [[nodiscard]] bool valid() const { return descriptor_ >= 0; }
    explicit operator bool() const { return valid(); }

    /// Closes the descriptor held (if any) and takes `descriptor` instead (-1 for none).
    void reset(int descriptor = -1) {
        if (descriptor_ >= 0) {
            ::close(descriptor_);
        }
        descriptor_ = descriptor;
    }

    /// Gives the descriptor up without closing it.
    [[nodiscard]] int release() { return std::exchange(descriptor_, -1); }

  private:
    int descriptor_ = -1;  // -1: none
};

}  // namespace kerrow
