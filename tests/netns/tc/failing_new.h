// Memory that runs out at a chosen allocation.
#pragma once

namespace corvo::test {

// While it lives, the allocation number `count` (0: the first) of the calling thread fails, and every later
// one.
class FailingNew {
public:
    explicit FailingNew(int count);
    ~FailingNew();
    FailingNew(const FailingNew&) = delete;
    FailingNew& operator=(const FailingNew&) = delete;

    // Whether an allocation was refused.
    bool struck() const;
};

}  // namespace corvo::test
