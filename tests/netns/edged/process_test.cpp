// The daemon as a process: what it tells the service manager, the privileges that it needs, and corvoctl's
// view of it.
#include <fcntl.h>
#include <linux/capability.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <sstream>

#include "foundation/json.h"
#include "netns/edged/edge.h"
#include "support/recorder.h"

using namespace corvo::test;
using namespace std::chrono_literals;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

class EdgedProcess : public EdgeTest {
protected:
    // The words that the shell offers after this beginning of a command.
    static std::vector<std::string> completions(const std::string& words) {
        const std::string script =
            "source " COMPLETION "; PATH=$(dirname " CORVOCTL "):$PATH; read -ra COMP_WORDS <<<'" + words +
            "'; [[ '" + words + "' != *' ' ]] || COMP_WORDS+=(''); " +
            "COMP_CWORD=$((${#COMP_WORDS[@]}-1)); _corvoctl; printf '%s\\n' \"${COMPREPLY[@]}\"";
        std::istringstream text(run_tool({"/bin/bash", "-c", script}).out);
        std::vector<std::string> out;
        for (std::string word; std::getline(text, word);) out.push_back(word);
        return out;
    }

    static Json::Value parsed(const std::string& text) {
        Json::Value value;
        EXPECT_TRUE(corvo::parse_json(text, value)) << text;
        return value;
    }
};

