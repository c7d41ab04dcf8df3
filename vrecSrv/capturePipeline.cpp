// The threads of a real-time capture: the reader moves the port's bytes into the queue, the
// writer stores them, the commander sends the start set after a regain. A USB serial driver
// drops what does not fit its buffer, so the reader must never wait on anything but the
// port: not on storage, not on the terminal, not on the diagnostic log, not on a start set.

#include <cerrno>
#include <chrono>
#include <cstring>

#include <unistd.h>

#include "console.h"
#include "dateTime.h"
#include "diagLog.h"
#include "diagService.h"
#include "dumpService.h"
#include "portMgnt.h"

namespace {

enum class ReadResult { More, Drained, Failed };

constexpr std::chrono::milliseconds kWriterIdleWait{200};
// The reader's nice value where it may have one: ahead of ordinary processes.
constexpr int kReaderNice = -10;
// A terminal hands over at most its line discipline's buffer (4 KiB, less one byte) per
// read: a read that brought that much most likely left more behind.
constexpr int kTerminalReadBytes = 4095;
// A port that wakes the reader again sooner than this is read after naps of this length.
constexpr useconds_t kGatherNapUs = 1000;

// A stop gives up on a failing medium after this many further tries.
constexpr int kStopStoreTries = 2;

unsigned long long ull(uint64_t value) {
    return static_cast<unsigned long long>(value);
}

}  // namespace

// ---- reader ----

void DiagService::readPort() {
    DIAG_TRACE();
    // A reader that waits for the processor loses bytes at the driver like one that waits
    // for storage: it runs before the rest of the system where that is permitted.
    if (!RaiseCallingThreadPriority(kReaderNice)) {
        DIAG_LOG(LOG_INFO, "the reader keeps its normal priority: %s", strerror(errno));
    }
    wakeup.Drain();
    bool afterWait = false;
    int gathered = 0;  // bytes read since the last wait or nap
    bool napping = false;
    bool bufferFilled = false;    // a read since the last wait or nap brought a full buffer
    bool restOfTransfer = false;  // the wait is for what a full buffer left behind
    auto lastWake = std::chrono::steady_clock::time_point();
    while (running && !writerDone) {
        size_t room = 0;
        char* place = ring->writeSpace(kReadBytes, room);
        const bool queued = place != nullptr;
        if (!queued) {
            // Made only when first needed, so that memory stays with what is queued.
            overflow.resize(kReadBytes);
            place = overflow.data();
            room = overflow.size();
        }
        int count = 0;
        OS_ADAPT_ReadNow(diagPort, place, static_cast<int>(room), &count);
        ReadResult result = ReadResult::Drained;
        if (count > 0) {
            if (queued) {
                ring->commit(static_cast<size_t>(count));
            } else {
                ring->drop(static_cast<size_t>(count));
            }
            // A read that filled its place, or the terminal's buffer, may have left more
            // behind: the next read follows at once. After a shorter one the wait returns at
            // once if the port has more, and sleeps only if it has not, so that one transfer
            // costs one wait, not a wait and an empty read.
            gathered += count;
            bufferFilled = bufferFilled || count >= kTerminalReadBytes;
            result = static_cast<size_t>(count) == room || count >= kTerminalReadBytes
                         ? ReadResult::More
                         : ReadResult::Drained;
        } else if (count < 0 && errno != EAGAIN && errno != EINTR) {
            result = ReadResult::Failed;
        } else if (count == 0 && afterWait) {
            // The wait said the port was ready, yet it gave nothing: it was hung up.
            result = ReadResult::Failed;
        }
        afterWait = false;
        if (result == ReadResult::More) {
            continue;
        }
        // A port that brings transfers faster than one a nap is read after naps for as long
        // as each brings bytes: one read then takes many transfers, and the port costs a
        // wake-up per nap, not per transfer. The driver's buffer holds far more than a
        // nap's worth. Transfers that come further apart are each waited for.
        // A terminal buffer filled during the nap: the stream is too fast to nap on.
        napping = result == ReadResult::Drained && gathered > 0 && !bufferFilled && napping;
        restOfTransfer = bufferFilled && result == ReadResult::Drained;
        bufferFilled = false;
        if (gathered > 0) {
            ring->publishIfDue();
        }
        gathered = 0;
        if (napping) {
            usleep(kGatherNapUs);
            continue;
        }
        if (result == ReadResult::Drained) {
            const int wait = waitForPort();
            if (wait >= 0) {
                afterWait = wait == 1;
                // The rest of a transfer larger than the terminal's buffer comes at once
                // after the read that made room for it: no sign of a fast port.
                if (afterWait && !restOfTransfer) {
                    const auto now = std::chrono::steady_clock::now();
                    napping = now - lastWake < std::chrono::microseconds(kGatherNapUs);
                    lastWake = now;
                }
                continue;
            }
        }
        reconnect();
    }
    ring->publish();
    readerDone = true;
    ring->wakeWriter();
    DIAG_LOG(LOG_INFO, "end while.");
}

