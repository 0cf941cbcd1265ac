#include "shaping.h"

#include "corvosetup/lan_qos.h"
#include "corvosetup/qos.h"

namespace corvo::test {

std::vector<std::string> messages() {
    std::vector<std::string> kept;
    for (const LogLine& line : log_lines()) {
        const std::string& text = line.message;
        if (text.starts_with("Enter ") || text.starts_with("Exit ") ||
            text.starts_with("Load config from ") || text.starts_with("vx_call ") ||
            text.starts_with("Reopen "))
            continue;
        kept.push_back(line.text());
    }
    return kept;
}

std::vector<std::string> errors() {
    std::vector<std::string> kept;
    for (const std::string& line : messages()) {
        if (line.starts_with("[ERROR] ")) kept.push_back(line.substr(8));
    }
    return kept;
}

void write_wan(const std::string& rx_rate, const std::string& tx_rate, const std::string& name) {
    write_document("device_info.json", R"({"WAN_IFACE_INFO":{")" + name + R"(":{"ID":"1","RX_RATE":")" +
                                           rx_rate + R"(","TX_RATE":")" + tx_rate + R"("}}})");
}

void write_rates(const std::string& rate_array) {
    write_document("qos.json", R"({"QOS":{"RATE":)" + rate_array + "}}");
}

std::string classes(const std::string& device) {
    return must_run("tc -d class show dev " + device);
}
std::string qdiscs(const std::string& device) {
    return must_run("tc qdisc show dev " + device);
}
std::string filters(const std::string& words) {
    return must_run("tc filter show dev " + words);
}

int shape(int op, std::string dev, std::string path, bool tun) {
    return setup_qos(op, dev, path, tun);
}
int shape_lan(int op, std::string dev, std::string conf, std::string dev_conf) {
    return setup_lan_qos(op, dev, conf, dev_conf);
}

}  // namespace corvo::test
