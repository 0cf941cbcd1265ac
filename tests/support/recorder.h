// Recorded tools: a stand-in program in the place of a system tool that notes each call.
//
//     Recorder modprobe("/sbin/modprobe");
//     module_probing();
//     EXPECT_THAT(modprobe.commands(), ElementsAre("/sbin/modprobe ifb numifbs=7"));
//
// Only the tests' own view of the machine is changed, and only while the object lives; the tool may be
// missing on the machine. The tests' own tools (run_tool) go on being the real ones. netns and device tiers
// only.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace corvo::test {

struct RecordedCall {
    std::vector<std::string> argv;
    std::string path;               // the path it was run by
    std::chrono::nanoseconds time;  // of the monotonic clock, when it started
    int pid = 0;                    // in the tests' process namespace
    std::vector<int> descriptors;   // that it inherited, without 0, 1 and 2
    bool blocked_signals = false;   // whether it started with signals blocked or ignored

    std::string command() const;  // argv with blanks between
};

// What the tool does when called; the settings add up and hold for calls that start afterwards.
class RecordedAnswer {
public:
    RecordedAnswer& prints(const std::string& text);     // on standard output
    RecordedAnswer& complains(const std::string& text);  // on standard error
    RecordedAnswer& exits(int status);
    RecordedAnswer& dies(int signal);
    RecordedAnswer& delays(std::chrono::milliseconds time);  // before it prints
    RecordedAnswer& hangs();                                 // after it printed, until it is killed
    RecordedAnswer& floods();     // prints its text again and again, until it is killed or nobody reads
    RecordedAnswer& runs_real();  // becomes the machine's real tool after noting the call

private:
    friend class Recorder;
    RecordedAnswer(std::string file, std::string match) : file_(std::move(file)), match_(std::move(match)) {}
    RecordedAnswer& store();

    std::string file_;
    std::string match_;
    std::string real_;
    std::string output_, error_;
    int status_ = 0, signal_ = 0;
    long delay_ms_ = 0;
    bool hang_ = false, flood_ = false, run_real_ = false;
};

class Recorder {
public:
    // Takes the place of the tool at the absolute `path`; until told otherwise it prints nothing and exits 0.
    explicit Recorder(std::string path);
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    // The answer to every call that no when() fits.
    RecordedAnswer& always();
    RecordedAnswer& prints(const std::string& text) { return always().prints(text); }
    RecordedAnswer& exits(int status) { return always().exits(status); }

    // The answer to calls whose arguments, with blanks between, contain `text`. The first that fits counts.
    RecordedAnswer& when(const std::string& text);

    std::vector<RecordedCall> calls() const;
    std::vector<std::string> commands() const;  // the calls, as texts
    void forget_calls();

    // Waits until it was called `count` times.
    bool wait_for_calls(std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

    const std::string& path() const { return path_; }

private:
    std::string path_;
    std::string folder_;  // where its answers are
    std::vector<RecordedAnswer*> answers_;
};

struct Recorders {
    // The calls of all recorders of the TEST, in the order in which they started.
    static std::vector<RecordedCall> calls();
    static std::vector<std::string> commands();

    // Ends what still runs and puts the real tools back. Happens after every TEST by itself.
    static void remove_all();
};

}  // namespace corvo::test
