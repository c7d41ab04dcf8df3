#ifndef VREC_SRV_MASKANSWERS_H
#define VREC_SRV_MASKANSWERS_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "maskRequests.h"

// The module's answers to the log mask requests, picked out of the stream as it is stored.
// While nobody waits for them it costs a look at the last byte of each piece stored; once
// armed it looks only at frames that begin with the log configuration command.
class MaskAnswers {
public:
    // Forgets earlier answers and starts looking; disarm() stops.
    void arm();
    void disarm();
    bool armed() const { return watching.load(std::memory_order_relaxed); }

    // Bytes of the stream in order, as they are stored.
    void feed(const char* data, size_t size);

    // Waits up to `timeoutMs` for the ranges answer, in steps that ask `goOn` whether to
    // keep waiting; false without one.
    template <typename GoOn>
    bool waitForRanges(masks::Ranges* ranges, int timeoutMs, GoOn goOn);
    // The answers to set requests so far: equipment and status, in arrival order.
    std::vector<std::pair<uint32_t, uint32_t>> setAnswers();
    // Waits up to `timeoutMs` until `count` set answers came; false if they did not.
    template <typename GoOn>
    bool waitForSetAnswers(size_t count, int timeoutMs, GoOn goOn);

private:
    static constexpr size_t kMaxFrame = 64 * 1024;
    void takeFrame();

    std::atomic<bool> watching{false};
    // Whether the last piece fed ended with a flag: a watch that starts then misses nothing.
    std::atomic<bool> atFrameStart{true};
    std::mutex lock;
    std::condition_variable arrived;
    std::string frame;      // bytes since the last flag, while they may be an answer
    bool skipping = false;  // the frame under way is no answer
    bool rangesKnown = false;
    masks::Ranges ranges{};
    std::vector<std::pair<uint32_t, uint32_t>> sets;
};

template <typename GoOn>
bool MaskAnswers::waitForRanges(masks::Ranges* out, int timeoutMs, GoOn goOn) {
    std::unique_lock<std::mutex> guard(lock);
    for (int waited = 0; waited < timeoutMs && !rangesKnown && goOn(); waited += 20) {
        arrived.wait_for(guard, std::chrono::milliseconds(20));
    }
    *out = ranges;
    return rangesKnown;
}

template <typename GoOn>
bool MaskAnswers::waitForSetAnswers(size_t count, int timeoutMs, GoOn goOn) {
    std::unique_lock<std::mutex> guard(lock);
    for (int waited = 0; waited < timeoutMs && sets.size() < count && goOn(); waited += 20) {
        arrived.wait_for(guard, std::chrono::milliseconds(20));
    }
    return sets.size() >= count;
}

#endif
