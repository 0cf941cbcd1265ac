#include <sys/sysinfo.h>

#include <array>
#include <cstdio>

#include "corvosetup/service.h"
#include "corvosetup/utils.h"
#include "foundation/cpus.h"
#include "foundation/guard.h"
#include "foundation/log_line.h"

namespace {

// A file of a device's queue; empty when it does not fit (no interface has such a name).
std::string queue_path(const std::string& ifname, const char* queue, const char* file) {
    std::array<char, 300> path{};
    const int length = std::snprintf(path.data(), path.size(), "/sys/class/net/%s/queues/%s/%s",
                                     ifname.c_str(), queue, file);
    return length >= 0 && static_cast<std::size_t>(length) < path.size() ? path.data() : std::string();
}

void steer(const std::string& ifname, const std::string& queue, const char* file, const std::string& mask) {
    const std::string path = queue_path(ifname, queue.c_str(), file);
    if (!path.empty()) write_value(path, mask);
}

}  // namespace

int setup_cpus(std::string ifname) {
    return corvo::guarded([&]() -> int {
        corvo::log::ensure_file();
        const std::uint32_t mask = corvo::cpu_mask(get_nprocs());
        std::array<char, 16> hex{};
        std::snprintf(hex.data(), hex.size(), "%x", mask);

        std::vector<std::string> queues;
        list_dir(queue_path(ifname, "", ""), queues);
        corvo::log::debug("Setup CPU pinning: ", ifname, ", mask: ", mask);

        // The tuning service knows the device's interrupt lines and steers reception better than RPS does;
        // RPS is what is left without it. Its code is the result all the same.
        const int rc = vxh_set_port_cpu(ifname);
        for (const auto& queue : queues) {
            if (rc != 0 && queue.starts_with("rx-"))
                steer(ifname, queue, "rps_cpus", hex.data());
            else if (queue.starts_with("tx-"))
                steer(ifname, queue, "xps_cpus", hex.data());
        }
        return rc;
    });
}
