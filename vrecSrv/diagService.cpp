#include "diagService.h"

#include <chrono>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

#include "atService.h"
#include "codec.h"
#include "console.h"
#include "diagLog.h"
#include "fileReading.h"
#include "portMgnt.h"
#include "qualcommTables.h"

namespace {

DiagService* g_diagService = nullptr;
// Numbers the log items of the whole process.
int g_itemCounter = 0;

const char* const kStartCmdFile = "startcmd.txt";
const char* const kStopCmdFile = "stopcmd.txt";
const char* const kRealLogFile = "real_log.bin";

const char* const kImcTraceOn = ".trace-on4FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF.\r\n";
const char* const kImcAtTraceOn = "at+trace=1\r\n";
const char* const kImcSysTrace =
    "AT+XSYSTRACE=0,\"bb_sw=1\",\"bb_sw=sdl:th,tr,st,db,pr,lt,li,gt,ae,mo\",\"oct=4\"\r\n";
const char* const kImcAtTraceOff = "at+trace=0\r\n";

}  // namespace

DiagService* DiagService::getInstance() {
    if (g_diagService == nullptr) {
        g_diagService = new DiagService;
    }
    return g_diagService;
}

void DiagService::destroy() {
    delete g_diagService;
    g_diagService = nullptr;
}

DiagService::DiagService() = default;

DiagService::~DiagService() {
    DIAG_TRACE();
    running = false;
    wakeup.Signal();
    readThread.WaitOrKill();
    closeLogFile();
}

void DiagService::setTotalSize(uint32_t megabytes) {
    maxTotalBytes = static_cast<uint64_t>(megabytes) << 20;
    DIAG_LOG(LOG_INFO, "the max log size is set to %llu",
             static_cast<unsigned long long>(maxTotalBytes));
}

void DiagService::setCycleSize(uint32_t megabytes) {
    cycleLimitBytes = static_cast<uint64_t>(megabytes) << 20;
    DIAG_LOG(LOG_INFO, "the log cycle size is set to %llu",
             static_cast<unsigned long long>(cycleLimitBytes));
}

void DiagService::setReport(bool enabled, uint32_t step) {
    reportEnabled = enabled;
    reportStep = step == 1 ? 1024000 : step;
}

bool DiagService::beginReadDiag(int port, const std::string& path) {
    if (port == -1) {
        DIAG_LOG(LOG_INFO, "port handle is null.");
        return false;
    }
    diagPort = port;
    savePath = path;
    stopRequested = false;
    cmdDir = CDirectory::GetCurrentDir();
    return startReadThread();
}

bool DiagService::startReadThread() {
    running = true;
    {
        std::lock_guard<std::mutex> lock(nameLock);
        setupFinished = false;
    }
    if (!readThread.IsRunning()) {
        readThread.Bind(&DiagService::readPort, this);
    }
    if (readThread.Start() != 0) {
        DIAG_LOG(LOG_INFO, "create read thread failed.");
        return false;
    }
    {
        // The reader names its first file during set-up; the start line shows that name.
        std::unique_lock<std::mutex> lock(nameLock);
        setupDone.wait_for(lock, std::chrono::microseconds(kStartSettleUs) * 30,
                           [this] { return setupFinished; });
    }
    consolePrint("%sINFO: now start saving log file %s...\n", kLineClear,
                 getCurrentLogName().c_str());
    DIAG_LOG(LOG_INFO, "create read thread succeed.");
    return true;
}

bool DiagService::stopReadDiag() {
    if (!running) {
        return true;
    }
    running = false;
    wakeup.Signal();
    readThread.WaitOrKill();
    return true;
}

bool DiagService::sendSingleCmd(const unsigned char* bytes, int length, int selector) {
    if (diagPort == -1) {
        DIAG_LOG(LOG_INFO, "the port is invalid.");
        return false;
    }
    int written = 0;
    int handle = -1;
    if (selector == PORT_DIAG) {
        handle = diagPort;
    } else if (selector == PORT_PCUI) {
        if (pcuiPort == -1) {
            pcuiPort = PortMgnt::getInstance()->regainPcuiPort();
            if (pcuiPort == -1) {
                DIAG_LOG(LOG_INFO, "can't open pcui port to send cmd.");
                return false;
            }
        }
        handle = pcuiPort;
    }
    if (handle != -1 && OS_ADAPT_Write(handle, bytes, length, &written) == OS_ADAPT_SUCCESS &&
        written == length) {
        DIAG_LOG(LOG_INFO, "write cmd Len: %d", written);
        return true;
    }
    DIAG_LOG(LOG_INFO, "write cmd error while written len is: %d", written);
    return false;
}