// The service manager's end of the notification socket.
class Manager {
public:
    Manager() : path_(scratch_dir() + "/notify"), fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
        EXPECT_EQ(::bind(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    const std::string& path() const { return path_; }

    // Waits for a message with this line in it; what came before is passed over.
    bool hears(const std::string& line, std::chrono::milliseconds limit = 20s) {
        return wait_until(
            [&] {
                pollfd end{fd_.get(), POLLIN, 0};
                char text[1024];
                while (::poll(&end, 1, 0) == 1) {
                    const ssize_t got = ::recv(fd_.get(), text, sizeof text, 0);
                    if (got < 0) return false;
                    const std::string message(text, static_cast<std::size_t>(got));
                    if (("\n" + message + "\n").find("\n" + line) != std::string::npos) return true;
                }
                return false;
            },
            limit);
    }

private:
    std::string path_;
    corvo::UniqueFd fd_;
};

TEST_F(EdgedProcess, TellsTheServiceManagerThatItIsReadyAndAlive) {
    Manager manager;
    Daemon daemon({.environment = {"NOTIFY_SOCKET=" + manager.path(), "WATCHDOG_USEC=3000000"}});
    ASSERT_TRUE(manager.hears("READY=1"));
    // Ready means that traffic has a way.
    EXPECT_FALSE(default_routes().empty());
    EXPECT_TRUE(manager.hears("WATCHDOG=1"));
    EXPECT_TRUE(manager.hears("WATCHDOG=1"));
    EXPECT_TRUE(manager.hears("STATUS=2 of 2 WAN links up"));
    daemon.signal(SIGHUP);
    EXPECT_TRUE(manager.hears("RELOADING=1"));
    EXPECT_TRUE(manager.hears("READY=1"));
    daemon.signal(SIGTERM);
    EXPECT_TRUE(manager.hears("STOPPING=1"));
    EXPECT_EQ(daemon.wait(), 0);
}

TEST_F(EdgedProcess, SaysWhyItIsNotUpYet) {
    services->kill();
    Manager manager;
    Daemon daemon({.environment = {"NOTIFY_SOCKET=" + manager.path()}});
    EXPECT_TRUE(manager.hears("STATUS=not brought up: the configuration service gives no device id"));
}

unsigned long long status_field(pid_t pid, const std::string& name) {
    const std::string text = read_file("/proc/" + std::to_string(pid) + "/status");
    const auto at = text.find("\n" + name + ":");
    return at == std::string::npos ? ~0ULL : std::strtoull(text.c_str() + at + name.size() + 2, nullptr, 16);
}

// The owner of /proc/sys and of the documents, without any power of root's but those over the network.
void keep_network_capabilities() {
    for (int cap = 0; cap <= 63; ++cap)
        if (cap != CAP_NET_ADMIN && cap != CAP_NET_RAW) ::prctl(PR_CAPBSET_DROP, cap, 0, 0, 0);
    ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
}

TEST_F(EdgedProcess, NeedsNoMoreThanTheNetworkCapabilities) {
    Json::Value failed_as_root;
    {
        Daemon daemon({.arguments = {"--clear-on-exit"}});
        ASSERT_TRUE(wait_for_links("up", "up"));
        failed_as_root = daemon_state()["failed_steps"];
        ASSERT_EQ(daemon.terminate(), 0);
        write_file("/proc/sys/net/ipv4/ip_forward", "0");
    }
    Daemon daemon({.before_exec = keep_network_capabilities});
    ASSERT_TRUE(wait_for_links("up", "up")) << corvo::compact_json(daemon_state());
    const unsigned long long both = 1ULL << CAP_NET_ADMIN | 1ULL << CAP_NET_RAW;
    for (const char* set : {"CapEff", "CapPrm", "CapBnd"})
        EXPECT_EQ(status_field(daemon.pid(), set), both) << set;
    EXPECT_THAT(default_routes(), ElementsAre("100 eth1*5 eth2*2"));
    EXPECT_EQ(condition("PORT1"), "1");
    // Whatever works as root works so, the writes below /proc/sys too.
    EXPECT_EQ(corvo::compact_json(daemon_state()["failed_steps"]), corvo::compact_json(failed_as_root));
    EXPECT_EQ(read_file("/proc/sys/net/ipv4/ip_forward"), "1\n");
    gateway(1, false);
    ASSERT_TRUE(wait_for_links("down", "up"));
    EXPECT_THAT(default_routes(), ElementsAre("100 eth2"));
    EXPECT_EQ(daemon.terminate(), 0);
}

TEST_F(EdgedProcess, SaysWhatItNeedsForDocumentsOfAnotherPlace) {
    Daemon daemon({.arguments = {"--documents", scratch_dir()}, .before_exec = keep_network_capabilities});
    EXPECT_EQ(daemon.wait(), 1);
    EXPECT_THAT(daemon.errors(), AllOf(HasSubstr("cannot lay"), HasSubstr("start it as root")));
}

unsigned mode_of(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? info.st_mode & 07777U : 0;
}

TEST_F(EdgedProcess, KeepsItsFilesFromOthersWhateverTheUmask) {
    const std::string log = scratch_dir() + "/edged.log";
    Daemon daemon({.arguments = {"--log-file", log}, .before_exec = [] { ::umask(0); }});
    ASSERT_TRUE(wait_for_links("up", "up"));
    EXPECT_EQ(mode_of(services->runtime_dir() + "/corvo.sock"), 0660U);
    EXPECT_EQ(mode_of(Daemon::state_dir()), 0755U);
    for (const std::string& file :
         {Daemon::state_dir() + "/applied.json", Daemon::state_dir() + "/lock", log})
        EXPECT_EQ(mode_of(file), 0644U) << file;
}

TEST_F(EdgedProcess, EndsWithinItsTimeThoughAToolHangsInTheBringUp) {
    Recorder modprobe("/sbin/modprobe");
    modprobe.always().hangs();
    Daemon daemon({.arguments = {"--stop-limit", "1"}});
    ASSERT_TRUE(modprobe.wait_for_calls(1, 40s));
    EXPECT_EQ(daemon.terminate(), 1);
    EXPECT_THAT(daemon.errors(), HasSubstr("did not end within 1 s"));
}

TEST_F(EdgedProcess, IsMissedByCorvoctlWithCauseAndAdvice) {
    for (const char* verb : {"status", "links", "reload", "watch"}) {
        const ToolResult result = corvoctl({verb});
        EXPECT_EQ(result.status, 1) << verb;
        EXPECT_THAT(result.err,
                    AllOf(HasSubstr("corvo-edged does not answer"), HasSubstr("systemctl status")))
            << verb;
        EXPECT_EQ(result.out, "") << verb;
        const ToolResult json = corvoctl({"-j", verb});
        EXPECT_EQ(json.status, 1) << verb;
        const Json::Value report = parsed(json.out);
        EXPECT_EQ(report["schema"], 1) << verb;
        EXPECT_EQ(report["ok"], false) << verb;
        EXPECT_THAT(report["failure"].asString(), HasSubstr("does not answer")) << verb;
    }
}

TEST_F(EdgedProcess, HasEveryVerbCompletedByTheShell) {
    for (const char* verb :
         {"presetup", "tun",     "tun6",  "private", "rglink",  "route",   "rule", "gateways",
          "qos",      "lan-qos", "hub",   "udp",     "monitor", "service", "doc",  "netlink",
          "check",    "status",  "links", "watch",   "reload",  "explain"})
        EXPECT_THAT(completions("corvoctl "), Contains(verb));
    EXPECT_THAT(completions("corvoctl -j ud"), ElementsAre("udp"));
    EXPECT_THAT(completions("corvoctl --log-file x udp "), ElementsAre("ask"));
    EXPECT_THAT(completions("corvoctl netlink "), AllOf(Contains("dummy"), Contains("queues")));
    EXPECT_THAT(completions("corvoctl hub test --u"), ElementsAre("--udp"));
    EXPECT_THAT(completions("corvoctl tun up et"), ElementsAre("eth1", "eth2"));
    EXPECT_THAT(completions("corvoctl explain -301"), Contains("-3011"));
    EXPECT_THAT(completions("corvoctl --js"), ElementsAre("--json"));
}

TEST_F(EdgedProcess, AsksOneDeviceOverUdp) {
    // The daemon's own responder on eth1 is the device that is asked.
    Daemon daemon;
    ASSERT_TRUE(wait_for_links("up", "up"));
    const ToolResult answered = corvoctl({"udp", "ask", "11", "203.0.113.11"});
    EXPECT_EQ(answered.status, 0) << answered.err;
    EXPECT_EQ(answered.out, "11@203.0.113.11 answered and accepted\n");
    const Json::Value report = parsed(corvoctl({"-j", "udp", "ask", "11", "203.0.113.11"}).out);
    EXPECT_EQ(report["data"]["sender"], 11);
    EXPECT_EQ(report["data"]["result"], 0);
    const ToolResult other = corvoctl({"udp", "ask", "12", "203.0.113.11"});
    EXPECT_EQ(other.status, 1);
    EXPECT_THAT(other.err, AllOf(HasSubstr("result -4"), HasSubstr("no answer")));
    EXPECT_EQ(corvoctl({"udp", "ask", "11", "203.0.113"}).status, 2);
    EXPECT_EQ(corvoctl({"udp", "ask", "0", "203.0.113.11"}).status, 2);
}

TEST_F(EdgedProcess, HasACorvoctlThatKnowsItsThreeExitStatuses) {
    EXPECT_EQ(corvoctl({"--help"}).status, 0);
    EXPECT_EQ(corvoctl({}).status, 2);
    EXPECT_EQ(corvoctl({"no-such-verb"}).status, 2);
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {"-j", "no-such-verb"},
             {"--json"},
             {"gateways", "set", "eth1", "-j"},
             {"-lj", "udp", "ask", "0", "1.2.3.4"},
             {"-j", "netlink", "route", "add", std::string(20, '1'), "--table", "7"}}) {
        const ToolResult wrong = corvoctl(words);
        EXPECT_EQ(wrong.status, 2);
        const Json::Value report = parsed(wrong.out);
        EXPECT_EQ(report["schema"], 1);
        EXPECT_EQ(report["ok"], false);
        EXPECT_THAT(report["failure"].asString(), HasSubstr("wrong usage: ")) << wrong.out;
    }
    EXPECT_EQ(corvoctl({"no-such-verb"}).out, "");
    EXPECT_EQ(corvoctl({"explain", "-3011"}).status, 0);
    EXPECT_EQ(corvoctl({"explain", "123456"}).status, 1);
    EXPECT_EQ(corvoctl({"gateways", "set", "eth1"}).status, 2);
    EXPECT_EQ(corvoctl({"netlink", "route", "add", std::string(20, '1'), "--table", "7"}).status, 2);
    EXPECT_EQ(
        corvoctl({"netlink", "class", "add", "eth1", "1:", "here", "--rate", "1", "--ceil", "1"}).status, 2);
    EXPECT_EQ(corvoctl({"netlink", "qdisc", "add", "eth1", "root", "1:", "--default", "32"}).status, 0);
    EXPECT_EQ(
        corvoctl({"netlink", "class", "add", "eth1", "1:", "1:20", "--rate", "125000", "--ceil", "250000"})
            .status,
        0);
    EXPECT_THAT(run_line("tc class show dev eth1").out,
                HasSubstr("htb 1:20 root prio 0 rate 1Mbit ceil 2Mbit"));
    EXPECT_THAT(corvoctl({"netlink", "queues", "eth1"}).out, HasSubstr("1:20 qlen 0"));
    EXPECT_EQ(corvoctl({"netlink", "qdisc", "del", "eth1", "root"}).status, 0);
    EXPECT_EQ(corvoctl({"netlink", "queues", "eth1"}).out.find("1:20"), std::string::npos);
    EXPECT_EQ(parsed(corvoctl({"-j", "util", "network", "192.0.2.77", "24"}).out)["data"]["network"],
              "192.0.2.0");
    const ToolResult failed = corvoctl({"gateways", "def", "99"});
    EXPECT_EQ(failed.status, 1);
    EXPECT_THAT(failed.err, AllOf(HasSubstr("failed with -3004"), HasSubstr("meaning:"),
                                  HasSubstr("likely cause:"), HasSubstr("what to do:")));
    EXPECT_EQ(corvoctl({"check", kDocumentDir, "--no-interfaces"}).status, 0);
    wan("eth2")["ID"] = "1";
    publish();
    const ToolResult bad = corvoctl({"check", kDocumentDir});
    EXPECT_EQ(bad.status, 1);
    EXPECT_THAT(bad.out, HasSubstr("device_info.json#/WAN_IFACE_INFO/eth2/ID: error:"));
}

