#include "dumpCollection.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "console.h"
#include "dateTime.h"
#include "diagLog.h"
#include "serialport.h"

namespace {

// Reads take what the port has, up to this much at once.
constexpr size_t kReadBytes = 1 << 20;
// Region bytes are written to their file in pieces of about this much.
constexpr size_t kGatherBytes = 1 << 20;
constexpr int kWaitSliceMs = 100;
constexpr int kWriteWaitMs = 1000;
constexpr int kProgressEveryMs = 250;
// After a stop, the answer to RESET is waited for this long only.
constexpr int kStopResetWaitMs = 2000;
// Room kept for the index, so that it can be written when the region files filled the disk.
constexpr off_t kIndexReserveBase = 4096;
constexpr off_t kIndexReservePerRegion = 256;

using Event = sahara::Session::Event;
using Kind = Event::Kind;

unsigned long long ull(uint64_t value) {
    return static_cast<unsigned long long>(value);
}

std::string timeText(const char* format) {
    const CDateTime now;
    char text[40];
    snprintf(text, sizeof(text), format, now.Year(), now.Month(), now.Day(), now.Hour(),
             now.Minute(), now.Second());
    return text;
}

}  // namespace

DumpCollection::DumpCollection(int handle, std::string path, sahara::Session::Action action,
                               StopCheck stopCheck)
    : port(handle),
      portPath(std::move(path)),
      saharaSession(action),
      stopped(std::move(stopCheck)) {}

DumpCollection::~DumpCollection() {
    if (indexFd != -1) {
        close(indexFd);
    }
}

double DumpCollection::seconds() const {
    const uint64_t from = collectStartMs != 0 ? collectStartMs : startMs;
    return endMs > from ? static_cast<double>(endMs - from) / 1000.0 : 0.0;
}

void DumpCollection::fail(sahara::Cause cause) {
    if (!failed) {
        failed = true;
        failure = cause;
    }
}

void DumpCollection::run(const std::string& directory, const DumpModeSeen& onDumpMode) {
    logDir = directory;
    dumpModeSeen = onDumpMode;
    startMs = GetTickMs();
    heading = timeText("%04d-%02d-%02d %02d:%02d:%02d") + " port " + portPath;
    buffer.resize(kReadBytes);
    pending.reserve(kGatherBytes + kReadBytes);
    uint64_t lastActivity = startMs;
    using Phase = sahara::Session::Phase;
    while (saharaSession.phase() != Phase::Finished) {
        if (failed) {
            failed = false;
            const std::vector<Event> events = saharaSession.abort(failure);
            lastActivity = GetTickMs();
            handle(events);
            continue;
        }
        if (!stopSeen && stopped && stopped()) {
            stopSeen = true;
            DIAG_LOG(LOG_INFO, "stop during the dump: it ends at the next piece");
            const std::vector<Event> events = saharaSession.stop();
            handle(events);
            continue;
        }
        const Phase phase = saharaSession.phase();
        int limit = phase == Phase::Hello ? kHelloWaitMs : kSilenceMs;
        if (stopSeen && phase == Phase::Resetting) {
            limit = kStopResetWaitMs;
        }
        const int ready = OS_ADAPT_WaitReadable(port, kWaitSliceMs);
        if (ready < 0) {
            fail(sahara::Cause::HungUp);
            continue;
        }
        if (ready == 0) {
            if (GetTickMs() - lastActivity >= static_cast<uint64_t>(limit)) {
                DIAG_LOG(LOG_WARN, "the dump port %s was silent for %d ms", portPath.c_str(),
                         limit);
                fail(sahara::Cause::Silent);
            }
            continue;
        }
        // The port has bytes: read until it has no more. A raw terminal's read gives 0 when
        // it has nothing; only right after the wait said ready does that mean a hang-up.
        bool afterWait = true;
        while (!failed && saharaSession.phase() != Phase::Finished &&
               (stopSeen || !stopped || !stopped())) {
            int count = 0;
            OS_ADAPT_ReadNow(port, buffer.data(), static_cast<int>(buffer.size()), &count);
            if (count > 0) {
                afterWait = false;
                lastActivity = GetTickMs();
                handle(saharaSession.feed(buffer.data(), static_cast<size_t>(count)));
                continue;
            }
            if ((count == 0 && !afterWait) || (count < 0 && (errno == EAGAIN || errno == EINTR))) {
                break;
            }
            DIAG_LOG(LOG_WARN, "the dump port %s hung up: %s", portPath.c_str(),
                     count == 0 ? "end of file" : strerror(errno));
            fail(sahara::Cause::HungUp);
        }
        reportProgress(false);
    }
    endMs = GetTickMs();
    if (!dumpDir.empty()) {
        writeIndex();
    }
}

