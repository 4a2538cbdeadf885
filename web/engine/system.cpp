// System calls that the browser lacks. They are reached by what writes tables, which the page never
// does.
#include <sys/random.h>
#include <sys/types.h>
#include <sys/xattr.h>

#include <cerrno>

extern "C" {

[[gnu::weak]] ssize_t fgetxattr(int /*file*/, const char* /*name*/, void* /*value*/,
                                std::size_t /*size*/) {
    errno = ENOTSUP;
    return -1;
}

[[gnu::weak]] int fsetxattr(int /*file*/, const char* /*name*/, const void* /*value*/,
                            std::size_t /*size*/, int /*flags*/) {
    errno = ENOTSUP;
    return -1;
}

[[gnu::weak]] ssize_t getrandom(void* /*to*/, std::size_t /*size*/, unsigned /*flags*/) {
    errno = ENOSYS;
    return -1;
}
}