int DiagService::waitForPort() {
    // The writer is told of a batch when it is worth a write or when its oldest byte has
    // waited the store delay, whichever comes first: the wait on the port lasts at most
    // until then, so that a slow stream is stored within the delay, in few writes.
    int untilDue = ring->msUntilDue();
    if (untilDue == 0) {
        ring->publish();
        untilDue = -1;
    }
    const int wait = OS_ADAPT_WaitPortOrWake(diagPort, wakeup.Fd(), untilDue);
    if (wait == 0) {
        ring->publish();
    } else if (wait == 2) {
        wakeup.Drain();
    }
    return wait;
}

bool DiagService::pauseUnlessStopped(useconds_t pause) {
    if (running && OS_ADAPT_WaitReadable(wakeup.Fd(), static_cast<int>(pause / 1000)) < 0) {
        usleep(pause);
    }
    wakeup.Drain();
    return running && !stopRequested;
}

void DiagService::reconnect() {
    if (!running || writerDone) {
        return;
    }
    if (stopRequested) {
        // The stop sequence is under way: the port is not regained for it.
        pauseUnlessStopped(kRegainRetryUs);
        return;
    }
    DIAG_LOG(LOG_INFO, "read log failed.trying to reconnect...");
    // A start set still going out to the lost port ends at its next frame.
    ++portGeneration;
    ring->publish();
    const uint64_t lostAt = GetTickMs();
    useconds_t pause = kReconnectPauseUs;
    bool crashed = false;
    while (pauseUnlessStopped(pause)) {
        int port = -1;
        {
            // No frame goes out while the descriptor changes hands.
            std::lock_guard<std::mutex> lock(sendLock);
            port = PortMgnt::getInstance()->regainDiagPort();
            diagPort = port;
        }
        if (port != -1) {
            DIAG_LOG(LOG_INFO, "Diag port back %llu ms after it was lost; reading again",
                     ull(GetTickMs() - lostAt));
            if (crashed) {
                consolePrint("%sINFO: logging resumed at %s, in the same item.\n", kLineClear,
                             ClockText(GetTickMs()).c_str());
            }
            {
                std::lock_guard<std::mutex> lock(commandLock);
                startSetWanted = true;
            }
            commandWake.notify_all();
            return;
        }
        // A module that crashed waits in dump mode: collected and reset, it comes back.
        crashed |= DumpService::getInstance()->lookForDump(lostAt, [this] {
            return !running || stopRequested;
        }) == DumpService::Found::Reset;
        pause = kRegainRetryUs;
    }
}

// ---- commander ----

void DiagService::resendStartCmds() {
    std::unique_lock<std::mutex> lock(commandLock);
    for (;;) {
        commandWake.wait(lock, [this] { return startSetWanted || !running; });
        if (!running) {
            return;
        }
        startSetWanted = false;
        lock.unlock();
        if (!stopRequested) {
            sendStartCmds();
        }
        lock.lock();
    }
}

// ---- writer ----

void DiagService::announceSetup(bool ready) {
    {
        std::lock_guard<std::mutex> lock(setupLock);
        setupFinished = true;
        setupSucceeded = ready;
    }
    setupDone.notify_all();
    if (!ready) {
        // Nothing can be stored: the reader ends too, and the process waits for the stop.
        writerDone = true;
        wakeup.Signal();
    }
}

void DiagService::writeLog() {
    DIAG_TRACE();
    const bool ready = store.open(savePath, overwrite, limits);
    announceSetup(ready);
    if (!ready) {
        return;
    }
    std::vector<iovec> parts;
    stopTries = 0;
    for (;;) {
        // Read before looking at the queue: once the reader is done, nothing more comes.
        const bool draining = readerDone;
        const size_t taken =
            ring->peek(parts, static_cast<size_t>(std::min<uint64_t>(store.room(), kQueueBytes)),
                       draining ? std::chrono::milliseconds(0) : kWriterIdleWait);
        if (taken > 0) {
            if (!storeQueued(parts, draining)) {
                break;
            }
        } else if (draining) {
            break;
        }
        reportLosses(false);
    }
    discardQueued(!limitReached);
    reportLosses(true);
    store.close();
    writerDone = true;
    DIAG_LOG(LOG_INFO, "capture ended: %llu bytes read from the port, %llu stored, %llu lost",
             ull(ring->committedBytes() + ring->lostBytes()), ull(store.storedBytes()),
             ull(ring->lostBytes() + bytesDiscarded));
}

