// Any text as an address, prefix, hardware address, name, number or value file: no input gets past a check
// that would harm later, and every function keeps its contract.
#include <arpa/inet.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "corvosetup/log.h"
#include "corvosetup/utils.h"
#include "fake_vx.h"
#include "foundation/command.h"
#include "foundation/json.h"
#include "foundation/text.h"

namespace {

void must(bool holds) {
    if (!holds) std::abort();
}

void addresses(const std::string& text, unsigned number) {
    std::string ip = text;
    const int checked = check_ip_correctness(ip);
    must(checked == 0 || checked == -3004 || checked == -3007);
    must(ip == text);
    // What passes is harmless in a command line.
    if (checked == 0) must(text.find_first_not_of("0123456789abcdefABCDEF.:") == std::string::npos);
    const int masked = network_addr(ip, number);
    must(masked == 0 || ip == text);
    if (masked == 0) {
        std::string again = ip;
        must(network_addr(again, number) == 0 && again == ip);
        must((str2uint32_t(text) & ntohl(prefix_to_network(number))) == str2uint32_t(ip));
    }
    const std::uint32_t mask = prefix2uint32_t(text);
    must(mask != 0 && (~mask & (~mask + 1)) == 0);  // ones, then zeros
    std::string tunnel;
    gen_tun_addr4(static_cast<int>(number), static_cast<int>(number >> 7), tunnel);
    in_addr parsed{};
    must(inet_pton(AF_INET, tunnel.c_str(), &parsed) == 1);
    char mac[6];
    const int read = str2mac(text, mac);
    const char zero[6] = {};
    must(read == 0 || (read == -3004 && std::memcmp(mac, zero, 6) == 0));
}

void texts(const std::string& text) {
    for (const auto& word : corvo::split_words(text))
        must(!word.empty() && word.find(' ') == std::string::npos);
    char field[16];
    must(corvo::copy_text(field, text) == (text.size() < sizeof field));
    must(field[15] == '\0');
    Json::Value value;
    const std::string escaped = corvo::json_escape(text);
    for (const char c : escaped) must(static_cast<unsigned char>(c) >= 0x20);
    if (corvo::parse_json("[\"" + escaped + "\"]", value))
        must(value.size() == 1 && value[0].asString() == text);
    get_ifindex(text.c_str());
}

void value_file(const std::string& text) {
    static const int fd = ::memfd_create("value", MFD_CLOEXEC);
    static const std::string path = "/proc/self/fd/" + std::to_string(fd);
    must(write_value(path, text) == 0);
    std::string word = "old";
    must(read_value(path, word) == 0);
    must(!word.empty() && word.find_first_of(" \n\t\r\v\f") == std::string::npos);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    reopen_setup_logger("/dev/null");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    unsigned number = 0;
    if (size < 1) return 0;
    number = data[0] < 40 ? data[0] : data[0] * 0x01010101U;
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    addresses(text, number);
    texts(text);
    value_file(text);
    return 0;
}
