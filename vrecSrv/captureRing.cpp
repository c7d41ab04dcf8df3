#include "captureRing.h"

#include <sys/mman.h>

#include <algorithm>

#include "dateTime.h"

namespace {

// The writer is woken when this much has queued since it last took bytes, or when the
// reader finds the port quiet: one wake-up per many reads, not one per read.
constexpr size_t kPublishBytes = 32 * 1024;
// Blocks kept mapped after they were emptied, so that a steady stream does not map and
// unmap a block for every block's worth of bytes.
constexpr size_t kSpareBlocks = 2;

}  // namespace

CaptureRing::CaptureRing(size_t capacityBytes)
    : maxBlocks(std::max<size_t>(2, (capacityBytes + kBlockBytes - 1) / kBlockBytes)) {}

CaptureRing::~CaptureRing() {
    for (const Block& block : blocks) {
        releaseBlock(block.data);
    }
    for (char* data : spares) {
        releaseBlock(data);
    }
}

void CaptureRing::releaseBlock(char* data) {
    munmap(data, kBlockBytes);
}

CaptureRing::Block* CaptureRing::newBlockLocked() {
    if (blocks.size() >= maxBlocks) {
        return nullptr;
    }
    char* data = nullptr;
    if (!spares.empty()) {
        data = spares.back();
        spares.pop_back();
    } else {
        // Mapped rather than taken from the heap, so that an emptied queue gives its memory
        // back to the system and the resident size follows what is queued.
        void* mapped =
            mmap(nullptr, kBlockBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (mapped == MAP_FAILED) {
            return nullptr;
        }
        data = static_cast<char*>(mapped);
    }
    blocks.push_back(Block{data, 0, 0});
    return &blocks.back();
}

char* CaptureRing::writeSpace(size_t wanted, size_t& room) {
    // The bytes of the returned place are the reader's alone until commit(): the writer
    // only ever looks below a block's published fill.
    std::lock_guard<std::mutex> guard(lock);
    Block* tail = blocks.empty() ? nullptr : &blocks.back();
    if (tail == nullptr || tail->filled == kBlockBytes) {
        tail = newBlockLocked();
    }
    if (tail == nullptr) {
        room = 0;
        return nullptr;
    }
    room = std::min(wanted, kBlockBytes - tail->filled);
    return tail->data + tail->filled;
}

void CaptureRing::commit(size_t count) {
    if (count == 0) {
        return;
    }
    std::lock_guard<std::mutex> guard(lock);
    blocks.back().filled += count;
    queued += count;
    unpublished += count;
    if (dropping) {
        // The queue took bytes again: the episode of loss is over.
        dropping = false;
        endedEpisodes.push_back(openEpisode);
    }
    if (unpublished >= kPublishBytes) {
        unpublished = 0;
        if (writerWaiting) {
            readable.notify_one();
        }
    }
}

void CaptureRing::drop(size_t count) {
    if (count == 0) {
        return;
    }
    const uint64_t now = GetTickMs();
    std::lock_guard<std::mutex> guard(lock);
    if (!dropping) {
        dropping = true;
        openEpisode = LossEpisode{now, now, 0};
        ++episodes;
    }
    openEpisode.bytes += count;
    openEpisode.endMs = now;
    lost += count;
    // A full queue is exactly when the writer must not sleep on.
    unpublished = 0;
    if (writerWaiting) {
        readable.notify_one();
    }
}

void CaptureRing::publish() {
    std::lock_guard<std::mutex> guard(lock);
    if (unpublished == 0) {
        return;
    }
    unpublished = 0;
    if (writerWaiting) {
        readable.notify_one();
    }
}

size_t CaptureRing::peek(std::vector<iovec>& parts, size_t limit,
                         std::chrono::milliseconds timeout) {
    parts.clear();
    std::unique_lock<std::mutex> guard(lock);
    const auto ready = [this] { return queued > unpublished || wakeRequested; };
    if (!ready() && timeout.count() > 0) {
        writerWaiting = true;
        readable.wait_for(guard, timeout, ready);
        writerWaiting = false;
    }
    wakeRequested = false;
    unpublished = 0;
    size_t described = 0;
    for (Block& block : blocks) {
        if (described == limit) {
            break;
        }
        const size_t available = std::min(block.filled - block.consumed, limit - described);
        if (available == 0) {
            continue;
        }
        parts.push_back(iovec{block.data + block.consumed, available});
        described += available;
    }
    return described;
}

void CaptureRing::consume(size_t count) {
    std::vector<char*> unmapped;
    {
        std::lock_guard<std::mutex> guard(lock);
        queued -= std::min(count, queued);
        while (count > 0 && !blocks.empty()) {
            Block& front = blocks.front();
            const size_t taken = std::min(count, front.filled - front.consumed);
            front.consumed += taken;
            count -= taken;
            // The last block is the reader's: it may be writing into it right now.
            if (front.consumed == kBlockBytes && blocks.size() > 1) {
                if (spares.size() < kSpareBlocks) {
                    spares.push_back(front.data);
                } else {
                    unmapped.push_back(front.data);
                }
                blocks.pop_front();
            } else if (taken == 0) {
                break;
            }
        }
    }
    for (char* data : unmapped) {
        releaseBlock(data);
    }
}

void CaptureRing::wakeWriter() {
    std::lock_guard<std::mutex> guard(lock);
    wakeRequested = true;
    readable.notify_one();
}

std::vector<LossEpisode> CaptureRing::takeLosses(bool closeOpen) {
    std::lock_guard<std::mutex> guard(lock);
    if (closeOpen && dropping) {
        dropping = false;
        endedEpisodes.push_back(openEpisode);
    }
    std::vector<LossEpisode> taken;
    taken.swap(endedEpisodes);
    return taken;
}

size_t CaptureRing::queuedBytes() const {
    std::lock_guard<std::mutex> guard(lock);
    return queued;
}

uint64_t CaptureRing::lostBytes() const {
    std::lock_guard<std::mutex> guard(lock);
    return lost;
}

uint64_t CaptureRing::droppedEpisodes() const {
    std::lock_guard<std::mutex> guard(lock);
    return episodes;
}

size_t CaptureRing::mappedBlocks() const {
    std::lock_guard<std::mutex> guard(lock);
    return blocks.size() + spares.size();
}
