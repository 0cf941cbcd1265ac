// When a neighbour probe changes its mind: the rule alone, without clock, kernel or services.
#pragma once

namespace corvo {

// Failed cycles that are borne before the link counts as down.
inline constexpr unsigned kToleratedFailures = 5;

struct Verdict {
    unsigned fail_count;  // after this cycle
    bool flush_nat;       // a failed cycle of a link that is reported down
    bool settled;         // good, or bad for long enough
    bool report;          // settled, and other than what was reported last (or nothing was yet)
    int status;           // of the cycle: 0 good, 1 bad
};

// `reported`: a report went out before, and `status` is what it said.
constexpr Verdict judge_cycle(bool good, bool reported, int status, unsigned fail_count) {
    if (good) return {0, false, true, !reported || status != 0, 0};
    const unsigned failures = fail_count + 1;
    const bool settled = failures > kToleratedFailures;
    return {failures, reported && status != 0, settled, settled && (!reported || status != 1), 1};
}

// The count to go on with once the cycle is through.
constexpr unsigned count_after(unsigned fail_count) {
    return fail_count > kToleratedFailures ? 0 : fail_count;
}

}  // namespace corvo
