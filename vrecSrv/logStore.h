#ifndef VREC_SRV_LOGSTORE_H
#define VREC_SRV_LOGSTORE_H

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "fileSystem.h"

// The log files of one capture: the run's directory, "real_log.bin" in progress, the items
// it becomes at the cycle size, the oldest item deleted at the total limit, and the size
// reports. Bytes are counted exactly: an item ends at the cycle size to the byte, because
// the caller never hands over more than room() at once.
class LogStore {
public:
    struct Limits {
        uint64_t cycleBytes = 0;  // 0: no items
        uint64_t totalBytes = 0;  // 0: no total limit
        bool reportEnabled = true;
        uint64_t reportStep = 1024000;
    };

    // What follows a write.
    enum class Step { Continue, LimitReached };

    LogStore() = default;
    LogStore(const LogStore&) = delete;
    LogStore& operator=(const LogStore&) = delete;

    // Makes the run's directory (a new one per run unless `overwrite`) and opens the file
    // in progress, with the terminal and log lines of a failure.
    bool open(const std::string& savePath, bool overwrite, const Limits& limits);
    // Bytes that may go into the file before the next item or limit boundary.
    uint64_t room() const;
    // One write(2) of the parts, at most room() bytes in all: the bytes written, or -1 with
    // lastError() telling why. A file that could not be made at a rotation is made here
    // first.
    long write(const std::vector<iovec>& parts);
    int lastError() const { return lastErrorCode; }
    // Counts bytes just written: size report, total limit, rotation.
    Step account(uint64_t count);
    // On a full medium with a total limit: deletes the oldest finished item. False when
    // there is none.
    bool deleteOldestItem();
    void close();

    // The name the user is shown for the item in progress.
    std::string currentName() const;
    uint64_t storedBytes() const { return stored; }

    // The name of the next log item in `dir`: "real_logitem_" with the process-wide item
    // number and a time suffix.
    static std::string nextLogItemName(const std::string& dir);

private:
    bool openCurrent(bool append);
    void rotate(bool forTotalLimit);
    void rememberItem(const std::string& name);
    void setCurrentName(const std::string& name);

    Limits limits;
    std::string dir;
    std::string realLogName;
    CRawFile file;
    // The file in progress must be made again before the next write (a rotation failed).
    bool reopenPending = false;
    bool appendOnReopen = false;
    std::deque<std::string> logItems;  // oldest first; the last is the item in progress
    uint64_t totalBytes = 0;
    uint64_t cycleBytes = 0;
    uint64_t lastReported = 0;
    uint64_t stored = 0;
    int lastErrorCode = 0;

    mutable std::mutex nameLock;  // the start line on another thread shows the name
    std::string currentLogName;
};

#endif
