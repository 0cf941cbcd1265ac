// What becomes of requests that do not reach the kernel, answers that do not come or come damaged, and lists
// that change while they are read.
//
// This executable brings its own send() and recvmsg(); both pass through but for what a test asks of them.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <functional>
#include <string>

#include "corvosetup/link.h"
#include "corvosetup/routing.h"
#include "corvosetup/tc.h"
#include "foundation/text.h"
#include "netlink/raw_socket.h"
#include "netlink/route_session.h"
#include "support/leak_check.h"

namespace {

// errno for the next send(), 0: it goes through.
thread_local int send_fails = 0;
// Dump requests that went out.
thread_local int dumps = 0;
// Does to a received datagram what a test wants, and may answer instead of it.
thread_local std::function<ssize_t(msghdr&, ssize_t got)> on_receive;

template <class Function>
Function real(const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

ssize_t send(int fd, const void* data, size_t size, int flags) {
    if (send_fails != 0) return errno = send_fails, -1;
    nlmsghdr head{};
    if (size >= sizeof head) std::memcpy(&head, data, sizeof head);
    if ((head.nlmsg_flags & NLM_F_DUMP) == NLM_F_DUMP) ++dumps;
    return real<ssize_t (*)(int, const void*, size_t, int)>("send")(fd, data, size, flags);
}

ssize_t recvmsg(int fd, msghdr* message, int flags) {
    const ssize_t got = real<ssize_t (*)(int, msghdr*, int)>("recvmsg")(fd, message, flags);
    return on_receive && got >= 0 ? on_receive(*message, got) : got;
}

}  // extern "C"

namespace {

using corvo::nl::Answer;
using corvo::nl::kDumpAttempts;
using corvo::nl::MessageView;
using corvo::nl::MessageWriter;
using corvo::nl::RawSocket;

// Calls `change` for the header of every message in the datagram.
void each_header(msghdr& datagram, ssize_t got, const std::function<void(nlmsghdr&)>& change) {
    auto* at = static_cast<char*>(datagram.msg_iov->iov_base);
    for (ssize_t left = got; left >= static_cast<ssize_t>(sizeof(nlmsghdr));) {
        nlmsghdr head{};
        std::memcpy(&head, at, sizeof head);
        change(head);
        std::memcpy(at, &head, sizeof head);
        const auto step = static_cast<ssize_t>(NLMSG_ALIGN(head.nlmsg_len));
        if (step <= 0) return;
        at += step;
        left -= step;
    }
}

ssize_t no_answer(msghdr&, ssize_t) {
    return errno = EAGAIN, -1;
}
ssize_t cut_off(msghdr& datagram, ssize_t got) {
    datagram.msg_flags |= MSG_TRUNC;
    return got;
}

template <class Conf>
Conf named(const char* name) {
    Conf conf{};
    corvo::copy_text(conf.name, name);
    return conf;
}

int route(int op) {
    route_conf record{};
    record.table = 1000;
    record.priority = 7;
    corvo::copy_text(record.dst, "10.1.0.0/16");
    return edit_route(op, &record);
}
int flush_of_one_key() {
    return route(2);
}
int unkeyed_flush() {
    route_conf record{};
    record.table = 1000;
    return edit_route(2, &record);
}
template <class Record, int (*edit)(int, Record*)>
int rule(int op) {
    Record record{};
    record.prio = 77;
    record.table = 77;
    return edit(op, &record);
}

struct Case {
    const char* name;
    std::function<int()> call;
    int unsent;
    int unanswered;
};

// Nothing here changes anything, whoever runs it: what is deleted is not there.
const Case kCases[] = {
    {"edit_ipip_tunnel",
     [] {
         auto conf = named<ipip_conf>("tun5");
         return edit_ipip_tunnel(1, &conf);
     },
     -3012, -3013},
    {"edit_sit_tunnel",
     [] {
         auto conf = named<sit_conf>("sit5");
         return edit_sit_tunnel(1, &conf);
     },
     -3012, -3013},
    {"edit_dummy", [] { return edit_dummy(1, "no-such-dummy", 0); }, -3011, -3011},
    {"get_dev_flags",
     [] {
         unsigned flags = 0;
         return get_dev_flags(1, &flags);
     },
     -3011, -3011},
    {"set_dev_flags", [] { return set_dev_flags(999999, 1); }, -3011, -3011},
    {"unset_dev_flags", [] { return unset_dev_flags(999999, 1); }, -3011, -3011},
    {"set_ipv4_addr", [] { return set_ipv4_addr(999999, "192.0.2.1/24"); }, -3011, -3011},
    {"set_ipv6_addr", [] { return set_ipv6_addr(999999, "fd00::1/64"); }, -3011, -3011},
    {"get_ipv4_addr",
     [] {
         char text[64];
         return get_ipv4_addr(1, text);
     },
     -3010, -3010},
    {"flush_ipv4_addr", [] { return flush_ipv4_addr(999999); }, -3010, -3010},
    {"edit_route delete", [] { return route(1); }, -3012, -3013},
    {"edit_route print", [] { return route(3); }, -3010, -3010},
    {"edit_route flush of one key", flush_of_one_key, -3010, -3010},
    {"edit_route flush of a table", unkeyed_flush, -3010, -3010},
    {"edit_rule delete", [] { return rule<rule_conf, edit_rule>(1); }, -3011, -3011},
    {"edit_rule flush", [] { return rule<rule_conf, edit_rule>(2); }, -3010, -3010},
    {"edit_rule print", [] { return rule<rule_conf, edit_rule>(3); }, -3010, -3010},
    {"edit_rule6 delete", [] { return rule<rule6_conf, edit_rule6>(1); }, -3011, -3011},
    {"edit_rule6 flush", [] { return rule<rule6_conf, edit_rule6>(2); }, -3010, -3010},
    {"setup_qdisc", [] { return setup_qdisc("lo", "7:", "8:", "nosuchkind", nullptr); }, -3011, -3011},
};

class Exchange : public testing::Test {
protected:
    ~Exchange() override {
        send_fails = 0;
        on_receive = nullptr;
    }
    corvo::test::LeakCheck leaks_;
};

TEST_F(Exchange, RequestThatCannotBeSentHasItsCode) {
    for (const Case& each : kCases) {
        send_fails = ENOBUFS;
        EXPECT_EQ(each.call(), each.unsent) << each.name;
    }
}

TEST_F(Exchange, AnswerThatDoesNotComeHasItsCode) {
    on_receive = no_answer;
    for (const Case& each : kCases) EXPECT_EQ(each.call(), each.unanswered) << each.name;
}

TEST_F(Exchange, AnswerThatIsCutOffIsNone) {
    on_receive = cut_off;
    for (const Case& each : kCases) EXPECT_EQ(each.call(), each.unanswered) << each.name;
}

TEST_F(Exchange, StatusListIsEmptyWithoutAnswers) {
    for (const auto& fault : {no_answer, cut_off}) {
        on_receive = fault;
        tqs_link* head = get_tx_queue_status("lo");
        ASSERT_NE(head, nullptr);
        EXPECT_EQ(head->next, head);
        EXPECT_EQ(head->prev, head);
        free_tqs_head(head);
    }
}

TEST_F(Exchange, FouIgnoresWhatGoesWrong) {
    for (const int op : {0, 1, 2}) {
        for (const auto& fault : {no_answer, cut_off}) {
            on_receive = fault;
            EXPECT_EQ(edit_fou(op), 0);
        }
        on_receive = nullptr;
        send_fails = EPERM;
        EXPECT_EQ(edit_fou(op), 0);
        send_fails = 0;
    }
}

TEST_F(Exchange, OnlyTheKernelsOwnAnswerCounts) {
    int received = 0;
    unsigned flags = 0;
    // An answer by another process, then one to an older request: the next one counts.
    on_receive = [&](msghdr& datagram, ssize_t got) -> ssize_t {
        if (++received == 1) static_cast<sockaddr_nl*>(datagram.msg_name)->nl_pid = 4711;
        return got;
    };
    std::unique_ptr<RawSocket> socket;
    ASSERT_EQ(RawSocket::open_as_result(socket), 0);
    const timeval soon{0, 100000};
    ASSERT_EQ(setsockopt(socket->fd(), SOL_SOCKET, SO_RCVTIMEO, &soon, sizeof soon), 0);
    MessageWriter request;
    const auto ask = [&] {
        request.clear();
        request.begin(RTM_GETLINK, NLM_F_REQUEST);
        request.header(ifinfomsg{}).ifi_index = 1;
        request.end();
        return socket->query(request, [&](const MessageView& answer) {
            ifinfomsg link{};
            if (answer.read_header(link)) flags = link.ifi_flags;
        });
    };
    EXPECT_EQ(ask().outcome, Answer::Outcome::kReceiveFailed);
    EXPECT_EQ(flags, 0U);
    received = 1;
    on_receive = [&](msghdr& datagram, ssize_t got) -> ssize_t {
        if (++received == 2) each_header(datagram, got, [](nlmsghdr& head) { head.nlmsg_seq -= 1; });
        return got;
    };
    EXPECT_EQ(ask().outcome, Answer::Outcome::kReceiveFailed);
    EXPECT_EQ(flags, 0U);
    EXPECT_TRUE(ask().done());
    EXPECT_NE(flags, 0U);
}

// Marks the answers of the first `count` dumps as the kernel does when its objects change meanwhile.
void interrupt_dumps(int count) {
    dumps = 0;
    on_receive = [count](msghdr& datagram, ssize_t got) {
        if (dumps <= count) {
            each_header(datagram, got, [](nlmsghdr& head) { head.nlmsg_flags |= NLM_F_DUMP_INTR; });
        }
        return got;
    };
}

TEST_F(Exchange, InterruptedListIsReadAgain) {
    char address[64] = "";
    interrupt_dumps(0);
    const int undisturbed = get_ipv4_addr(1, address);
    EXPECT_EQ(dumps, 1);
    const std::string wanted = address;
    interrupt_dumps(3);
    EXPECT_EQ(get_ipv4_addr(1, address), undisturbed);
    EXPECT_EQ(dumps, 4);
    EXPECT_EQ(address, wanted);
}

// What an interrupted attempt gave is forgotten: nothing is listed twice.
TEST_F(Exchange, InterruptedStatusHasEveryQueueOnce) {
    const auto count = [] {
        tqs_link* head = get_tx_queue_status("lo");
        int found = 0;
        for (tqs_link* link = head->next; link != head; link = link->next) ++found;
        free_tqs_head(head);
        return found;
    };
    interrupt_dumps(0);
    const int undisturbed = count();
    EXPECT_EQ(dumps, 2);  // qdiscs, classes
    interrupt_dumps(5);
    EXPECT_EQ(count(), undisturbed);
    EXPECT_EQ(dumps, 7);
}

TEST_F(Exchange, InterruptedPrintHasEveryLineOnce) {
    const auto printed = [](auto&& call) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(call(), 0);
        return testing::internal::GetCapturedStdout();
    };
    const auto rules = [] {
        rule_conf all{};
        return edit_rule(3, &all);
    };
    const auto routes = [] {
        route_conf all{};
        all.table = RT_TABLE_LOCAL;
        return edit_route(3, &all);
    };
    interrupt_dumps(0);
    const std::string some_rules = printed(rules);
    const std::string some_routes = printed(routes);
    EXPECT_NE(some_rules, "");
    interrupt_dumps(1);
    EXPECT_EQ(printed(rules), some_rules);
    EXPECT_EQ(dumps, 2);
    interrupt_dumps(1);
    EXPECT_EQ(printed(routes), some_routes);
    EXPECT_EQ(dumps, 2);
}

// Somebody who never stops changing things cannot hold us up for ever; the last list counts as it is.
TEST_F(Exchange, RepeatsOfAnInterruptedListAreBounded) {
    char address[64] = "";
    interrupt_dumps(0);
    const int undisturbed = get_ipv4_addr(1, address);
    const std::string wanted = address;
    interrupt_dumps(1000);
    EXPECT_EQ(get_ipv4_addr(1, address), undisturbed);
    EXPECT_EQ(address, wanted);
    EXPECT_EQ(dumps, kDumpAttempts);
}

}  // namespace
