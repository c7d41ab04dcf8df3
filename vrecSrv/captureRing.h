#ifndef VREC_SRV_CAPTURERING_H
#define VREC_SRV_CAPTURERING_H

#include <sys/uio.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

// A stretch of time in which the queue was full and bytes read from the port were dropped.
struct LossEpisode {
    uint64_t startMs = 0;  // wall clock of the first dropped byte
    uint64_t endMs = 0;    // wall clock of the last dropped byte
    uint64_t bytes = 0;
};

// The bytes read from the Diag port on their way to storage: one thread fills it (the
// reader), one empties it (the writer). Memory is mapped in blocks as bytes queue up and
// given back once they are stored, so a capture whose storage keeps up stays small however
// long it runs. When the queue is full the reader goes on reading and the bytes it cannot
// queue are counted, in episodes, so that the loss can be told.
class CaptureRing {
public:
    static constexpr size_t kBlockBytes = 64 * 1024;

    explicit CaptureRing(size_t capacityBytes);
    ~CaptureRing();
    CaptureRing(const CaptureRing&) = delete;
    CaptureRing& operator=(const CaptureRing&) = delete;

    // Reader side. A place for the next read of at most `wanted` bytes, or null when the
    // queue is full (or no memory can be had); `room` is then 0.
    char* writeSpace(size_t wanted, size_t& room);
    // The bytes of the last writeSpace() that the read filled.
    void commit(size_t count);
    // Bytes read that found no room.
    void drop(size_t count);
    // Lets a waiting writer take what is queued now, without waiting for more.
    void publish();

    // Writer side. Waits at most `timeout` for bytes, then describes up to `limit` of the
    // oldest queued bytes in `parts`; the number of bytes described (0 when none came).
    size_t peek(std::vector<iovec>& parts, size_t limit, std::chrono::milliseconds timeout);
    // The first `count` bytes of the last peek() are stored.
    void consume(size_t count);
    // Ends a writer's wait at once, as for a stop.
    void wakeWriter();
    // The episodes of loss that have ended and were not taken yet; with `closeOpen`, one
    // still going on ends now.
    std::vector<LossEpisode> takeLosses(bool closeOpen);

    size_t queuedBytes() const;
    uint64_t lostBytes() const;
    uint64_t droppedEpisodes() const;
    // Blocks of memory now mapped, spares included.
    size_t mappedBlocks() const;

private:
    struct Block {
        char* data = nullptr;
        size_t filled = 0;    // written by the reader, published under the lock
        size_t consumed = 0;  // advanced by the writer under the lock
    };

    Block* newBlockLocked();
    void releaseBlock(char* data);

    const size_t maxBlocks;
    mutable std::mutex lock;
    std::condition_variable readable;
    std::deque<Block> blocks;  // oldest first; the reader fills the last
    std::vector<char*> spares;
    size_t queued = 0;
    size_t unpublished = 0;  // committed bytes the writer has not been woken for
    bool writerWaiting = false;
    bool wakeRequested = false;
    uint64_t lost = 0;
    bool dropping = false;
    LossEpisode openEpisode;
    std::vector<LossEpisode> endedEpisodes;
    uint64_t episodes = 0;
};

#endif
