// Holding off the cancellation of a thread.
//
// Who may include this: every area, for destructors that call a cancellation point (close, write, waitpid,
// join) and for steps that must not be left half done.
//
// The daemon may cancel its own threads, and a cancellation acts in whatever the thread calls next. In a
// destructor, which is noexcept, it would end the process.
#pragma once

#include <pthread.h>

namespace corvo {

// The calling thread is not cancelled while the object lives; a request that comes meanwhile acts afterwards.
// Unlike the service calls' CancellationOff it does not log, and can therefore be used under the log.
class NoCancel {
public:
    NoCancel() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &former_); }
    ~NoCancel() { pthread_setcancelstate(former_, nullptr); }
    NoCancel(const NoCancel&) = delete;
    NoCancel& operator=(const NoCancel&) = delete;

private:
    int former_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace corvo