TEST_F(EdgedProcess, ShowsItsStateToCorvoctl) {
    Daemon daemon;
    ASSERT_TRUE(wait_for_links("up", "up"));
    const ToolResult status = corvoctl({"status"});
    EXPECT_EQ(status.status, 0) << status.err;
    EXPECT_THAT(status.out, AllOf(HasSubstr("device 11"), HasSubstr("eth1 up for"),
                                  HasSubstr("gateway 203.0.113.1"), HasSubstr("documents applied")));
    const ToolResult links = corvoctl({"links"});
    EXPECT_EQ(links.status, 0) << links.err;
    EXPECT_THAT(links.out, AllOf(HasSubstr("eth1 up"), HasSubstr("eth2 up")));
    EXPECT_THAT(links.out, testing::Not(HasSubstr("device 11")));
    const Json::Value report = parsed(corvoctl({"-j", "links"}).out);
    EXPECT_EQ(report["schema"], 1);
    EXPECT_EQ(report["command"], "links");
    ASSERT_EQ(report["data"]["links"].size(), 2U);
    EXPECT_EQ(report["data"]["links"][0]["ifname"], "eth1");
    EXPECT_EQ(report["data"]["links"][0]["status"], "up");
    EXPECT_EQ(parsed(corvoctl({"-j", "status"}).out)["data"]["device_id"], 11);
    const ToolResult gateways = corvoctl({"gateways", "show"});
    EXPECT_THAT(gateways.out, AllOf(HasSubstr("dev eth1"), HasSubstr("weight 5"), HasSubstr("metric 100")));
}

