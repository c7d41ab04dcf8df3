#include "captureRing.h"

#include <sys/mman.h>

#include <algorithm>

#include "dateTime.h"

CaptureRing::CaptureRing(size_t capacityBytes, std::chrono::milliseconds storeDelay)
    : capacity(std::max<size_t>(2, (capacityBytes + kBlockBytes - 1) / kBlockBytes) * kBlockBytes),
      delay(storeDelay),
      slots(capacity / kBlockBytes, nullptr) {}

CaptureRing::~CaptureRing() {
    for (char* data : slots) {
        if (data != nullptr) {
            munmap(data, kBlockBytes);
        }
    }
    for (uint64_t i = sparesOut; i < sparesIn; ++i) {
        munmap(spares[i % kSpareBlocks], kBlockBytes);
    }
}

char* CaptureRing::takeBlock() {
    const uint64_t out = sparesOut.load(std::memory_order_relaxed);
    if (out != sparesIn.load(std::memory_order_acquire)) {
        char* data = spares[out % kSpareBlocks];
        sparesOut.store(out + 1, std::memory_order_release);
        return data;
    }
    // Mapped rather than taken from the heap, so that an emptied queue gives its memory back
    // to the system and the resident size follows what is queued.
    void* data =
        mmap(nullptr, kBlockBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (data == MAP_FAILED) {
        return nullptr;
    }
    ++mapped;
    return static_cast<char*>(data);
}

void CaptureRing::giveBackBlock(char* data) {
    const uint64_t in = sparesIn.load(std::memory_order_relaxed);
    if (in - sparesOut.load(std::memory_order_acquire) < kSpareBlocks) {
        spares[in % kSpareBlocks] = data;
        sparesIn.store(in + 1, std::memory_order_release);
        return;
    }
    munmap(data, kBlockBytes);
    --mapped;
}

char* CaptureRing::writeSpace(size_t wanted, size_t& room) {
    room = 0;
    char*& block = slot(tail);
    if (tail / kBlockBytes != heldBlock) {
        // A new block: its slot is free once the writer has stored what it last held.
        if (tail - tail % kBlockBytes + kBlockBytes - consumed.load(std::memory_order_acquire) >
            capacity) {
            return nullptr;
        }
        block = takeBlock();
        if (block == nullptr) {
            return nullptr;
        }
        heldBlock = tail / kBlockBytes;
    }
    const size_t offset = tail % kBlockBytes;
    room = std::min(wanted, kBlockBytes - offset);
    return block + offset;
}

void CaptureRing::commit(size_t count) {
    if (count == 0) {
        return;
    }
    if (tail == notifiedAt) {
        // One look at the clock per batch, not per read.
        untoldSince = SteadyClock::now();
    }
    tail += count;
    committed.store(tail, std::memory_order_release);
    if (dropping) {
        // The queue took bytes again: the episode of loss is over.
        dropping = false;
        std::lock_guard<std::mutex> guard(lossLock);
        if (episodeOpen) {
            episodeOpen = false;
            endedEpisodes.push_back(openEpisode);
        }
    }
    if (tail - notifiedAt >= kBatchBytes) {
        notifyWriter();
    }
}

void CaptureRing::drop(size_t count) {
    if (count == 0) {
        return;
    }
    const uint64_t now = GetTickMs();
    {
        std::lock_guard<std::mutex> guard(lossLock);
        if (!episodeOpen) {
            episodeOpen = true;
            openEpisode = LossEpisode{now, now, 0};
            ++episodes;
        }
        openEpisode.bytes += count;
        openEpisode.endMs = now;
        lost += count;
    }
    dropping = true;
    // A full queue is exactly when the writer must not sleep on.
    notifyWriter();
}

void CaptureRing::publish() {
    if (tail != notifiedAt) {
        notifyWriter();
    }
}

void CaptureRing::publishIfDue() {
    // A little before the delay is over: a stream that keeps coming is then told of at a
    // read, and the reader needs no wake-up of its own for it.
    if (tail != notifiedAt && SteadyClock::now() - untoldSince >= delay * 4 / 5) {
        notifyWriter();
    }
}

int CaptureRing::msUntilDue() const {
    if (tail == notifiedAt) {
        return -1;
    }
    const auto left = untoldSince + delay - SteadyClock::now();
    if (left <= SteadyClock::duration::zero()) {
        return 0;
    }
    // Rounded up, so that a wait of this length ends with the delay over.
    return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left).count());
}

void CaptureRing::notifyWriter() {
    notifiedAt = tail;
    notices.fetch_add(1);
    // The writer marks itself asleep before it looks at the notices for the last time, so
    // either it sees this notice or this sees it asleep. Passing through its lock means it
    // is waiting by then; the wake follows outside, so that the woken writer does not
    // find the lock still held and sleep on it once more.
    if (writerSleeping.load()) {
        { std::lock_guard<std::mutex> guard(sleepLock); }
        readable.notify_one();
    }
}

void CaptureRing::wakeWriter() {
    wakeRequested = true;
    { std::lock_guard<std::mutex> guard(sleepLock); }
    readable.notify_one();
}

size_t CaptureRing::peek(std::vector<iovec>& parts, size_t limit,
                         std::chrono::milliseconds timeout) {
    parts.clear();
    const auto woken = [this] { return notices.load() != seenNotices || wakeRequested.load(); };
    if (committed.load(std::memory_order_acquire) - head < kBatchBytes && !woken() &&
        timeout.count() > 0) {
        std::unique_lock<std::mutex> guard(sleepLock);
        writerSleeping = true;
        readable.wait_for(guard, timeout, woken);
        writerSleeping = false;
    }
    wakeRequested = false;
    seenNotices = notices.load();
    const uint64_t end =
        std::min<uint64_t>(committed.load(std::memory_order_acquire), head + limit);
    for (uint64_t at = head; at < end;) {
        const size_t offset = at % kBlockBytes;
        const size_t length = std::min<uint64_t>(end - at, kBlockBytes - offset);
        parts.push_back(iovec{slot(at) + offset, length});
        at += length;
    }
    return static_cast<size_t>(end - head);
}

void CaptureRing::consume(size_t count) {
    const uint64_t end =
        std::min<uint64_t>(head + count, committed.load(std::memory_order_acquire));
    // Blocks the writer has gone past in full go back; the one it stops in stays.
    for (uint64_t block = head / kBlockBytes; block < end / kBlockBytes; ++block) {
        char*& data = slot(block * kBlockBytes);
        giveBackBlock(data);
        data = nullptr;
    }
    head = end;
    consumed.store(head, std::memory_order_release);
}

std::vector<LossEpisode> CaptureRing::takeLosses(bool closeOpen) {
    std::lock_guard<std::mutex> guard(lossLock);
    if (closeOpen && episodeOpen) {
        episodeOpen = false;
        endedEpisodes.push_back(openEpisode);
    }
    std::vector<LossEpisode> taken;
    taken.swap(endedEpisodes);
    return taken;
}

size_t CaptureRing::queuedBytes() const {
    return static_cast<size_t>(committed.load() - consumed.load());
}

uint64_t CaptureRing::lostBytes() const {
    std::lock_guard<std::mutex> guard(lossLock);
    return lost;
}

uint64_t CaptureRing::droppedEpisodes() const {
    std::lock_guard<std::mutex> guard(lossLock);
    return episodes;
}

size_t CaptureRing::mappedBlocks() const {
    return mapped.load();
}
