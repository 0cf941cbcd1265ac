// One neighbour entry, asked for by itself and, of a kernel that cannot be asked so, out of a dump.
//
// The executable's own recvmsg() hides that the kernel answers the single request while OldKernel lives.
#include "netlink/neigh_query.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "support/no_descriptors.h"
#include "support/sandbox.h"

namespace {

thread_local int refusal = 0;   // what a single request is answered with, 0: as the kernel does
thread_local int refusals = 0;  // how many were

}  // namespace

extern "C" ssize_t recvmsg(int fd, msghdr* message, int flags) {
    static const auto real = reinterpret_cast<decltype(&::recvmsg)>(dlsym(RTLD_NEXT, "recvmsg"));
    const ssize_t got = real(fd, message, flags);
    if (refusal == 0 || got < static_cast<ssize_t>(sizeof(nlmsghdr))) return got;
    auto* head = static_cast<nlmsghdr*>(message->msg_iov[0].iov_base);
    const bool single = (head->nlmsg_flags & NLM_F_MULTI) == 0;
    if (!single || (head->nlmsg_type != RTM_NEWNEIGH && head->nlmsg_type != NLMSG_ERROR)) return got;
    ++refusals;
    nlmsgerr error{};
    error.error = -refusal;
    head->nlmsg_type = NLMSG_ERROR;
    head->nlmsg_flags = 0;
    head->nlmsg_len = NLMSG_LENGTH(sizeof error);
    std::memcpy(NLMSG_DATA(head), &error, sizeof error);
    return head->nlmsg_len;
}

namespace corvo::test {
namespace {

class OldKernel {
public:
    explicit OldKernel(int error = EOPNOTSUPP) {
        refusal = error;
        refusals = 0;
    }
    ~OldKernel() { refusal = 0; }
    OldKernel(const OldKernel&) = delete;
    OldKernel& operator=(const OldKernel&) = delete;
};

class NeighbourQuery : public testing::Test {
protected:
    NeighbourQuery() {
        add_veth("eth1", "gw1", {.address = "192.0.2.2/24"});
        add_veth("eth2", "gw2", {.address = "198.51.100.2/24"});
        ip_batch({"neigh add 192.0.2.1 lladdr 02:00:00:00:00:0a nud permanent dev eth1",
                  "neigh add 192.0.2.9 lladdr 02:00:00:00:00:0b nud stale dev eth1",
                  "neigh add 198.51.100.1 lladdr 02:00:00:00:00:0c nud noarp dev eth2"});
    }

    static int find(const char* dev, const char* address, Neighbour& out) {
        in_addr wanted{};
        inet_pton(AF_INET, address, &wanted);
        return find_neighbour(static_cast<int>(if_nametoindex(dev)), wanted, out);
    }
    static void expect_the_entries() {
        Neighbour entry;
        ASSERT_EQ(find("eth1", "192.0.2.1", entry), 1);
        EXPECT_EQ(entry.state, NUD_PERMANENT);
        EXPECT_EQ(entry.dst, "192.0.2.1");
        EXPECT_EQ(entry.lladdr, "02:00:00:00:00:0a");
        ASSERT_EQ(find("eth1", "192.0.2.9", entry), 1);
        EXPECT_EQ(entry.state, NUD_STALE);
        EXPECT_EQ(entry.lladdr, "02:00:00:00:00:0b");
        EXPECT_EQ(find("eth1", "192.0.2.77", entry), 0) << "nobody has asked for it";
        EXPECT_EQ(find("eth1", "198.51.100.1", entry), 0) << "another interface's";
        EXPECT_EQ(find("eth2", "198.51.100.1", entry), 1);
    }
};

TEST_F(NeighbourQuery, FindsTheEntryOfOneInterfaceAndAddress) {
    expect_the_entries();
}

TEST_F(NeighbourQuery, KernelThatOnlyDumpsGivesTheSame) {
    const OldKernel old;
    expect_the_entries();
    EXPECT_EQ(refusals, 5);
}

TEST_F(NeighbourQuery, DumpOfManyEntriesIsReadToItsEnd) {
    std::vector<std::string> lines;
    for (int n = 0; n < 3000; ++n)
        lines.push_back("neigh add 10.0." + std::to_string(n / 250) + "." + std::to_string(n % 250 + 1) +
                        " lladdr 02:00:00:00:00:01 nud permanent dev eth1");
    ip_batch(lines);
    const OldKernel old;
    Neighbour entry;
    EXPECT_EQ(find("eth1", "10.0.0.1", entry), 1);
    EXPECT_EQ(find("eth1", "10.0.11.250", entry), 1);
    EXPECT_EQ(entry.dst, "10.0.11.250");
    EXPECT_EQ(find("eth1", "10.0.12.1", entry), 0);
}

TEST_F(NeighbourQuery, InterfaceThatIsGoneHasNoEntry) {
    Neighbour entry;
    in_addr address{};
    inet_pton(AF_INET, "192.0.2.1", &address);
    EXPECT_EQ(find_neighbour(9999, address, entry), 0);
}

TEST_F(NeighbourQuery, OtherRefusalsAreFailures) {
    const OldKernel old(EPERM);
    Neighbour entry;
    EXPECT_EQ(find("eth1", "192.0.2.1", entry), -3011);
    EXPECT_EQ(refusals, 1);
}

TEST_F(NeighbourQuery, WithoutADescriptorFails) {
    const auto index = static_cast<int>(if_nametoindex("eth1"));
    const NoDescriptors none;
    Neighbour entry;
    EXPECT_EQ(find_neighbour(index, in_addr{htonl(0xC0000201)}, entry), -3009);
}

TEST_F(NeighbourQuery, LeavesNothingOpen) {
    Neighbour entry;
    find("eth1", "192.0.2.1", entry);
    LeakCheck leaks;
    const OldKernel old;
    for (int n = 0; n < 20; ++n) find("eth1", "192.0.2.1", entry);
}

}  // namespace
}  // namespace corvo::test
