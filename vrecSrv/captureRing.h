#ifndef VREC_SRV_CAPTURERING_H
#define VREC_SRV_CAPTURERING_H

#include <sys/uio.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

// A stretch of time in which the queue was full and bytes read from the port were dropped.
struct LossEpisode {
    uint64_t startMs = 0;  // wall clock of the first dropped byte
    uint64_t endMs = 0;    // wall clock of the last dropped byte
    uint64_t bytes = 0;
};

// The bytes read from the Diag port on their way to storage: one thread fills it (the
// reader), one empties it (the writer), and neither ever waits for the other: the two meet
// only through counters, so the reader is never held by a lock the writer has. Memory is
// mapped in blocks as bytes queue up and given back once they are stored, so a capture
// whose storage keeps up stays small however long it runs. When the queue is full the
// reader goes on reading and the bytes it cannot queue are counted, in episodes, so that
// the loss can be told.
class CaptureRing {
public:
    static constexpr size_t kBlockBytes = 64 * 1024;

    // The writer is woken when this much has queued since it was last told: a batch worth
    // a write.
    static constexpr uint64_t kBatchBytes = 32 * 1024;

    // The writer is also told once the oldest byte it was not told of has waited `delay`.
    CaptureRing(size_t capacityBytes, std::chrono::milliseconds delay);
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
    // Tells the writer if the oldest byte it was not told of has waited most of the delay.
    void publishIfDue();
    // Milliseconds until that byte's delay is over (0: it is), -1 when the writer was told
    // of every byte queued.
    int msUntilDue() const;

    // Writer side. Waits at most `timeout` for bytes, then describes up to `limit` of the
    // oldest queued bytes in `parts`; the number of bytes described (0 when none came).
    size_t peek(std::vector<iovec>& parts, size_t limit, std::chrono::milliseconds timeout);
    // The first `count` bytes of the last peek() are stored.
    void consume(size_t count);
    // Ends a writer's wait at once, as for a stop. Any thread.
    void wakeWriter();
    // The episodes of loss that have ended and were not taken yet; with `closeOpen`, one
    // still going on ends now. Any thread.
    std::vector<LossEpisode> takeLosses(bool closeOpen);

    size_t queuedBytes() const;
    // Bytes queued, and bytes consumed, since the start.
    uint64_t committedBytes() const { return committed.load(); }
    uint64_t consumedBytes() const { return consumed.load(); }
    uint64_t lostBytes() const;
    uint64_t droppedEpisodes() const;
    // Blocks of memory now mapped, spares included.
    size_t mappedBlocks() const;

private:
    // Emptied blocks on their way back from the writer to the reader. One is enough while
    // storage keeps up: the writer stores each batch before the reader fills the next block.
    static constexpr size_t kSpareBlocks = 1;

    char* takeBlock();
    void giveBackBlock(char* data);
    void notifyWriter();
    char*& slot(uint64_t offset) { return slots[(offset / kBlockBytes) % slots.size()]; }

    using SteadyClock = std::chrono::steady_clock;

    const size_t capacity;
    const std::chrono::milliseconds delay;
    // The memory of each block of the ring; a slot is set by the reader before it commits
    // bytes there and cleared by the writer after it consumed them all.
    std::vector<char*> slots;
    std::atomic<uint64_t> committed{0};  // bytes queued since the start; reader writes
    std::atomic<uint64_t> consumed{0};   // bytes stored since the start; writer writes
    std::atomic<size_t> mapped{0};
    // Spares: a single-producer (writer), single-consumer (reader) queue of block memory.
    char* spares[kSpareBlocks] = {};
    std::atomic<uint64_t> sparesIn{0};
    std::atomic<uint64_t> sparesOut{0};

    // Reader's own.
    uint64_t tail = 0;
    uint64_t heldBlock = UINT64_MAX;  // the block whose memory the reader has taken
    uint64_t notifiedAt = 0;
    SteadyClock::time_point untoldSince;  // when the first byte after notifiedAt came
    bool dropping = false;

    // Writer's own.
    uint64_t head = 0;
    uint64_t seenNotices = 0;

    // The writer's sleep: it is woken only when it has something to do.
    std::atomic<uint64_t> notices{0};
    std::atomic<bool> writerSleeping{false};
    std::atomic<bool> wakeRequested{false};
    std::mutex sleepLock;
    std::condition_variable readable;

    // Losses: touched by the reader only while it drops, so the lock is off its usual path.
    mutable std::mutex lossLock;
    uint64_t lost = 0;
    uint64_t episodes = 0;
    bool episodeOpen = false;
    LossEpisode openEpisode;
    std::vector<LossEpisode> endedEpisodes;
};

#endif
