// Sends the C++ allocations of a program to malloc, which the linker sends to the program's
// wrapper. One file of the program includes it.
#pragma once

#include <cstdlib>
#include <new>

[[gnu::noinline]] void* operator new(std::size_t size) {
    void* const memory = malloc(size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return malloc(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
    free(memory);
}
