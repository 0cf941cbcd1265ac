#include "support/failing_new.h"

#include "support/replaced_new.h"

namespace corvo::test {

namespace {

thread_local int left = -1;  // -1: memory is there
thread_local bool recovers = false;
thread_local bool refused = false;

}  // namespace

bool new_fails() noexcept {
    if (left > 0)
        --left;
    else if (left == 0) {
        refused = true;
        if (recovers) left = -1;
        return true;
    }
    return false;
}

FailingNew::FailingNew(int count, Then then) {
    refused = false;
    recovers = then == Then::kRecovers;
    left = count;
}
FailingNew::~FailingNew() {
    left = -1;
}
bool FailingNew::struck() const {
    return refused;
}

}  // namespace corvo::test
