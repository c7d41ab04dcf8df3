#include "logStore.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include "codec.h"
#include "console.h"
#include "diagLog.h"

namespace {

// Numbers the log items of the whole process.
int g_itemCounter = 0;

const char* const kRealLogFile = "real_log.bin";
// Report steps from this size on end a write where they fall.
constexpr uint64_t kReportSplitBytes = 64 * 1024;

}  // namespace

std::string LogStore::nextLogItemName(const std::string& dir) {
    const std::string unnumbered = dir + "/real_logitem_" + logTimeSuffix() + ".bin";
    if (CFile::Exists(unnumbered)) {
        CFile(unnumbered).Remove();
        consolePrint("%sWARNING: log file %s exists, deleting...\n", kLineClear,
                     unnumbered.c_str());
    }
    return dir + "/real_logitem_" + std::to_string(g_itemCounter++) + logTimeSuffix() + ".bin";
}

void LogStore::setCurrentName(const std::string& name) {
    std::lock_guard<std::mutex> guard(nameLock);
    currentLogName = name;
}

std::string LogStore::currentName() const {
    std::lock_guard<std::mutex> guard(nameLock);
    return currentLogName;
}

bool LogStore::open(const std::string& savePath, bool overwrite, const Limits& wanted) {
    limits = wanted;
    dir = savePath.empty() ? CDirectory::GetCurrentDir() : savePath;
    if (!overwrite) {
        // A name already taken is not replaced: the next candidate lies inside it.
        do {
            dir += "/vrec_files" + logTimeSuffix();
        } while (CDirectory::Exists(dir));
        if (!CDirectory::Create(dir)) {
            const int error = errno;
            consolePrint("ERROR: can't create directory for log output!\n");
            consolePrint("ERROR: can't create the directory %s: %s\n", dir.c_str(),
                         strerror(error));
            DIAG_LOG(LOG_ERRO, "can't create directory for log output!");
            return false;
        }
    }
    realLogName = dir + "/" + kRealLogFile;
    setCurrentName(limits.cycleBytes == 0 ? realLogName : nextLogItemName(dir));
    // The file is made and takes a byte before the module is asked for anything: a run
    // that could store nothing says so instead of starting.
    if (!openCurrent(false) || !file.ProbeWrite()) {
        lastErrorCode = file.LastError();
        consolePrint("%sERROR: can't %s the log file %s: %s\n", kLineClear,
                     file.IsOpen() ? "write to" : "create", realLogName.c_str(),
                     strerror(lastErrorCode));
        DIAG_LOG(LOG_ERRO, "log file %s not usable: %s", realLogName.c_str(),
                 strerror(lastErrorCode));
        file.Close();
        return false;
    }
    DIAG_LOG(LOG_INFO, "Saving log file %s...", currentName().c_str());
    rememberItem(currentName());
    return true;
}

bool LogStore::openCurrent(bool append) {
    if (!file.Open(realLogName, append)) {
        lastErrorCode = file.LastError();
        DIAG_LOG(LOG_INFO, "create file %s failed.", currentName().c_str());
        DIAG_LOG(LOG_ERRO, "open %s failed: %s", realLogName.c_str(), strerror(lastErrorCode));
        return false;
    }
    return true;
}

uint64_t LogStore::room() const {
    uint64_t left = std::numeric_limits<uint64_t>::max();
    if (limits.cycleBytes != 0) {
        left = std::min(left, limits.cycleBytes - std::min(cycleBytes, limits.cycleBytes));
    }
    if (limits.totalBytes != 0) {
        left = std::min(left, limits.totalBytes - std::min(totalBytes, limits.totalBytes));
    }
    // A size report tells the size when the step is passed, not one large write later;
    // steps too small to be worth a write of their own are reported as writes pass them.
    if (limits.reportEnabled && limits.reportStep >= kReportSplitBytes) {
        const uint64_t due = lastReported + limits.reportStep + 1;
        left = std::min(left, due > totalBytes ? due - totalBytes : 1);
    }
    // A boundary met exactly has been acted on by account(); this only guards the sum.
    return std::max<uint64_t>(left, 1);
}