void DiagService::sendStartCmds() { sendCmdsFromFileOrTable(kStartCmdFile, true); }

void DiagService::sendStopCmds() {
    stopRequested = true;
    std::lock_guard<std::mutex> lock(sendLock);
    sendCmdsFromFileOrTable(kStopCmdFile, false);
}

void DiagService::sendCmdsFromFileOrTable(const char* fileName, bool start) {
    DIAG_TRACE();
    // A command file, where there is one, overrides the built-in sets of both chip families.
    if (CFile::Exists(fileName)) {
        sendCmdInFile(fileName, PORT_DIAG);
        return;
    }
    const std::string besideRun = cmdDir + "/" + fileName;
    if (CFile::Exists(besideRun)) {
        sendCmdInFile(besideRun, PORT_DIAG);
        return;
    }
    if (chipType == CHIP_QUALCOMM) {
        start ? sendQualcommStartDiagCmds() : static_cast<void>(sendQualcommStopCmds());
    } else if (chipType == CHIP_IMC) {
        start ? sendIMCStartDiagCmds() : static_cast<void>(sendIMCStopCmds());
    }
}

void DiagService::sendQualcommStartDiagCmds() {
    const FrameTable& table = kQualcommStartFrames;
    for (int i = 0; i < table.count; ++i) {
        {
            // A capture that is being stopped gets no more start frames: one after the stop
            // set would leave the module logging.
            std::lock_guard<std::mutex> lock(sendLock);
            if (stopRequested || !running) {
                break;
            }
            if (!sendSingleCmd(table.frame(i), table.length(i), PORT_DIAG)) {
                DIAG_LOG(LOG_ERRO, "Write diag command failed\n");
            }
        }
        usleep(kTableFramePauseUs);
    }
}

bool DiagService::sendQualcommStopCmds() {
    const FrameTable& table = kQualcommStopFrames;
    for (int i = 0; i < table.count; ++i) {
        if (!sendSingleCmd(table.frame(i), table.length(i), PORT_DIAG)) {
            DIAG_LOG(LOG_ERRO, "Write diag command failed\n");
        }
        usleep(kTableFramePauseUs);
    }
    return true;
}

void DiagService::sendIMCStartDiagCmds() {
    PortMgnt* ports = PortMgnt::getInstance();
    AtService* at = AtService::getInstance();
    at->sendATcmd(ports->getDiagHandle(), kImcTraceOn);
    at->sendATcmd(ports->getDiagHandle(), kImcAtTraceOn);
    at->sendATcmd(ports->getPcuiHandle(), kImcSysTrace);
    ports->closePcuiPort();
}

bool DiagService::sendIMCStopCmds() {
    return AtService::getInstance()->sendATcmd(PortMgnt::getInstance()->getDiagHandle(),
                                               kImcAtTraceOff);
}

bool DiagService::sendCmdInFile(const std::string& path, int selector) {
    std::string text;
    if (!readCmdFile(path, text)) {
        DIAG_LOG(LOG_INFO, "read cmd file failed.");
        return false;
    }
    std::map<int, std::vector<std::string>> groups;
    getFileCmds(text, groups);
    return sendGroupCmds(groups, selector);
}

bool DiagService::readCmdFile(const std::string& path, std::string& text) {
    std::string bytes;
    const bool whole = readSuppliedFile(path, bytes);
    text = bytes.c_str();  // a NUL byte in the file ends the text
    return whole;
}

bool DiagService::getFileCmds(const std::string& text,
                              std::map<int, std::vector<std::string>>& groups) {
    groups.clear();
    size_t position = 0;
    int number = 0;
    for (;;) {
        const size_t open = text.find('{', position);
        if (open == std::string::npos) {
            break;
        }
        const size_t close = text.find('}', open);
        if (close == std::string::npos) {
            break;
        }
        groups[number++] = splitHexTokens(text.substr(open + 1, close - open - 1));
        position = close + 1;
    }
    return true;
}

std::vector<std::string> DiagService::splitHexTokens(const std::string& group) {
    std::vector<std::string> tokens;
    size_t position = 0;
    for (;;) {
        const size_t found = group.find("0x", position);
        if (found == std::string::npos) {
            break;
        }
        tokens.push_back(group.substr(found, 4));
        position = found + 1;
    }
    return tokens;
}

