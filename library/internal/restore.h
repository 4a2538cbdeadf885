// Puts an option of the handle back when a block is left.
#pragma once

namespace mira {

template <typename T>
class Restore {
public:
    Restore(T& member, T value) : member_(member), saved_(member) { member_ = value; }
    ~Restore() { member_ = saved_; }
    Restore(const Restore&) = delete;
    Restore& operator=(const Restore&) = delete;

private:
    T& member_;
    T saved_;
};

}  // namespace mira
