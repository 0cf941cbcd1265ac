#include "processors.h"

#include <dlfcn.h>
#include <sys/sysinfo.h>

int told_processors = 0;

// Stands in for the C library's function in this executable.
extern "C" __attribute__((visibility("default"))) int get_nprocs() noexcept {
    using Real = decltype(&get_nprocs);
    static const auto real = reinterpret_cast<Real>(::dlsym(RTLD_NEXT, "get_nprocs"));
    return told_processors != 0 ? told_processors : real();
}