long LogStore::write(const std::vector<iovec>& parts) {
    if (reopenPending) {
        if (!openCurrent(appendOnReopen)) {
            return -1;
        }
        reopenPending = false;
        rememberItem(currentName());
    }
    const long written = file.WriteV(parts.data(), static_cast<int>(parts.size()));
    // A write that takes nothing without an error is a full medium as well.
    lastErrorCode = written < 0 ? file.LastError() : (written == 0 ? ENOSPC : 0);
    return written > 0 ? written : -1;
}

LogStore::Step LogStore::account(uint64_t count) {
    totalBytes += count;
    cycleBytes += count;
    stored += count;
    if (limits.reportEnabled && totalBytes - lastReported > limits.reportStep) {
        consolePrint("%s\rFrom vrec - INFO: current size of captured log is ... %llu \n",
                     kLineClear, static_cast<unsigned long long>(totalBytes));
        lastReported = totalBytes;
    }
    if (limits.totalBytes != 0 && totalBytes >= limits.totalBytes) {
        if (limits.cycleBytes == 0) {
            consolePrint("%s\rWARNING: the max log size has reached. Now you can exit.\n",
                         kLineClear);
            return Step::LimitReached;
        }
        if (!logItems.empty()) {
            CFile(logItems.front()).Remove();
            logItems.pop_front();
        }
        totalBytes -= limits.cycleBytes;
        rotate(true);
        return Step::Continue;
    }
    if (limits.cycleBytes != 0 && cycleBytes >= limits.cycleBytes) {
        rotate(false);
    }
    return Step::Continue;
}

void LogStore::rotate(bool forTotalLimit) {
    file.Close();
    const std::string finished = currentName();
    // Where the finished item cannot take its name, the file in progress goes on from its
    // end rather than being emptied, so that no captured byte is lost.
    const bool renamed = CFile(realLogName).Rename(finished);
    if (!renamed) {
        DIAG_LOG(LOG_ERRO, "rename %s to %s failed: %s", realLogName.c_str(), finished.c_str(),
                 strerror(errno));
    }
    setCurrentName(nextLogItemName(dir));
    const std::string name = currentName();
    cycleBytes = 0;
    if (!openCurrent(!renamed)) {
        // The next write makes it again, and says so while it cannot.
        reopenPending = true;
        appendOnReopen = !renamed;
    } else {
        rememberItem(name);
    }
    if (forTotalLimit) {
        DIAG_LOG(LOG_INFO, "Start a new cycle log file %s...", name.c_str());
        consolePrint("%s\rINFO: start a new cycle log file item %s...\n", kLineClear, name.c_str());
    } else {
        DIAG_LOG(LOG_INFO, "Start a new log file %s...", name.c_str());
        consolePrint("%s\rINFO: start a new log file item %s...\n", kLineClear, name.c_str());
    }
}

void LogStore::rememberItem(const std::string& name) {
    // The names serve only the deletion of the oldest item at the total limit; without a
    // limit they are not kept, so a long capture with cycles does not grow in memory.
    if (limits.totalBytes != 0) {
        logItems.push_back(name);
    }
}

bool LogStore::deleteOldestItem() {
    // The last name is the item in progress, which is never deleted to make room.
    if (limits.totalBytes == 0 || limits.cycleBytes == 0 || logItems.size() < 2) {
        return false;
    }
    const std::string oldest = logItems.front();
    logItems.pop_front();
    if (!CFile(oldest).Remove()) {
        DIAG_LOG(LOG_ERRO, "remove %s failed: %s", oldest.c_str(), strerror(errno));
        return false;
    }
    totalBytes -= std::min(totalBytes, limits.cycleBytes);
    DIAG_LOG(LOG_WARN, "storage full: deleted the oldest log item %s to make room", oldest.c_str());
    return true;
}

void LogStore::close() {
    if (file.IsOpen() && !file.Close()) {
        DIAG_LOG(LOG_ERRO, "close %s failed: %s", realLogName.c_str(), strerror(file.LastError()));
    }
}
