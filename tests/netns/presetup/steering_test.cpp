// Which queues of which interfaces are spread over the processors, and by whom.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "corvosetup/presetup.h"
#include "corvosetup/utils.h"
#include "kernel_files.h"
#include "processors.h"
#include "support/net.h"
#include "support/sandbox.h"
#include "support/services.h"

namespace corvo::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::Not;

class PresetupRpsXps : public testing::Test {
protected:
    ~PresetupRpsXps() override { told_processors = 0; }
};

TEST_F(PresetupRpsXps, OneProcessorIsDoneAtOnce) {
    told_processors = 1;
    const Replaced classes("/sys/class");  // would fail if it were looked at
    EXPECT_EQ(presetup_rps_xps(), 0);
    EXPECT_THAT(log_texts(), ElementsAre("[DEBUG] INIT Enter presetup.cpp::243::presetup_rps_xps",
                                         "[DEBUG] Exit presetup.cpp::270::presetup_rps_xps: 0"));
}

TEST_F(PresetupRpsXps, FailedListingGivesItsCode) {
    told_processors = 2;
    const Replaced classes("/sys/class");
    EXPECT_EQ(presetup_rps_xps(), -3014);
    EXPECT_THAT(log_texts(), ElementsAre("[DEBUG] INIT Enter presetup.cpp::243::presetup_rps_xps",
                                         "[DEBUG] Exit presetup.cpp::270::presetup_rps_xps: -3014"));
}

TEST_F(PresetupRpsXps, PinsByPrefixOfTheNameOnly) {
    told_processors = 2;
    Services services;
    ip_batch({"link add eth0.100 type veth peer name lan0", "link add swdev1 type veth peer name xeth0",
              "link add enp1s0 type veth peer name wan-eth0"});
    EXPECT_EQ(presetup_rps_xps(), 0);
    std::vector<std::string> asked;
    for (const auto& call : services.calls("Corvo_CPU_tune.Setup_CPU"))
        asked.push_back(call.request["ifname"].asString());
    EXPECT_THAT(asked, testing::UnorderedElementsAre("eth0.100", "swdev1", "enp1s0"));
    const auto texts = log_texts();
    EXPECT_EQ(texts[1], "[DEBUG] CPU num: 2");
    for (const char* name : {"eth0.100", "swdev1", "enp1s0"}) {
        EXPECT_THAT(texts, Contains(std::string("[DEBUG] Setup CPU pinning: ") + name));
        EXPECT_THAT(texts, Contains(std::string("[DEBUG] Setup CPU pinning: ") + name + ", mask: 3"));
    }
    EXPECT_THAT(texts, Not(Contains("[DEBUG] Setup CPU pinning: lan0")));
}

TEST_F(PresetupRpsXps, WithoutTheTuningServiceQueuesAreSteeredAndTheResultIsAFailure) {
    told_processors = 2;
    add_veth("eth9", "peer9", {.queues = 2});
    EXPECT_EQ(presetup_rps_xps(), -3001);
    EXPECT_THAT(log_texts(),
                ElementsAre("[DEBUG] INIT Enter presetup.cpp::243::presetup_rps_xps", "[DEBUG] CPU num: 2",
                            "[DEBUG] Setup CPU pinning: eth9", "[DEBUG] Setup CPU pinning: eth9, mask: 3",
                            "[ERROR] eth9 setup_cpus failed.",
                            "[DEBUG] Exit presetup.cpp::270::presetup_rps_xps: -3001"));
    EXPECT_EQ(value_of("/sys/class/net/eth9/queues/rx-0/rps_cpus").back(), '3');
    EXPECT_EQ(value_of("/sys/class/net/eth9/queues/tx-1/xps_cpus").back(), '3');
}

// Queues of the test's own, so that the text that was written can be seen.
class SetupCpus : public PresetupRpsXps {
protected:
    SetupCpus() : classes_("/sys/class/net") {
        for (const char* queue : {"rx-0", "tx-0", "tx-1", "other"})
            for (const char* file : {"rps_cpus", "xps_cpus"})
                write_file(std::string("/sys/class/net/eth9/queues/") + queue + "/" + file, "old");
    }
    static std::string queue(const std::string& file) {
        return read_file("/sys/class/net/eth9/queues/" + file);
    }

    Replaced classes_;
};

TEST_F(SetupCpus, ServiceAnswersReceptionIsItsAndTransmissionOurs) {
    told_processors = 12;
    Services services;
    EXPECT_EQ(setup_cpus("eth9"), 0);
    EXPECT_EQ(queue("rx-0/rps_cpus"), "old");
    EXPECT_EQ(queue("tx-0/xps_cpus"), "fff");
    EXPECT_EQ(queue("tx-1/xps_cpus"), "fff");
    EXPECT_EQ(queue("tx-0/rps_cpus"), "old");
    EXPECT_EQ(queue("other/xps_cpus"), "old");
    EXPECT_EQ(log_texts().front(), "[DEBUG] Setup CPU pinning: eth9, mask: 4095");
}

TEST_F(SetupCpus, ServiceIsMissingReceptionIsSteeredTooAndItsCodeIsReturned) {
    told_processors = 12;
    EXPECT_EQ(setup_cpus("eth9"), -3023);
    EXPECT_EQ(queue("rx-0/rps_cpus"), "fff");
    EXPECT_EQ(queue("rx-0/xps_cpus"), "old");
    EXPECT_EQ(queue("tx-1/xps_cpus"), "fff");
    EXPECT_EQ(queue("other/rps_cpus"), "old");
}

TEST_F(SetupCpus, ThirtyTwoProcessorsGiveMaskZero) {
    told_processors = 32;
    EXPECT_EQ(setup_cpus("eth9"), -3023);
    EXPECT_EQ(queue("rx-0/rps_cpus"), "0");
    EXPECT_EQ(queue("tx-0/xps_cpus"), "0");
    EXPECT_EQ(log_texts().front(), "[DEBUG] Setup CPU pinning: eth9, mask: 0");
}

}  // namespace
}  // namespace corvo::test
