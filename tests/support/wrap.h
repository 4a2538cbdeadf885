// Calls of the C library that the linker sends here (--wrap): a program's own answer, or the call
// itself.
#pragma once

// There are calls for large files under names of their own where a long has 32 bits.
#ifdef _FILE_OFFSET_BITS
#define LARGE(name) name##64
#else
#define LARGE(name) name
#endif

/// The call itself, and where the linker sends it.
#define REAL(name) REAL_NAMED(name)
#define REAL_NAMED(name) __real_##name
#define WRAPPED(name) WRAPPED_NAMED(name)
#define WRAPPED_NAMED(name) __wrap_##name

/// WRAP(result, name, whether to answer, the answer, (parameters), (arguments))
#define WRAP(...) WRAP_NAMED(__VA_ARGS__)
#define WRAP_NAMED(result, name, ours, answer, parameters, arguments) \
    result __real_##name parameters;                                  \
    result __wrap_##name parameters { return (ours) ? answer : __real_##name arguments; }
