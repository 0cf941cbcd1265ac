#include "support/isolation.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <vector>

#include "foundation/fd.h"
#include "support/files.h"
#include "support/real_root.h"
#include "support/sandbox.h"

namespace corvo::test {

namespace fs = std::filesystem;

namespace {

// All of the sandbox's own files are on one tmpfs, mounted here.
constexpr const char* kBase = "/run";
constexpr const char* kOwn = isolation::kOwnDir;
constexpr const char* kProcNet = "/proc/self/net";
constexpr const char* kRateEstimator = "/sys/module/sch_htb/parameters/htb_rate_est";

void mount_or_throw(const char* source, const std::string& target, const char* type, unsigned long flags,
                    const char* data = nullptr) {
    isolation::check(::mount(source, target.c_str(), type, flags, data) == 0,
                     std::string("mount ") + (type ? type : source) + " on " + target);
}

void empty_directory(const std::string& path) {
    for (const auto& entry : fs::directory_iterator(path)) fs::remove_all(entry.path());
}

void mount_sys() {
    ::umount2(kRateEstimator, MNT_DETACH);
    mount_or_throw("sysfs", "/sys", "sysfs", MS_NOSUID | MS_NODEV | MS_NOEXEC);
    if (in_device_tier() || ::access(kRateEstimator, F_OK) != 0) return;
    // This value belongs to the whole machine: tests get one of their own.
    const std::string own = std::string(kOwn) + "/htb_rate_est";
    write_file(own, read_file(kRateEstimator));
    mount_or_throw(own.c_str(), kRateEstimator, nullptr, MS_BIND);
}

// What the first process of the namespace does: takes in orphans until the test's process has ended.
[[noreturn]] void wait_as_init(pid_t child, int report) {
    for (;;) {
        int status = 0;
        const pid_t pid = ::waitpid(-1, &status, 0);
        if (pid == child) {
            if (::write(report, &status, sizeof status) != sizeof status) ::_exit(1);
            ::_exit(0);
        }
        if (pid < 0 && errno != EINTR) ::_exit(1);
    }
}

[[noreturn]] void end_like(int status) {
    if (WIFSIGNALED(status)) {
        const rlimit no_core{};
        ::setrlimit(RLIMIT_CORE, &no_core);
        ::signal(WTERMSIG(status), SIG_DFL);
        ::raise(WTERMSIG(status));
    }
    ::_exit(WIFEXITED(status) ? WEXITSTATUS(status) : 1);
}

}  // namespace

namespace isolation {

void overlay(const std::string& path, const std::string& name) {
    const std::string upper = std::string(kOwn) + "/" + name + "/upper";
    const std::string work = std::string(kOwn) + "/" + name + "/work";
    fs::create_directories(upper);
    fs::create_directories(work);
    const std::string options = "lowerdir=" + path + ",upperdir=" + upper + ",workdir=" + work;
    mount_or_throw("overlay", path, "overlay", 0, options.c_str());
}

void check(bool good, const std::string& what) {
    if (!good) throw std::runtime_error(what + ": " + std::generic_category().message(errno));
}

// A tmpfs in place of /proc/self/net that has all it had, as links that follow the reading thread into its
// network namespace, and a directory for the condition files.
void make_condition_dir(const std::string& shared) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(kProcNet)) names.push_back(entry.path().filename());
    mount_or_throw("tmpfs", kProcNet, "tmpfs", 0, "mode=755");
    for (const auto& name : names) {
        const std::string link = std::string(kProcNet) + "/" + name;
        if (name != "nf_condition")
            isolation::check(::symlink(("/proc/thread-self/net/" + name).c_str(), link.c_str()) == 0, link);
    }
    fs::create_directory(kConditionDir);
    if (!shared.empty()) mount_or_throw(shared.c_str(), kConditionDir, nullptr, MS_BIND);
}

void loopback_up() {
    const UniqueFd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    check(fd && ::ioctl(fd.get(), SIOCGIFFLAGS, &request) == 0, "read the flags of lo");
    request.ifr_flags |= IFF_UP;
    check(::ioctl(fd.get(), SIOCSIFFLAGS, &request) == 0, "set lo up");
}

void enter() {
    int report[2];
    check(::pipe2(report, O_CLOEXEC) == 0, "pipe");
    check(::unshare(CLONE_NEWPID) == 0, "unshare(processes)");
    const pid_t init = ::fork();
    check(init >= 0, "fork");
    if (init > 0) {
        ::close(report[1]);
        int status = 0;
        const bool told = ::read(report[0], &status, sizeof status) == sizeof status;
        int init_status = 0;
        while (::waitpid(init, &init_status, 0) < 0 && errno == EINTR) {
        }
        end_like(told ? status : init_status);
    }
    ::close(report[0]);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    // Two levels, because signals that are not handled do not reach the first process of a namespace: abort()
    // and death tests would behave differently there.
    const pid_t child = ::fork();
    check(child >= 0, "fork");
    if (child > 0) wait_as_init(child, report[1]);
    ::close(report[1]);
    check(::unshare(CLONE_NEWNS | CLONE_NEWIPC) == 0, "unshare(mounts)");
    check(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0,
          "make mounts private (the root of a chroot must be a mount point: mount --bind DIR DIR before it)");
}

void build_view() {
    mount_or_throw("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC);
    mount_or_throw("tmpfs", kBase, "tmpfs", 0, "mode=755");
    fs::create_directories(std::string(kOwn) + "/scratch");
    const std::string usr = std::string(kOwn) + "/usr";
    fs::create_directories(usr);
    mount_or_throw("/usr", usr, nullptr, MS_BIND);
    detail::real_usr = usr;
    if (!fs::exists("/etc/networkmanagement")) overlay("/etc", "etc");
    fs::create_directory("/etc/networkmanagement");
    mount_or_throw("tmpfs", "/etc/networkmanagement", "tmpfs", 0, "mode=755");
    mount_or_throw("tmpfs", "/var/log", "tmpfs", 0, "mode=755");
}

void renew() {
    ::umount2(kProcNet, MNT_DETACH);
    check(::unshare(CLONE_NEWNET) == 0, "unshare(network)");
    loopback_up();
    ::umount2("/sys", MNT_DETACH);
    mount_sys();
    if (!in_device_tier()) make_condition_dir();
    if (fs::exists("/run/netns"))
        for (const auto& entry : fs::directory_iterator("/run/netns"))
            ::umount2(entry.path().c_str(), MNT_DETACH);
    for (const auto& entry : fs::directory_iterator(kBase))
        if (entry.path() != kOwn) fs::remove_all(entry.path());
    empty_directory(scratch_dir());
    empty_directory(kDocumentDir);
    empty_directory("/var/log");
    for (const char* folder : {"/run/netns", "/run/lock", kServiceDir, "/var/log/network"})
        fs::create_directories(folder);
}

}  // namespace isolation

bool in_device_tier() {
    const char* tier = ::getenv("CORVO_TEST_TIER");
    return tier != nullptr && std::string_view(tier) == "device";
}

std::string scratch_dir() {
    return std::string(kOwn) + "/scratch";
}

}  // namespace corvo::test
