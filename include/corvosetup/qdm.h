// libcorvosetup: the queue monitor.
//
// Samples the transmit queues of one device every 2 s (the HTB tree below "1:") into a status document:
// {dev: {"QLEN", "CEIL", "RATE", "UTILS", "HTB_RATE", "COS": [{handle: {"CEIL", "RATE", "UTILS",
// "HTB_RATE"}}, ...]}}, all numbers unsigned 64-bit integers. Units are those of get_tx_queue_status (tc.h):
// bits per second, packets, percent.
//
// Threading: everything but the destructor may be called from any thread; start and stop wait for each other.
#pragma once

#include <json/value.h>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>

#include "corvosetup/export.h"

// One class of the tree.
struct queue_stat {  // sizeof 40
    uint32_t ceil;   // bits per second, its low 32 bits
    uint64_t qlen;   // not filled for classes
    uint64_t rate;   // bits per second, measured
    uint64_t htb_rate;
    double utils;  // percent
};
class CORVO_API ProcQdm {
    std::atomic<bool> running;
    int dbg;
    std::string dev;
    uint32_t ceil;  // the root class "1:1"
    uint64_t qlen;  // the root queue "1:"
    uint64_t rate;
    uint64_t htb_rate;
    double utils;
    std::unordered_map<std::string, queue_stat> classes;  // the other classes by handle, latest sample only
    std::thread* thread;                                  // null: not started
    Json::Value state;                                    // null until the first sample

    mutable std::mutex guard;  // the fields above that both the worker and the daemon use
    std::mutex lifecycle;      // held by start and stop, across the join

public:
    ProcQdm(std::string dev);
    ~ProcQdm();  // ends the thread

    int start();              // 0; -3026: started already; -3010: no thread to be had
    int stop();               // always 0
    Json::Value get_state();  // {dev: {...}} or null

    // The status document to standard output; without "COS" unless `full`.
    int show(bool full);

    // Takes a sample over. The list stays the caller's. 0, or -3002 without a list.
    int refill_obj_status(struct tqs_link* list);
    int save_state();
    void setup_dbg(int level);
    void thread_task();
    int probe();  // one cycle
};