TEST_F(EdgedProcess, TellsCorvoctlWhatBecameOfAReload) {
    Daemon daemon;
    ASSERT_TRUE(wait_for_links("up", "up"));
    const ToolResult good = corvoctl({"reload"});
    EXPECT_EQ(good.status, 0) << good.err;
    EXPECT_THAT(good.out, HasSubstr("documents applied"));
    wan("eth2")["ID"] = "1";
    publish();
    const ToolResult bad = corvoctl({"reload"});
    EXPECT_EQ(bad.status, 1);
    EXPECT_THAT(bad.err, AllOf(HasSubstr("refused"), HasSubstr("/WAN_IFACE_INFO/eth2/ID")));
    EXPECT_EQ(parsed(corvoctl({"-j", "reload"}).out)["ok"], false);
    EXPECT_EQ(link_status("eth2"), "up");
}

TEST_F(EdgedProcess, IsWatchedInPlainLinesWithoutATerminal) {
    Daemon daemon;
    ASSERT_TRUE(wait_for_links("up", "up"));
    const ToolResult view = corvoctl({"watch", "--count", "2", "--interval", "1"});
    EXPECT_EQ(view.status, 0) << view.err;
    EXPECT_THAT(view.out,
                AllOf(HasSubstr("corvo edge 11"), HasSubstr("\neth1       up"), HasSubstr("EVENTS")));
    EXPECT_EQ(view.out.find('\033'), std::string::npos);
    const ToolResult json = corvoctl({"-j", "watch", "--count", "2", "--interval", "1"});
    std::istringstream lines(json.out);
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        const Json::Value report = parsed(line);
        EXPECT_EQ(report["schema"], 1);
        EXPECT_EQ(report["data"]["links"].size(), 2U);
    }
    EXPECT_EQ(count, 2);
}