void DumpCollection::handle(const std::vector<Event>& events) {
    for (const Event& event : events) {
        if (failed) {
            // The rest belongs to a collection that is given up; region bytes among it
            // were counted but are not stored.
            if (event.kind == Kind::RegionData) {
                saharaSession.notStored(event.region, event.size, failure);
            } else if (event.kind == Kind::RegionClosed) {
                pending.clear();
                regionFile.Close();
            }
            continue;
        }
        switch (event.kind) {
            case Kind::Send:
                if (!sendAll(event.text)) {
                    fail(sahara::Cause::HungUp);
                }
                break;
            case Kind::NotDump:
                notDumpText = event.text;
                DIAG_LOG(LOG_INFO, "%s: not in memory-debug mode: %s", portPath.c_str(),
                         event.text.c_str());
                break;
            case Kind::InDumpMode:
                inDumpMode = true;
                DIAG_LOG(LOG_INFO, "%s: HELLO in memory-debug mode", portPath.c_str());
                if (dumpModeSeen) {
                    dumpModeSeen();
                }
                if (saharaSession.phase() == sahara::Session::Phase::Announce &&
                    !makeDirectory(logDir)) {
                    fail(sahara::Cause::StorageFull);
                }
                break;
            case Kind::TableRead: {
                collectStartMs = GetTickMs();
                lastProgressMs = collectStartMs;
                const auto& regions = saharaSession.regions();
                DIAG_LOG(LOG_INFO, "region table (%s-bit): %zu regions, %llu bytes",
                         saharaSession.wide() ? "64" : "32", regions.size(),
                         ull(saharaSession.totalBytes()));
                for (size_t n = 0; n < regions.size(); ++n) {
                    DIAG_LOG(LOG_INFO, "region %zu: %s at 0x%llx, %llu bytes -> %s", n,
                             regions[n].description.c_str(), ull(regions[n].address),
                             ull(regions[n].length), regions[n].fileName.c_str());
                }
                consolePrint(
                    "%sINFO: collecting the memory dump into %s: %zu regions, %llu bytes.\n",
                    kLineClear, dumpDir.c_str(), regions.size(), ull(saharaSession.totalBytes()));
                writeIndex();
                break;
            }
            case Kind::TableRefused:
                DIAG_LOG(LOG_ERRO, "region table refused: %s", event.text.c_str());
                consolePrint("%sWARNING: the module's region table is refused: %s. It is reset.\n",
                             kLineClear, event.text.c_str());
                break;
            case Kind::RegionOpen:
                openRegion(event.region);
                break;
            case Kind::RegionData:
                storeData(event.region, event.data, event.size);
                break;
            case Kind::RegionClosed: {
                flushData();
                regionFile.Close();
                const auto& state = saharaSession.states()[event.region];
                DIAG_LOG(LOG_INFO, "region %zu: %llu bytes stored, %s", event.region,
                         ull(state.stored), state.state.c_str());
                break;
            }
            case Kind::Finished:
                resetDone = event.text.empty();
                DIAG_LOG(LOG_INFO, "dump port %s: %s", portPath.c_str(),
                         resetDone ? "RESET answered, or the port went away after it"
                                   : event.text.c_str());
                break;
        }
    }
}

bool DumpCollection::sendAll(const std::string& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        int count = 0;
        OS_ADAPT_Write(port, bytes.data() + sent, static_cast<int>(bytes.size() - sent), &count);
        if (count > 0) {
            sent += static_cast<size_t>(count);
            continue;
        }
        if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
            pollfd pfd{port, POLLOUT, 0};
            if (poll(&pfd, 1, kWriteWaitMs) > 0 && (pfd.revents & POLLOUT) != 0) {
                continue;
            }
        }
        DIAG_LOG(LOG_WARN, "writing to the dump port %s failed: %s", portPath.c_str(),
                 strerror(errno));
        return false;
    }
    return true;
}

