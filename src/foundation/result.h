// Result codes: one numbering for the whole library, and what each means to the person who reads it in a log.
//
// Who may include this: everybody. Functions return plain int; the enumerators convert implicitly.
#pragma once

#include <span>

namespace corvo {

enum Result : int {
    kOk = 0,
    kFailed = -3001,        // a step failed, a pipe could not be opened, a rate rule is violated, a time-out
    kNullArgument = -3002,  // null argument or null list
    kEmptyInput = -3003,    // empty address text, gateway set, remote site or route document name
    kInvalidArgument =
        -3004,             // bad operation code, prefix, MAC, route type or table; output pointer already set
    kNoInterface = -3005,  // no interface index, device binding failed, no regional link
    kDuplicate = -3006,    // gateway for a device already present
    kBadAddress = -3007,   // address parse or format failure; empty source address
    kSocketFailed = -3008,   // socket allocation, creation or bind failure
    kConnectFailed = -3009,  // netlink connect failed
    kAllocFailed = -3010,    // allocation or construction failure
    kRefused = -3011,        // netlink request refused, device not found, or routes of a list failed
    kSendFailed = -3012,
    kReceiveFailed = -3013,  // receive failed or packet too short
    kNoDirectory = -3014,
    kNoConfigFile = -3015,
    kNotOpened = -3016,       // file could not be opened or configuration document not loaded
    kBadReply = -3019,        // reply parse failure or non-zero service error
    kMissingSection = -3020,  // required configuration section missing
    kNoCallBuffer = -3022,    // service-call buffer creation failed
    kCallFailed = -3023,
    kEmptyReply = -3024,
    kAlreadyStarted = -3026,  // worker thread already started
    kEmptyRemoteLink = -3031,
    kEmptyTarget = -3032,
};

// Whose number it is. The small numbers of libnl and of the hub exchange overlap: which one a number is
// follows from the function that returned it.
enum class ResultSource { kLibrary, kNetlink, kHub };

// One entry of the error catalogue. All texts are complete sentences without a trailing line break.
struct ResultInfo {
    int code;
    const char* name;     // the enumerator, without its k
    const char* meaning;  // what the library found
    const char* cause;    // the likely cause on a device
    const char* remedy;   // what the operator does
    ResultSource source;
};

// Every code that an exported function can return: the library's in falling order (0 first), then those of
// libnl, which route and rule functions pass through, then those of the hub exchange and the hub manager.
std::span<const ResultInfo> result_catalogue();

// The entry of `code`, or null when there is none. Without a source, the library's is preferred, then
// libnl's.
const ResultInfo* find_result(int code);
const ResultInfo* find_result(int code, ResultSource source);

}  // namespace corvo
