#ifndef VREC_CORE_DIAGLOG_H
#define VREC_CORE_DIAGLOG_H

#include <cstdio>
#include <memory>
#include <string>

#include "jmutex.h"

// Levels of the diagnostic log; every level is written, there is no filter.
enum DiagLogLevel { LOG_CRIT = 1, LOG_ERRO = 2, LOG_WARN = 3, LOG_INFO = 4 };

const char* diagLogLevelName(int level);

// The writer of "vrec.log": one flushed line per call, rotated into numbered backups
// once the file reaches its size limit.
class DiagLogFile {
public:
    static constexpr long kRotateBytes = 10L * 1024 * 1024;
    // Backups kept beside the log: a rotation deletes the oldest beyond this, so the log
    // never takes more than (kMaxBackups + 1) * kRotateBytes of the board's storage.
    static constexpr size_t kMaxBackups = 4;

    // `append`: keep what the file holds at the first open instead of emptying it.
    explicit DiagLogFile(std::string path, long rotateBytes = kRotateBytes, bool append = false);
    virtual ~DiagLogFile();
    DiagLogFile(const DiagLogFile&) = delete;
    DiagLogFile& operator=(const DiagLogFile&) = delete;

    // Writes "time  LEVEL  file line function text"; false when nothing was written.
    bool WriteLine(int level, const char* file, const char* function, int line, const char* text);
    const std::string& GetPath() const { return path; }

    // The name the next rotation would use: "<path up to its last '.'>_backup_N.log"
    // with the first N from 0 that is free.
    std::string NextBackupName() const;
    // Deletes the oldest backups (by time, then number) until fewer than `keep` are left.
    void PruneBackups(size_t keep) const;

private:
    bool OpenStream();
    void Rotate();

    FILE* stream = nullptr;
    JMutex mutex;
    std::string path;
    long rotateBytes;
    // Opening empties the file, except for a log restarted within the same process
    // (after destroyDiagLog), which must not erase that process's own lines.
    bool truncateOnOpen;
};

// The process-wide front of the diagnostic log. A log call hands its call site over
// together with the text, so lines of concurrent threads always carry their own sites.
class DiagLog {
public:
    static DiagLog* getInstance();
    // Closes the file and frees the log; a later line starts it again.
    static void destroyDiagLog();

    // printf-style, with its call site; returns nonzero when the line was written. Every
    // log call of the program comes here through DIAG_LOG.
    static int write(int level, const char* file, const char* function, int line,
                     const char* format, ...) __attribute__((format(printf, 5, 6)));

private:
    DiagLog();
    int writeText(int level, const char* file, const char* function, int line, const char* text);

    std::unique_ptr<DiagLogFile> logFile;
};

// Writes "enter" when built and "exit" when destroyed, both at the site of construction.
class DiagLogTrace {
public:
    DiagLogTrace(const char* file, const char* function, int line, int level = LOG_INFO);
    virtual ~DiagLogTrace();
    DiagLogTrace(const DiagLogTrace&) = delete;
    DiagLogTrace& operator=(const DiagLogTrace&) = delete;

private:
    std::string file;
    std::string function;
    int line;
    int level;
};

#define DIAG_LOG(level, ...) DiagLog::write((level), __FILE__, __func__, __LINE__, __VA_ARGS__)
#define DIAG_TRACE_CAT2(a, b) a##b
#define DIAG_TRACE_CAT(a, b) DIAG_TRACE_CAT2(a, b)
#define DIAG_TRACE() \
    DiagLogTrace DIAG_TRACE_CAT(diagTrace_, __LINE__)(__FILE__, __func__, __LINE__, LOG_INFO)

#endif