bool DiagService::tokensToBytes(const std::vector<std::string>& tokens, unsigned char* bytes) {
    for (size_t i = 0; i < tokens.size(); ++i) {
        // "0x" and at most two digits; a token without digits gives 0.
        bytes[i] = static_cast<unsigned char>(strtoul(tokens[i].c_str(), nullptr, 16) & 0xFF);
    }
    return true;
}

bool DiagService::sendGroupCmds(const std::map<int, std::vector<std::string>>& groups,
                                int selector) {
    DIAG_LOG(LOG_INFO, "send group cmd begin.cmd items count: %d", static_cast<int>(groups.size()));
    for (const auto& group : groups) {
        std::vector<unsigned char> bytes(group.second.size());
        tokensToBytes(group.second, bytes.data());
        const int length = static_cast<int>(bytes.size());
        if (sendSingleCmd(bytes.data(), length, selector)) {
            DIAG_LOG(LOG_INFO, "send cmd success.cmd length: %d", length);
        } else {
            DIAG_LOG(LOG_INFO, "send cmd failed.cmd length: %d", length);
        }
    }
    return true;
}

void DiagService::setCurrentLogName(const std::string& name) {
    std::lock_guard<std::mutex> lock(nameLock);
    currentLogName = name;
}

std::string DiagService::getCurrentLogName() {
    std::lock_guard<std::mutex> lock(nameLock);
    return currentLogName;
}

std::string DiagService::nextLogItemName(const std::string& dir) {
    const std::string unnumbered = dir + "/real_logitem_" + logTimeSuffix() + ".bin";
    if (CFile::Exists(unnumbered)) {
        CFile(unnumbered).Remove();
        consolePrint("%sWARNING: log file %s exists, deleting...\n", kLineClear,
                     unnumbered.c_str());
    }
    return dir + "/real_logitem_" + std::to_string(g_itemCounter++) + logTimeSuffix() + ".bin";
}

bool DiagService::prepareLogFile() {
    logDir = savePath.empty() ? CDirectory::GetCurrentDir() : savePath;
    if (!overwrite) {
        // A name already taken is not replaced: the next candidate lies inside it.
        do {
            logDir += "/vrec_files" + logTimeSuffix();
        } while (CDirectory::Exists(logDir));
        if (!CDirectory::Create(logDir)) {
            consolePrint("ERROR: can't create directory for log output!\n");
            DIAG_LOG(LOG_ERRO, "can't create directory for log output!");
            return false;
        }
    }
    realLogName = logDir + "/" + kRealLogFile;
    setCurrentLogName(cycleLimitBytes == 0 ? realLogName : nextLogItemName(logDir));
    logFile = std::make_unique<CFile>(realLogName);
    if (!logFile->Open("wb")) {
        DIAG_LOG(LOG_INFO, "create file %s failed.", getCurrentLogName().c_str());
        logFile.reset();
        return false;
    }
    DIAG_LOG(LOG_INFO, "Saving log file %s...", getCurrentLogName().c_str());
    rememberItem(getCurrentLogName());
    return true;
}

void DiagService::closeLogFile() {
    if (logFile) {
        logFile->Close();
        logFile.reset();
    }
}

bool DiagService::rotate(RotationCause cause) {
    logFile->Close();
    const std::string finished = getCurrentLogName();
    // Where the finished item cannot take its name, the file in progress goes on from its
    // end rather than being emptied, so that no captured byte is lost.
    const bool renamed = logFile->Rename(finished);
    if (!renamed) {
        DIAG_LOG(LOG_ERRO, "rename %s to %s failed: %s", realLogName.c_str(), finished.c_str(),
                 strerror(errno));
    }
    logFile.reset();
    setCurrentLogName(nextLogItemName(logDir));
    const std::string name = getCurrentLogName();
    logFile = std::make_unique<CFile>(realLogName);
    if (!logFile->Open(renamed ? "wb" : "ab")) {
        DIAG_LOG(LOG_INFO, "create file %s failed.", name.c_str());
        logFile.reset();
        return false;
    }
    rememberItem(name);
    cycleBytes = 0;
    if (cause == RotationCause::TotalLimit) {
        DIAG_LOG(LOG_INFO, "Start a new cycle log file %s...", name.c_str());
        consolePrint("%s\rINFO: start a new cycle log file item %s...\n", kLineClear, name.c_str());
    } else {
        DIAG_LOG(LOG_INFO, "Start a new log file %s...", name.c_str());
        consolePrint("%s\rINFO: start a new log file item %s...\n", kLineClear, name.c_str());
    }
    return true;
}

