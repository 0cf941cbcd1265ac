#include "foundation/guard.h"

namespace corvo {

int result_of_exception() noexcept {
    try {
        throw;
    } catch (int code) {
        return code;
    } catch (const std::bad_alloc&) {
        return kAllocFailed;
    } catch (const std::system_error&) {
        return kAllocFailed;
    } catch (...) {
        return kFailed;
    }
}

}  // namespace corvo