bool DumpCollection::makeDirectory(const std::string& under) {
    const std::string base = under + "/" + timeText("dump_%04d%02d%02d_%02d%02d%02d");
    std::string path = base;
    for (int n = 2; CDirectory::Exists(path); ++n) {
        path = base + "_" + std::to_string(n);
    }
    if (mkdir(path.c_str(), 0755) != 0) {
        storageError = strerror(errno);
        DIAG_LOG(LOG_ERRO, "can't create the dump directory %s: %s", path.c_str(),
                 storageError.c_str());
        consolePrint("%sERROR: can't create the dump directory %s: %s\n", kLineClear, path.c_str(),
                     storageError.c_str());
        return false;
    }
    dumpDir = path;
    DIAG_LOG(LOG_INFO, "dump directory %s", dumpDir.c_str());
    return true;
}

void DumpCollection::openRegion(size_t region) {
    const std::string path = dumpDir + "/" + saharaSession.regions()[region].fileName;
    if (!regionFile.Open(path, false)) {
        storageError = strerror(regionFile.LastError());
        DIAG_LOG(LOG_ERRO, "can't create %s: %s", path.c_str(), storageError.c_str());
        fail(sahara::Cause::StorageFull);
    }
}

void DumpCollection::storeData(size_t region, const uint8_t* data, size_t size) {
    // A terminal hands over a few KiB per read: they are gathered, so that the file takes
    // them in large writes.
    if (pending.empty()) {
        pendingRegion = region;
    }
    pending.insert(pending.end(), data, data + size);
    if (pending.size() >= kGatherBytes) {
        flushData();
    }
}

bool DumpCollection::flushData() {
    size_t done = 0;
    while (done < pending.size()) {
        iovec part{pending.data() + done, pending.size() - done};
        const ssize_t written = regionFile.WriteV(&part, 1);
        if (written <= 0) {
            storageError = strerror(written < 0 ? regionFile.LastError() : ENOSPC);
            DIAG_LOG(LOG_ERRO, "writing the dump failed: %s", storageError.c_str());
            fail(sahara::Cause::StorageFull);
            saharaSession.notStored(pendingRegion, pending.size() - done,
                                    sahara::Cause::StorageFull);
            pending.clear();
            return false;
        }
        done += static_cast<size_t>(written);
    }
    pending.clear();
    return true;
}

void DumpCollection::writeIndex() {
    const std::string path = dumpDir + "/dump_index.txt";
    const bool final = saharaSession.phase() == sahara::Session::Phase::Finished;
    if (indexFd == -1) {
        indexFd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (indexFd == -1) {
            DIAG_LOG(LOG_ERRO, "can't create %s: %s", path.c_str(), strerror(errno));
            return;
        }
        const off_t reserve =
            kIndexReserveBase +
            kIndexReservePerRegion * static_cast<off_t>(saharaSession.regions().size());
        if (!final) {
            posix_fallocate(indexFd, 0, reserve);
        }
    }
    const std::string text = saharaSession.indexText(heading);
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t written =
            pwrite(indexFd, text.data() + done, text.size() - done, static_cast<off_t>(done));
        if (written <= 0) {
            DIAG_LOG(LOG_ERRO, "writing %s failed: %s", path.c_str(), strerror(errno));
            return;
        }
        done += static_cast<size_t>(written);
    }
    if (final && ftruncate(indexFd, static_cast<off_t>(text.size())) != 0) {
        DIAG_LOG(LOG_ERRO, "truncating %s failed: %s", path.c_str(), strerror(errno));
    }
}

void DumpCollection::reportProgress(bool force) {
    if (collectStartMs == 0 || saharaSession.phase() != sahara::Session::Phase::Regions) {
        return;
    }
    const uint64_t now = GetTickMs();
    if (!force && now - lastProgressMs < kProgressEveryMs) {
        return;
    }
    lastProgressMs = now;
    const uint64_t stored = saharaSession.storedBytes();
    const uint64_t total = saharaSession.totalBytes();
    const double elapsed = static_cast<double>(now - collectStartMs) / 1000.0;
    const double rate = elapsed > 0 ? static_cast<double>(stored) / 1e6 / elapsed : 0.0;
    consolePrint("\rINFO: memory dump: %llu of %llu bytes (%d%%), %.1f MB/s   ", ull(stored),
                 ull(total), total == 0 ? 100 : static_cast<int>(stored * 100 / total), rate);
    progressShown = true;
}