void DiagService::rememberItem(const std::string& name) {
    // The names serve only the deletion of the oldest item at the total limit; without a
    // limit they are not kept, so a long capture with cycles does not grow in memory.
    if (maxTotalBytes != 0) {
        logItems.push_back(name);
    }
}

DiagService::ChunkResult DiagService::takeChunk(const char* data, int count,
                                                uint64_t& lastReported) {
    totalBytes += static_cast<uint64_t>(count);
    cycleBytes += static_cast<uint64_t>(count);
    logFile->Write(data, static_cast<size_t>(count));
    // Every chunk is on disk before the next read; a failed flush is a full medium.
    if (logFile->Flush() != 0) {
        consolePrint("%s\rERROR: error while writing log.the storage may be full.", kLineClear);
        running = false;
        return ChunkResult::EndLoop;
    }
    if (reportEnabled && totalBytes - lastReported > reportStep) {
        consolePrint("%s\rFrom vrec - INFO: current size of captured log is ... %llu \n",
                     kLineClear, static_cast<unsigned long long>(totalBytes));
        lastReported = totalBytes;
    }
    if (maxTotalBytes != 0 && totalBytes >= maxTotalBytes) {
        if (cycleLimitBytes == 0) {
            running = false;
            consolePrint("%s\rWARNING: the max log size has reached. Now you can exit.\n",
                         kLineClear);
            return ChunkResult::EndLoop;
        }
        if (!logItems.empty()) {
            CFile(logItems.front()).Remove();
            logItems.pop_front();
        }
        totalBytes -= cycleLimitBytes;
        if (!rotate(RotationCause::TotalLimit)) {
            return ChunkResult::EndThread;
        }
    }
    if (cycleLimitBytes != 0 && cycleBytes >= cycleLimitBytes) {
        if (!rotate(RotationCause::Cycle)) {
            return ChunkResult::EndThread;
        }
    }
    return ChunkResult::Continue;
}

void DiagService::pauseBeforeReconnect() {
    // The pause ends early when the capture is being stopped.
    if (wakeup.Fd() == -1 || OS_ADAPT_WaitReadable(wakeup.Fd(), kReconnectPauseUs / 1000) < 0) {
        usleep(kReconnectPauseUs);
    }
}

void DiagService::reconnect() {
    DIAG_LOG(LOG_INFO, "read log failed.trying to reconnect...");
    pauseBeforeReconnect();
    if (!running || stopRequested) {
        return;
    }
    diagPort = PortMgnt::getInstance()->regainDiagPort();
    // Without a port nothing can be sent: the next read fails and the reconnect repeats,
    // and a module gone for the night does not fill the diagnostic log with send failures.
    if (diagPort != -1) {
        sendStartCmds();
    }
}

void DiagService::readPort() {
    DIAG_TRACE();
    wakeup.Drain();
    const bool ready = prepareLogFile();
    {
        std::lock_guard<std::mutex> lock(nameLock);
        setupFinished = true;
    }
    setupDone.notify_all();
    if (!ready) {
        return;
    }
    char chunk[kChunkBytes];
    uint64_t lastReported = 0;
    // No pause between passes: the wait blocks while the port is idle, and a pause would cap
    // the capture below what a module sends over USB. The wait also watches the wake-up
    // pipe, so that a stop ends the reader at once even when the module is silent.
    while (running) {
        const int wait = OS_ADAPT_WaitPortOrWake(diagPort, wakeup.Fd());
        if (wait == 2) {
            wakeup.Drain();
            continue;
        }
        int count = 0;
        if (wait == 1 &&
            OS_ADAPT_ReadNow(diagPort, chunk, kChunkBytes, &count) == OS_ADAPT_SUCCESS) {
            const ChunkResult result = takeChunk(chunk, count, lastReported);
            if (result == ChunkResult::EndThread) {
                return;
            }
            if (result == ChunkResult::EndLoop) {
                break;
            }
        } else if (running) {
            reconnect();
        }
    }
    closeLogFile();
    DIAG_LOG(LOG_INFO, "end while.");
}
