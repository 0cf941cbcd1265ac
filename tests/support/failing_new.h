// Memory that runs out at a chosen allocation.
//
// An executable that uses it gets operator new and delete from here: it is named in tests/CMakeLists.txt.
#pragma once

namespace corvo::test {

// While it lives, the allocation number `count` (0: the first) of the calling thread fails, and every later
// one unless it is the only one.
class FailingNew {
public:
    enum class Then { kStays, kRecovers };

    explicit FailingNew(int count, Then then = Then::kStays);
    ~FailingNew();
    FailingNew(const FailingNew&) = delete;
    FailingNew& operator=(const FailingNew&) = delete;

    // Whether an allocation was refused.
    bool struck() const;
};

}  // namespace corvo::test
