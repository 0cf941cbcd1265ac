// The probe of point-to-point links without a network.

#include "corvosetup/ping.h"

#include <gmock/gmock.h>

#include <cstring>

#include "own_log.h"
#include "refusing_output.h"
#include "support/layout.h"

namespace corvo::test {
namespace {

using testing::ElementsAre;
using testing::UnorderedElementsAre;

class PingProbe : public OwnLog {};

TEST_F(PingProbe, SavesTheWholeDocument) {
    ProcPing probe("ppp-eth1", "192.0.2.1", 1000, true, 200);
    EXPECT_TRUE(probe.get_state().isNull());
    EXPECT_EQ(probe.save_state(), 0);
    const Json::Value state = probe.get_state();
    EXPECT_THAT(state.getMemberNames(), ElementsAre("ppp-eth1"));
    const Json::Value& report = state["ppp-eth1"];
    EXPECT_THAT(report.getMemberNames(), UnorderedElementsAre("stat", "ip", "target_ip", "vlan", "id"));
    EXPECT_EQ(report["stat"], Json::Value(0));
    EXPECT_EQ(report["ip"], Json::Value(""));
    EXPECT_EQ(report["target_ip"], Json::Value("192.0.2.1"));
    EXPECT_EQ(report["vlan"], Json::Value(0));
    EXPECT_EQ(report["vlan"].type(), Json::intValue);
    EXPECT_EQ(report["id"], Json::Value(200u));
}

TEST_F(PingProbe, VlanIsZeroEvenForAVlanDevice) {
    ProcPing probe("ppp-eth0.100", "192.0.2.1", 1, true, 1);
    probe.save_state();
    EXPECT_EQ(probe.get_state()["ppp-eth0.100"]["vlan"], Json::Value(0));
}

TEST_F(PingProbe, SlaveLosesPrefixAndVlanSuffix) {
    constexpr std::size_t kSlave = 48;
    const auto slave = [](const char* dev) {
        const ProcPing probe(dev, "192.0.2.1", 1, true, 1);
        return field<std::string>(&probe, kSlave);
    };
    EXPECT_EQ(slave("ppp-eth0.100"), "eth0");
    EXPECT_EQ(slave("ds-lte"), "lte");
    EXPECT_EQ(slave("vds-1"), "-1");
    EXPECT_EQ(slave("me-.5"), "");
    EXPECT_EQ(slave("eth0.5"), "eth0") << "created by itself, it takes any name";
}

TEST_F(PingProbe, RefusesAWrongTarget) {
    int code = 0;
    try {
        ProcPing probe("ds-lte", "1.2.3.4.5", 1, true, 1);
    } catch (int thrown) {
        code = thrown;
    }
    EXPECT_EQ(code, -3007);
    EXPECT_THAT(texts(), ElementsAre("[ERROR] ds-lte has wrong target ip."));
}

TEST_F(PingProbe, NeedsNoDevice) {
    EXPECT_NO_THROW(ProcPing("ppp-nosuchdev", "192.0.2.1", 1, true, 1));
}

TEST_F(PingProbe, PrepareTakesOverTheAddress) {
    ProcPing probe("lo", "192.0.2.1", 1, true, 1);
    EXPECT_EQ(probe.prepare(), 0);
    probe.save_state();
    EXPECT_EQ(probe.get_state()["lo"]["ip"].asString().substr(0, 4), "127.");
}

TEST_F(PingProbe, PrepareOfAMissingDeviceFindsNothing) {
    ProcPing probe("ppp-none", "192.0.2.1", 1, true, 1);
    EXPECT_EQ(probe.prepare(), 0);
    probe.save_state();
    EXPECT_EQ(probe.get_state()["ppp-none"]["ip"], Json::Value(""));
}

TEST_F(PingProbe, ShowsTheDocumentOnOneLine) {
    ProcPing probe("me-x", "192.0.2.1", 1, true, 1);
    probe.save_state();
    testing::internal::CaptureStdout();
    EXPECT_EQ(probe.show(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "{\"me-x\":{\"id\":1,\"ip\":\"\",\"stat\":0,\"target_ip\":\"192.0.2.1\",\"vlan\":0}}\n");
}

TEST_F(PingProbe, ShowsNullBeforeTheFirstReport) {
    ProcPing probe("me-x", "192.0.2.1", 1, true, 1);
    testing::internal::CaptureStdout();
    probe.show();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "null\n");
}

TEST_F(PingProbe, SaysWhyItCannotShow) {
    ProcPing probe("me-x", "192.0.2.1", 1, true, 1);
    const RefusingOutput output;
    EXPECT_EQ(probe.show(), 0);
    EXPECT_EQ(output.text(), "Parse Ping status failed, no paper\n");
}

TEST_F(PingProbe, ChecksumIsTheInternetChecksum) {
    ProcPing probe("me-x", "192.0.2.1", 1, true, 1);
    // The example of RFC 1071: 0001 f203 f4f5 f6f7 sums to ddf2.
    const unsigned char example[] = {0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7};
    unsigned short words[4];
    std::memcpy(words, example, sizeof words);
    const unsigned short sum = probe.checksum(words, sizeof words);
    unsigned char bytes[2];
    std::memcpy(bytes, &sum, 2);
    EXPECT_EQ(bytes[0], 0x22);
    EXPECT_EQ(bytes[1], 0x0d);
}

TEST_F(PingProbe, ChecksumAddsAnOddLastByte) {
    ProcPing probe("me-x", "192.0.2.1", 1, true, 1);
    unsigned short words[2] = {0, 0};
    const unsigned char odd[3] = {0x12, 0x34, 0x56};
    std::memcpy(words, odd, sizeof odd);
    const unsigned short even_form = probe.checksum(words, 4);
    EXPECT_EQ(probe.checksum(words, 3), even_form) << "as if padded with a zero byte";
    EXPECT_EQ(probe.checksum(words, 0), 0xffff);
    EXPECT_EQ(probe.checksum(nullptr, 8), 0xffff);
}

}  // namespace
}  // namespace corvo::test