// The far side of a terminal of 80 by 24 characters that a program runs in.
class Terminal {
public:
    explicit Terminal(const std::vector<const char*>& words) {
        const winsize size{24, 80, 0, 0};
        int fd = -1;
        pid_ = ::forkpty(&fd, nullptr, nullptr, &size);
        if (pid_ == 0) {
            ::setenv("TERM", "xterm", 1);
            std::vector<char*> argv;
            for (const char* word : words) argv.push_back(const_cast<char*>(word));
            argv.push_back(nullptr);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        fd_.reset(fd);
    }
    ~Terminal() {
        if (pid_ > 0 && ::waitpid(pid_, nullptr, WNOHANG) == 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    bool shows(const std::string& text) {
        return wait_until(
            [&] {
                pollfd end{fd_.get(), POLLIN, 0};
                char piece[4096];
                while (::poll(&end, 1, 0) == 1 && (end.revents & POLLIN) != 0) {
                    const ssize_t got = ::read(fd_.get(), piece, sizeof piece);
                    if (got <= 0) break;
                    seen_.append(piece, static_cast<std::size_t>(got));
                }
                return seen_.find(text) != std::string::npos;
            },
            20s);
    }
    void type(const std::string& text) {
        EXPECT_EQ(::write(fd_.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    int wait() {
        int status = -1;
        EXPECT_TRUE(wait_until([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, 20s));
        pid_ = -1;
        return status;
    }
    const std::string& seen() const { return seen_; }

private:
    pid_t pid_ = -1;
    corvo::UniqueFd fd_;
    std::string seen_;
};

TEST_F(EdgedProcess, IsWatchedOnATerminalUntilAKeyEndsIt) {
    Daemon daemon;
    ASSERT_TRUE(wait_for_links("up", "up"));
    Terminal terminal({CORVOCTL, "watch", "--interval", "1"});
    for (const char* text : {"\033[?1049h", "corvo edge 11", "q: end", "eth1 ", "eth2 ", "EVENTS"})
        EXPECT_TRUE(terminal.shows(text)) << text;
    // What the daemon tells later is shown too.
    gateway(1, false);
    EXPECT_TRUE(terminal.shows("NONE") || terminal.shows("FAILED")) << terminal.seen();
    terminal.type("q");
    EXPECT_TRUE(terminal.shows("\033[?1049l"));  // the screen is as it was
    EXPECT_EQ(terminal.wait(), 0);
}

}  // namespace
