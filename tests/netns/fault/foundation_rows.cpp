// Rows of the log, documents, service calls and utilities.
#include <net/if.h>
#include <unistd.h>

#include "corvosetup/cfg_file.h"
#include "corvosetup/log.h"
#include "corvosetup/service.h"
#include "corvosetup/utils.h"
#include "rows.h"
#include "support/recorder.h"

namespace corvo::test {

namespace {

using Infos = std::unordered_map<std::string, Json::Value>;

template <int (*function)(Json::Value&, std::string, int)>
int list() {
    const auto out = fault::spared_object<Json::Value>();
    return function(*out, text(kInfo), 1);
}
template <int (*function)(Infos&, std::string, int)>
int map() {
    Infos out;
    return function(out, text(kInfo), 1);
}

void add_log_and_documents(std::vector<Row>& rows) {
    rows.push_back(Row("_Z12get_cur_timeB5cxx11v", plain([] { return get_cur_time().size() >= 5 ? 0 : 1; })));
    rows.push_back(Row("_Z15check_file_sizeNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE",
                       plain([] { return static_cast<int>(check_file_size(text(kLogFile)).size()); }))
                       .value());
    rows.push_back(Row("_Z15check_file_sizeNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE", plain([] {
                           // Every call rotates.
                           static_cast<void>(!::truncate(kLogFile, 100));
                           max_log_size = 10;
                           const std::string notice = check_file_size(text(kLogFile));
                           max_log_size = 5242880;
                           return notice.find("log rotate") != std::string::npos ? 1 : 0;
                       }))
                       .value()
                       .gives(1));
    rows.push_back(
        Row("_Z19reopen_setup_loggerNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE", plain([] {
                reopen_setup_logger(text(kLogFile));
                return 0;
            })));
    rows.push_back(Row("_Z8INIT_LOGPKc", plain([] { return INIT_LOG("x"), 0; })));
    rows.push_back(Row("_ZN7CfgFileC1ENSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE "
                       "_ZN7CfgFileC2ENSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE _ZN7CfgFileD1Ev "
                       "_ZN7CfgFileD2Ev "
                       "_ZN7CfgFile4goodEv _ZN7CfgFile12get_cfg_flagEv",
                       plain([] {
                           CfgFile file(text(kInfo));
                           return file.good() == (file.get_cfg_flag() != 0) && file.good() ? 1 : 0;
                       }))
                       .value()
                       .gives(1)
                       .logs());
    const auto with_file = [](auto member) {
        return [member](Machine&) {
            auto file = std::make_shared<CfgFile>(kInfo);
            return Call([file, member] { return member(*file); });
        };
    };
    rows.push_back(
        Row("_ZN7CfgFile12file_to_jsonEv", with_file([](CfgFile& file) { return file.file_to_json(); }))
            .logs());
    rows.push_back(
        Row("_ZN7CfgFile13vesta_to_jsonEv", with_file([](CfgFile& file) { return file.vesta_to_json(); }))
            .logs());
    rows.push_back(Row("_ZN7CfgFilersERN4Json5ValueE", with_file([](CfgFile& file) {
                           Json::Value out;
                           file >> out;
                           return out.isObject() ? 1 : 0;
                       }))
                       .value()
                       .gives(1));
}

void add_services(std::vector<Row>& rows) {
    rows.push_back(Row("_Z10pluvd_execi", plain([] { return pluvd_exec(3); })));
    rows.push_back(Row("_Z13get_device_idv", plain([] { return get_device_id(); })).value().gives(11).logs());
    rows.push_back(Row("_Z14get_local_mgmtv", plain([] { return get_local_mgmt() ? 1 : 0; })).value().logs());
    rows.push_back(Row("_Z16vxh_set_port_cpuNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE",
                       plain([] { return vxh_set_port_cpu(text("eth1")); })));
    rows.push_back(Row("_Z24vxh_post_ping_failed_logNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEl",
                       plain([] { return vxh_post_ping_failed_log(text("hub"), 7); })));
    rows.push_back(Row("_Z25vxh_update_nexthop_statushib",
                       plain([] { return vxh_update_nexthop_status(1, 0, false); })));
    rows.push_back(Row("_Z26vxh_update_next_active_hubNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE",
                       plain([] { return vxh_update_next_active_hub(text("21")); })));
    rows.push_back(Row(
        "_Z26vxh_get_available_wan_infoRN4Json5ValueENSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEi",
        plain(list<vxh_get_available_wan_info>)));
    rows.push_back(
        Row("_Z29vxh_get_available_rglink_infoRN4Json5ValueENSt7__cxx1112basic_stringIcSt11char_"
            "traitsIcESaIcEEEi",
            plain(list<vxh_get_available_rglink_info>)));
    rows.push_back(
        Row("_Z30vxh_get_available_private_infoRN4Json5ValueENSt7__cxx1112basic_stringIcSt11char_"
            "traitsIcESaIcEEEi",
            plain(list<vxh_get_available_private_info>)));
    const std::string map_type =
        "RSt13unordered_mapINSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEN4Json5ValueESt4hashIS5_"
        "ESt8equal_toIS5_ESaISt4pairIKS5_S7_EEES5_i";
    rows.push_back(Row("_Z22get_available_wan_info" + map_type, plain(map<get_available_wan_info>)));
    rows.push_back(Row("_Z25get_available_rglink_info" + map_type, plain(map<get_available_rglink_info>)));
    rows.push_back(Row("_Z26get_available_private_info" + map_type, plain(map<get_available_private_info>)));
}

void add_utilities(std::vector<Row>& rows) {
    const std::string s = "NSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE";
    rows.push_back(Row("_Z10read_value" + s + "RS4_", plain([] {
                           std::string value;
                           return read_value(text("/proc/sys/net/ipv4/ip_forward"), value);
                       })));
    rows.push_back(Row("_Z11write_value" + s + "S4_",
                       plain([] { return write_value(text("/proc/sys/net/ipv4/ip_forward"), text("1")); })));
    rows.push_back(Row("_Z11write_value" + s + "i",
                       plain([] { return write_value(text("/proc/sys/net/ipv4/ip_forward"), 1); })));
    rows.push_back(Row("_Z10setup_cpus" + s, plain([] { return setup_cpus(text("eth1")); })));
    const auto changed = [](const char* was, auto function) {
        return [was, function](Machine&) {
            auto value = std::make_shared<std::string>();
            return Call([value, was, function] {
                {
                    const fault::Spared here;
                    *value = was;
                }
                return function(*value);
            });
        };
    };
    rows.push_back(Row("_Z12network_addrRNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEj",
                       changed("10.1.2.3", [](std::string& ip) { return network_addr(ip, 24); })));
    rows.push_back(Row("_Z13gen_tun_addr4iiRNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE",
                       changed("", [](std::string& ip) { return gen_tun_addr4(1, 1, ip), 0; })));
    rows.push_back(Row("_Z15does_file_existRNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE",
                       changed(kInfo, [](std::string& path) { return does_file_exist(path) ? 1 : 0; }))
                       .value()
                       .gives(1));
    rows.push_back(Row("_Z20check_ip_correctnessRNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE",
                       changed("fe80::1", [](std::string& ip) { return check_ip_correctness(ip); })));
    rows.push_back(
        Row("_Z4execRNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE",
            changed("echo a; echo b",
                    [](std::string& command) { return static_cast<int>(exec(command) == "a\nb\n"); }))
            .value()
            .gives(1));
    rows.push_back(
        Row("_Z12str2uint32_t" + s, plain([] { return static_cast<int>(str2uint32_t(text("0.0.0.7"))); }))
            .value()
            .gives(7));
    rows.push_back(
        Row("_Z15prefix2uint32_t" + s, plain([] { return static_cast<int>(prefix2uint32_t(text("32"))); }))
            .value()
            .gives(-1));
    rows.push_back(Row("_Z17prefix_to_networkj", plain([] { return static_cast<int>(prefix_to_network(8)); }))
                       .value()
                       .gives(255));
    rows.push_back(Row("_Z13get_cpu_usagev", plain([] { return get_cpu_usage() >= 0 ? 0 : 1; })).value());
    rows.push_back(Row("_Z13get_mem_usagev", plain([] { return get_mem_usage() >= 0 ? 0 : 1; })).value());
    rows.push_back(Row("_Z16get_wan_port_numv",
                       [](Machine&) {
                           auto jq = std::make_shared<Recorder>("/bin/jq");
                           jq->prints("2\n");
                           return Call([jq] { return get_wan_port_num(); });
                       })
                       .value()
                       .gives(2));
    rows.push_back(Row("_Z22get_ipsec_intalled_numv",
                       [](Machine&) {
                           auto ipsec = std::make_shared<Recorder>("/sbin/ipsec");
                           ipsec->prints("a INSTALLED\nb\nc INSTALLED\n");
                           return Call([ipsec] { return get_ipsec_intalled_num(); });
                       })
                       .value()
                       .gives(2));
    rows.push_back(Row("_Z23conntrack_flush_wan_nat" + s, [](Machine&) {
        auto tool = std::make_shared<Recorder>("/usr/sbin/conntrack");
        return Call([tool] { return conntrack_flush_wan_nat(text("203.0.113.11")), 0; });
    }));
    rows.push_back(Row("_Z7str2mac" + s + "Pc", plain([] {
                           char mac[6];
                           return str2mac(text("02:00:00:00:00:01"), mac);
                       })));
    rows.push_back(Row("_Z8list_dir" + s + "RSt6vectorIS4_SaIS4_EE", plain([] {
                           std::vector<std::string> names;
                           return list_dir(text("/sys/class/net"), names);
                       })));
    rows.push_back(Row("exec_c", plain([] {
                           char line[512];
                           return exec_c("echo x", line);
                       })));
    rows.push_back(Row("get_ifindex", plain([] { return get_ifindex("lo"); })).value().gives(1));
    rows.push_back(Row("get_ifname", plain([] {
                           char name[IF_NAMESIZE] = "";
                           return get_ifname(1, name) != nullptr ? 1 : 0;
                       }))
                       .value()
                       .gives(1));
}

}  // namespace

void add_foundation_rows(std::vector<Row>& rows) {
    add_log_and_documents(rows);
    add_services(rows);
    add_utilities(rows);
}

}  // namespace corvo::test
