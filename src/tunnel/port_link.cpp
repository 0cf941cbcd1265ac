#include "tunnel/port_link.h"

#include "corvosetup/utils.h"
#include "foundation/json.h"
#include "foundation/log_line.h"
#include "foundation/result.h"
#include "foundation/text.h"

namespace corvo::tunnel {

PortName read_port_name(const std::string& slave) {
    for (const std::string_view word : {"swdev", "eth"}) {
        if (slave.find(word) == std::string::npos) continue;
        const std::string number = slave.substr(word.size());
        return {text_to_int(number), "tun" + number};
    }
    return {};
}

int local_of_port(const std::string& slave, char (&local)[16]) {
    copy_text(local, "0.0.0.0");
    const int index = get_ifindex(slave.c_str());
    if (index < 1) return kNoInterface;
    char text[64] = "";  // an address with its prefix length does not fit 16 bytes
    const int result = get_ipv4_addr(index, text);
    if (result != kOk) return result;
    const std::string_view address = array_text(text);
    copy_text(local, address.substr(0, address.find('/')));
    return kOk;
}

bool is_any_address(const char* local) {
    return std::string_view(local) == "0.0.0.0";
}

void fill_port_link(ipip_conf& conf, const char* dev, const char* local, const char* remote,
                    unsigned char ttl, unsigned short sport, unsigned short dport) {
    copy_text(conf.name, dev);
    copy_text(conf.local, local);
    copy_text(conf.remote, remote);
    copy_text(conf.addr, "");
    conf.queues = 0;
    conf.ttl = ttl;
    conf.sport = sport;
    conf.dport = dport;
    log::debug("[", dev, "] local: ", local, ", remote: ", remote, ", ip: ", local, ", ttl: ", ttl,
               ", sport: ", sport, ", dport: ", dport, ", queue: ", conf.queues);
}

}  // namespace corvo::tunnel
