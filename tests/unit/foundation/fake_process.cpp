#include "fake_process.h"

#include <dirent.h>
#include <dlfcn.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <mutex>

namespace fake_process {

namespace {

struct Replacement {
    std::string prefix;
    std::string script;
};

std::mutex lock;
std::vector<Replacement> replacements;
std::vector<Argv> starts;
std::vector<std::string> directories;
int start_error = 0;
std::atomic<int> nprocs{0};
std::atomic<int> refused_state{-1};
std::atomic<bool> cancel_next_wait{false};
std::atomic<bool> no_process_descriptors{false};

}  // namespace

void replace(const std::string& prefix, const std::string& script) {
    const std::lock_guard hold(lock);
    replacements.push_back({prefix, script});
}

void refuse_starts(int error) {
    start_error = error;
}

std::vector<Argv> started() {
    const std::lock_guard hold(lock);
    return starts;
}

void processors(int number) {
    nprocs = number;
}

void refuse_cancel_state(int state) {
    refused_state = state;
}

void cancel_at_wait() {
    cancel_next_wait = true;
}

void refuse_process_descriptors() {
    no_process_descriptors = true;
}

std::vector<std::string> opened_directories() {
    const std::lock_guard hold(lock);
    return directories;
}

void reset() {
    const std::lock_guard hold(lock);
    replacements.clear();
    starts.clear();
    directories.clear();
    start_error = 0;
    nprocs = 0;
    refused_state = -1;
    cancel_next_wait = false;
    no_process_descriptors = false;
}

}  // namespace fake_process

using namespace fake_process;

extern "C" {

__attribute__((visibility("default"))) int posix_spawnp(pid_t* pid, const char* file,
                                                        const posix_spawn_file_actions_t* actions,
                                                        const posix_spawnattr_t* attributes,
                                                        char* const argv[], char* const environment[]) {
    using Real = decltype(&posix_spawnp);
    static const auto real = reinterpret_cast<Real>(::dlsym(RTLD_NEXT, "posix_spawnp"));
    Argv words;
    std::string line;
    for (char* const* word = argv; *word != nullptr; ++word) {
        words.emplace_back(*word);
        line.append(line.empty() ? "" : " ").append(*word);
    }
    std::string script;
    bool found = false;
    {
        const std::lock_guard hold(lock);
        starts.push_back(words);
        if (start_error != 0) return start_error;
        for (const auto& r : replacements) {
            if (!line.starts_with(r.prefix)) continue;
            script = r.script;
            found = true;
        }
    }
    if (!found) return real(pid, file, actions, attributes, argv, environment);
    std::vector<std::string> shell{"/bin/sh", "-c", script};
    shell.insert(shell.end(), words.begin(), words.end());
    std::vector<char*> pointers;
    for (auto& word : shell) pointers.push_back(word.data());
    pointers.push_back(nullptr);
    return real(pid, "/bin/sh", actions, attributes, pointers.data(), environment);
}

__attribute__((visibility("default"))) int get_nprocs() noexcept {
    using Real = decltype(&get_nprocs);
    static const auto real = reinterpret_cast<Real>(::dlsym(RTLD_NEXT, "get_nprocs"));
    const int told = nprocs;
    return told != 0 ? told : real();
}

__attribute__((visibility("default"))) int pthread_setcancelstate(int state, int* old) {
    using Real = decltype(&pthread_setcancelstate);
    static const auto real = reinterpret_cast<Real>(::dlsym(RTLD_NEXT, "pthread_setcancelstate"));
    if (refused_state == state) return 22;
    return real(state, old);
}

__attribute__((visibility("default"))) pid_t waitpid(pid_t pid, int* status, int options) {
    using Real = decltype(&waitpid);
    static const auto real = reinterpret_cast<Real>(::dlsym(RTLD_NEXT, "waitpid"));
    if (cancel_next_wait.exchange(false)) pthread_cancel(pthread_self());
    return real(pid, status, options);
}

__attribute__((visibility("default"))) DIR* opendir(const char* name) {
    using Real = decltype(&opendir);
    static const auto real = reinterpret_cast<Real>(::dlsym(RTLD_NEXT, "opendir"));
    {
        const std::lock_guard hold(lock);
        directories.emplace_back(name);
    }
    return real(name);
}

__attribute__((visibility("default"))) long syscall(long number, ...) noexcept {
    using Real = long (*)(long, long, long, long, long, long, long);
    static const auto real = reinterpret_cast<Real>(::dlsym(RTLD_NEXT, "syscall"));
    if (number == SYS_pidfd_open && no_process_descriptors) {
        errno = ENOSYS;
        return -1;
    }
    va_list list;
    va_start(list, number);
    long a[6];
    for (long& argument : a) argument = va_arg(list, long);
    va_end(list);
    return real(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}

}  // extern "C"
