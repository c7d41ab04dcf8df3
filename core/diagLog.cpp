#include "diagLog.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <filesystem>
#include <mutex>
#include <vector>

#include "dateTime.h"
#include "fileSystem.h"

namespace {

// Guards the lifetime of the one DiagLog against a stop that destroys it while another
// thread is logging.
std::mutex& instanceLock() {
    static std::mutex* lock = new std::mutex;  // never destroyed: threads may log at exit
    return *lock;
}
DiagLog* g_instance = nullptr;
bool g_logStarted = false;  // the process has emptied the old log already

}  // namespace

const char* diagLogLevelName(int level) {
    switch (level) {
        case LOG_CRIT:
            return "CRIT";
        case LOG_ERRO:
            return "ERRO";
        case LOG_WARN:
            return "WARN";
        case LOG_INFO:
            return "INFO";
        default:
            return "????";
    }
}

DiagLogFile::DiagLogFile(std::string logPath, long limit, bool append)
    : path(std::move(logPath)), rotateBytes(limit), truncateOnOpen(!append) {}

DiagLogFile::~DiagLogFile() {
    if (stream != nullptr) {
        fclose(stream);
    }
}

bool DiagLogFile::OpenStream() {
    stream = fopen(path.c_str(), truncateOnOpen ? "w+" : "a+");
    truncateOnOpen = true;
    return stream != nullptr;
}

bool DiagLogFile::WriteLine(int level, const char* file, const char* function, int line,
                            const char* text) {
    if (file == nullptr || function == nullptr || text == nullptr) {
        return false;
    }
    JMutexAutoLock lock(&mutex);
    if (stream == nullptr && !OpenStream()) {
        return false;
    }
    const CDateTime now;
    fprintf(stream, "%d:%d:%d:%d  %s  %s %d %s %s\n", now.Hour(), now.Minute(), now.Second(),
            now.Millisecond(), diagLogLevelName(level), file, line, function, text);
    fflush(stream);
    if (fseek(stream, 0, SEEK_END) == 0 && ftell(stream) >= rotateBytes) {
        Rotate();
    }
    return true;
}

std::string DiagLogFile::NextBackupName() const {
    const size_t dot = path.rfind('.');
    const std::string stem = dot == std::string::npos ? path : path.substr(0, dot);
    for (unsigned long n = 0;; ++n) {
        const std::string name = stem + "_backup_" + std::to_string(n) + ".log";
        if (!CFile::Exists(name)) {
            return name;
        }
    }
}

void DiagLogFile::PruneBackups(size_t keep) const {
    namespace fs = std::filesystem;
    const fs::path log(path);
    const std::string stem = log.stem().string() + "_backup_";
    struct Backup {
        fs::file_time_type time;
        unsigned long number;
        fs::path file;
    };
    std::vector<Backup> backups;
    std::error_code error;
    const fs::path dir = log.has_parent_path() ? log.parent_path() : fs::path(".");
    for (fs::directory_iterator it(dir, error), end; !error && it != end; it.increment(error)) {
        const std::string name = it->path().filename().string();
        if (name.size() <= stem.size() + 4 || name.compare(0, stem.size(), stem) != 0 ||
            name.compare(name.size() - 4, 4, ".log") != 0) {
            continue;
        }
        const std::string digits = name.substr(stem.size(), name.size() - stem.size() - 4);
        if (digits.find_first_not_of("0123456789") != std::string::npos || digits.size() > 9) {
            continue;
        }
        std::error_code timeError;
        backups.push_back(
            {fs::last_write_time(it->path(), timeError), std::stoul(digits), it->path()});
    }
    if (backups.size() < keep) {
        return;
    }
    std::sort(backups.begin(), backups.end(), [](const Backup& a, const Backup& b) {
        return a.time != b.time ? a.time < b.time : a.number < b.number;
    });
    for (size_t i = 0; i + keep <= backups.size(); ++i) {
        fs::remove(backups[i].file, error);
    }
}

void DiagLogFile::Rotate() {
    fclose(stream);
    stream = nullptr;
    PruneBackups(kMaxBackups);
    // Moving the file keeps every byte of it without a second copy in memory; the next
    // line starts an empty log under the old name.
    rename(path.c_str(), NextBackupName().c_str());
}

DiagLog::DiagLog() {
    const std::string dir = CDirectory::GetCurrentDir();
    if (!dir.empty() && !CDirectory::Exists(dir)) {
        mkdir(dir.c_str(), 0777);
    }
    logFile =
        std::make_unique<DiagLogFile>(dir + "/vrec.log", DiagLogFile::kRotateBytes, g_logStarted);
}

DiagLog* DiagLog::getInstance() {
    std::lock_guard<std::mutex> lock(instanceLock());
    if (g_instance == nullptr) {
        g_instance = new DiagLog;
    }
    return g_instance;
}

void DiagLog::destroyDiagLog() {
    std::lock_guard<std::mutex> lock(instanceLock());
    delete g_instance;
    g_instance = nullptr;
}

int DiagLog::writeText(int level, const char* file, const char* function, int line,
                       const char* text) {
    if (!logFile) {
        return 0;
    }
    const bool written = logFile->WriteLine(level, file, function, line, text);
    g_logStarted = g_logStarted || written;
    return written ? 1 : 0;
}

namespace {
struct ErrnoKeeper {
    const int saved = errno;
    ~ErrnoKeeper() { errno = saved; }
};
// Lines are cut at 1022 characters, as the log has always done.
struct LineText {
    char text[1024] = {};
    LineText(const char* format, va_list args) { vsnprintf(text, 1023, format, args); }
};
}  // namespace

int DiagLog::write(int level, const char* file, const char* function, int line, const char* format,
                   ...) {
    // A log line between a failed call and the look at its errno must not change it.
    const ErrnoKeeper keepErrno;
    va_list args;
    va_start(args, format);
    const LineText line_(format, args);
    va_end(args);
    std::lock_guard<std::mutex> lock(instanceLock());
    if (g_instance == nullptr) {
        g_instance = new DiagLog;
    }
    return g_instance->writeText(level, file, function, line, line_.text);
}

DiagLogTrace::DiagLogTrace(const char* srcFile, const char* srcFunction, int srcLine,
                           int traceLevel)
    : file(srcFile ? srcFile : ""),
      function(srcFunction ? srcFunction : ""),
      line(srcLine),
      level(traceLevel) {
    DiagLog::write(level, file.c_str(), function.c_str(), line, "enter");
}

DiagLogTrace::~DiagLogTrace() {
    DiagLog::write(level, file.c_str(), function.c_str(), line, "exit");
}
