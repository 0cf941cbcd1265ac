// The records' layout, and the functions that need no kernel.

#include <gtest/gtest.h>

#include <cstddef>

#include "corvosetup/lan_qos.h"
#include "corvosetup/qos.h"
#include "corvosetup/tc.h"

namespace {

static_assert(sizeof(tc_options) == 16);
static_assert(sizeof(U32QoSObj) == 44);
static_assert(offsetof(U32QoSObj, smac) == 4);
static_assert(offsetof(U32QoSObj, dmac) == 10);
static_assert(offsetof(U32QoSObj, protocol) == 16);
static_assert(offsetof(U32QoSObj, saddr) == 20);
static_assert(offsetof(U32QoSObj, dport) == 40);
static_assert(sizeof(tqs_entry) == 88);
static_assert(offsetof(tqs_entry, ceil) == 32);
static_assert(offsetof(tqs_entry, htb_rate) == 56);
static_assert(offsetof(tqs_entry, utilisation) == 64);
static_assert(offsetof(tqs_entry, links) == 72);
static_assert(sizeof(linerate) == 16);
static_assert(sizeof(QoSObj) == 16);
static_assert(sizeof(ProcQoS) == 152);
static_assert(sizeof(LanQosCls) == 16);
static_assert(sizeof(ProcLanQoS) == 120);

TEST(TxQueueStatus, NoDeviceTextIsNone) {
    EXPECT_EQ(get_tx_queue_status(nullptr), nullptr);
    EXPECT_EQ(get_tx_queue_status(""), nullptr);
}

TEST(TxQueueStatus, FreeingANullListIsAllowed) {
    free_tqs_head(nullptr);
}

}  // namespace