bool DiagService::storeQueued(std::vector<iovec>& parts, bool draining) {
    const long written = store.write(parts);
    if (written <= 0) {
        return onStoreFailure(draining);
    }
    // Before the queue lets go of the bytes: the reader may fill their place at once.
    takeStoredBytes(parts, static_cast<size_t>(written));
    ring->consume(static_cast<size_t>(written));
    if (storeFailedSince != 0) {
        const uint64_t now = GetTickMs();
        consolePrint("%sINFO: the log is stored again since %s; storing failed at %s.\n",
                     kLineClear, ClockText(now).c_str(), ClockText(storeFailedSince).c_str());
        DIAG_LOG(LOG_INFO, "storage writable again after %llu ms", ull(now - storeFailedSince));
        storeFailedSince = 0;
    }
    if (store.account(static_cast<uint64_t>(written)) == LogStore::Step::LimitReached) {
        // The capture ends here; what the reader queued beyond the limit is not kept.
        limitReached = true;
        {
            std::lock_guard<std::mutex> lock(commandLock);
            running = false;
        }
        commandWake.notify_all();
        wakeup.Signal();
        return false;
    }
    return true;
}

bool DiagService::onStoreFailure(bool draining) {
    // With a total limit, the oldest item makes room before anything is given up.
    if (store.deleteOldestItem()) {
        return true;
    }
    const int error = store.lastError();
    if (storeFailedSince == 0) {
        storeFailedSince = GetTickMs();
        consolePrint("%s\rERROR: error while writing log.the storage may be full.\n", kLineClear);
        consolePrint(
            "ERROR: storing the log failed at %s: %s. Reading goes on; what cannot be queued "
            "is counted, and storing is tried again every second.\n",
            ClockText(storeFailedSince).c_str(), strerror(error));
        DIAG_LOG(LOG_ERRO, "write %s failed: %s", store.currentName().c_str(), strerror(error));
    }
    if (draining && ++stopTries > kStopStoreTries) {
        return false;
    }
    std::unique_lock<std::mutex> lock(commandLock);
    if (running) {
        commandWake.wait_for(lock, std::chrono::milliseconds(kStoreRetryMs),
                             [this] { return !running; });
    } else {
        lock.unlock();
        usleep(kStoreRetryMs * 1000);
    }
    return true;
}

void DiagService::discardQueued(bool countAsLost) {
    std::vector<iovec> parts;
    size_t left = 0;
    while ((left = ring->peek(parts, kQueueBytes, std::chrono::milliseconds(0))) > 0) {
        ring->consume(left);
        if (countAsLost) {
            bytesDiscarded += left;
        }
    }
    if (bytesDiscarded != 0) {
        consolePrint("%sWARNING: %llu bytes of log read before the stop could not be stored.\n",
                     kLineClear, ull(bytesDiscarded));
        DIAG_LOG(LOG_WARN, "%llu bytes read before the stop could not be stored",
                 ull(bytesDiscarded));
    }
}

void DiagService::reportLosses(bool final) {
    for (const LossEpisode& episode : ring->takeLosses(final)) {
        const std::string from = ClockText(episode.startMs);
        const std::string to = ClockText(episode.endMs);
        consolePrint(
            "%sWARNING: %llu bytes of log lost from %s to %s: the storage did not take them in "
            "time.\n",
            kLineClear, ull(episode.bytes), from.c_str(), to.c_str());
        DIAG_LOG(LOG_WARN, "log lost: %llu bytes from %s to %s, the queue of %zu bytes was full",
                 ull(episode.bytes), from.c_str(), to.c_str(), kQueueBytes);
    }
}

void DiagService::waitUntilStored(uint64_t target, int limitMs) {
    if (!ring || writerDone) {
        return;
    }
    ring->wakeWriter();
    const uint64_t deadline = GetTickMs() + static_cast<uint64_t>(limitMs);
    while (ring->consumedBytes() < target && !writerDone && GetTickMs() < deadline) {
        usleep(2000);
        ring->wakeWriter();
    }
}
