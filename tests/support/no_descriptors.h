// A process that has used up its descriptors.
#pragma once

#include <sys/resource.h>
#include <unistd.h>

namespace corvo::test {

// While it lives, no descriptor is to be had. Those that are open go on working: the limit is the lowest free
// number, and not 0, with which poll() would refuse more descriptors than the limit in every other thread.
class NoDescriptors {
public:
    NoDescriptors() {
        ::getrlimit(RLIMIT_NOFILE, &before_);
        const int lowest_free = ::dup(STDERR_FILENO);
        ::close(lowest_free);
        const rlimit none{static_cast<rlim_t>(lowest_free), before_.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

private:
    rlimit before_{};
};

}  // namespace corvo::test
