// Puts an option of the handle back when a block is left, be it by an exception.
#pragma once

namespace mira {

template <typename T>
class Restore {
public:
    Restore(T& member, T value) : Restore(member, value, member) {}
    /// later: what it is then, whatever it has been.
    Restore(T& member, T value, T later) : member_(member), later_(later) { member_ = value; }
    ~Restore() { member_ = later_; }
    Restore(const Restore&) = delete;
    Restore& operator=(const Restore&) = delete;

private:
    T& member_;
    T later_;
};

}  // namespace mira
