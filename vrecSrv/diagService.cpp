#include "diagService.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

#include "atService.h"
#include "codec.h"
#include "commandFile.h"
#include "console.h"
#include "dateTime.h"
#include "diagLog.h"
#include "fileReading.h"
#include "portMgnt.h"
#include "qualcommTables.h"

namespace {

DiagService* g_diagService = nullptr;

const char* const kStartCmdFile = "startcmd.txt";
const char* const kStopCmdFile = "stopcmd.txt";

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
    stopThreads();
}

void DiagService::setTotalSize(uint32_t megabytes) {
    limits.totalBytes = static_cast<uint64_t>(megabytes) << 20;
    DIAG_LOG(LOG_INFO, "the max log size is set to %llu",
             static_cast<unsigned long long>(limits.totalBytes));
}

void DiagService::setCycleSize(uint32_t megabytes) {
    limits.cycleBytes = static_cast<uint64_t>(megabytes) << 20;
    DIAG_LOG(LOG_INFO, "the log cycle size is set to %llu",
             static_cast<unsigned long long>(limits.cycleBytes));
}

void DiagService::setReport(bool enabled, uint32_t step) {
    limits.reportEnabled = enabled;
    limits.reportStep = step == 1 ? 1024000 : step;
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
    if (readThread.IsRunning() || writeThread.IsRunning()) {
        DIAG_LOG(LOG_INFO, "create read thread failed.");
        return false;
    }
    running = true;
    readerDone = false;
    writerDone = false;
    {
        std::lock_guard<std::mutex> lock(setupLock);
        setupFinished = false;
        setupSucceeded = false;
    }
    if (!ring) {
        ring = std::make_unique<CaptureRing>(kQueueBytes, kStoreDelay);
    }
    readThread.Bind(&DiagService::readPort, this);
    writeThread.Bind(&DiagService::writeLog, this);
    commandThread.Bind(&DiagService::resendStartCmds, this);
    // The reader first: it reads from the moment the port is open, while the writer is
    // still making the log file.
    if (readThread.Start() != 0 || writeThread.Start() != 0 || commandThread.Start() != 0) {
        DIAG_LOG(LOG_INFO, "create read thread failed.");
        stopThreads();
        return false;
    }
    if (!waitForSetup()) {
        // Nothing could be stored: the start ends here, before any command goes out.
        DIAG_LOG(LOG_ERRO, "the log file could not be set up; the capture does not start.");
        stopThreads();
        return false;
    }
    consolePrint("%sINFO: now start saving log file %s...\n", kLineClear,
                 store.currentName().c_str());
    DIAG_LOG(LOG_INFO, "create read thread succeed.");
    return true;
}

bool DiagService::waitForSetup() {
    // The writer names its first file and makes it during set-up; the start line shows that
    // name, and the start set waits for the file. A stop ends the wait.
    std::unique_lock<std::mutex> lock(setupLock);
    const uint64_t deadline = GetTickMs() + kSetupLimitMs;
    while (!setupDone.wait_for(lock, std::chrono::microseconds(kStartSettleUs),
                               [this] { return setupFinished; })) {
        if (!running) {
            return false;
        }
        if (GetTickMs() > deadline) {
            consolePrint(
                "%sERROR: the log file %s/real_log.bin was not made within %d s: the "
                "storage does not answer.\n",
                kLineClear, savePath.c_str(), kSetupLimitMs / 1000);
            return false;
        }
    }
    return setupSucceeded;
}

bool DiagService::stopReadDiag() {
    if (!running && !readThread.IsRunning() && !writeThread.IsRunning()) {
        return true;
    }
    stopThreads();
    return true;
}

void DiagService::stopThreads() {
    {
        std::lock_guard<std::mutex> lock(commandLock);
        running = false;
    }
    commandWake.notify_all();
    wakeup.Signal();
    readThread.WaitOrKill();
    // The writer stores everything the reader queued before it ends.
    if (ring) {
        ring->wakeWriter();
    }
    writeThread.WaitOrKill();
    commandThread.WaitOrKill();
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
    // A port that is not a terminal takes a long command in pieces of one transfer each.
    int sent = 0;
    while (handle != -1 && sent < length &&
           OS_ADAPT_Write(handle, bytes + sent, length - sent, &written) == OS_ADAPT_SUCCESS) {
        sent += written;
    }
    if (sent == length) {
        DIAG_LOG(LOG_INFO, "write cmd Len: %d", sent);
        return true;
    }
    DIAG_LOG(LOG_INFO, "write cmd error while written len is: %d", sent > 0 ? sent : written);
    return false;
}

void DiagService::sendStartCmds() {
    sendCmdsFromFileOrTable(kStartCmdFile, true);
}

void DiagService::sendStopCmds() {
    stopRequested = true;
    // Everything read so far reaches the file before the module is told to stop.
    waitUntilStored(ring ? ring->committedBytes() : 0, kStopStoreWaitMs);
    std::lock_guard<std::mutex> lock(sendLock);
    sendCmdsFromFileOrTable(kStopCmdFile, false);
}

void DiagService::sendCmdsFromFileOrTable(const char* fileName, bool start) {
    DIAG_TRACE();
    // A choice of logs made on the command line wins over a start command file.
    if (start && selection.any()) {
        sendSelection();
        return;
    }
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

bool DiagService::startSetGoesOn(unsigned generation) const {
    // A capture that is being stopped gets no more start frames: one after the stop set
    // would leave the module logging. A port that went away takes no more frames either;
    // the set starts again from its first frame once the port is back.
    return !stopRequested && running && generation == portGeneration;
}

void DiagService::sendQualcommStartDiagCmds() {
    const FrameTable& table = kQualcommStartFrames;
    const unsigned generation = portGeneration;
    for (int i = 0; i < table.count; ++i) {
        {
            std::lock_guard<std::mutex> lock(sendLock);
            if (!startSetGoesOn(generation)) {
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
    const CommandList commands = CommandList::parse(text);
    text = std::string();  // the text's memory goes before the commands are sent
    return sendCommands(commands, selector);
}

bool DiagService::readCmdFile(const std::string& path, std::string& text) {
    std::string bytes;
    const bool whole = readSuppliedFile(path, bytes, CommandList::kFileLimitBytes);
    bytes.resize(strlen(bytes.c_str()));  // a NUL byte in the file ends the text
    text.swap(bytes);                     // without a second copy
    return whole;
}

bool DiagService::checkCommandFiles() {
    for (const char* name : {kStartCmdFile, kStopCmdFile}) {
        const std::string problem = CommandList::problemWith(name);
        if (!problem.empty()) {
            consolePrint("%sERROR: can't use the command file %s.\n", kLineClear, problem.c_str());
            DIAG_LOG(LOG_ERRO, "command file refused: %s", problem.c_str());
            return false;
        }
    }
    return true;
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
    CommandList commands;
    for (const auto& group : groups) {
        std::vector<unsigned char> bytes(group.second.size());
        tokensToBytes(group.second, bytes.data());
        commands.addCommand(bytes.data(), bytes.size());
    }
    return sendCommands(commands, selector);
}

bool DiagService::sendCommands(const CommandList& commands, int selector) {
    DIAG_LOG(LOG_INFO, "send group cmd begin.cmd items count: %d",
             static_cast<int>(commands.count()));
    const unsigned generation = portGeneration;
    const bool stopSet = stopRequested;
    const uint64_t deadline = GetTickMs() + kStopSetLimitMs;
    for (size_t i = 0; i < commands.count(); ++i) {
        // The stop set holds the send lock for all its commands; a start set takes it per
        // command, so that a stop or a regain can come in between.
        std::unique_lock<std::mutex> lock(sendLock, std::defer_lock);
        if (!stopSet) {
            lock.lock();
            if (!startSetGoesOn(generation)) {
                break;
            }
        } else if (GetTickMs() > deadline) {
            // A stop must end in its time, whatever the file holds.
            const size_t left = commands.count() - i;
            consolePrint(
                "%sWARNING: the stop went on without %zu of the %zu commands of the stop "
                "command file: they took longer than %d s to send.\n",
                kLineClear, left, commands.count(), kStopSetLimitMs / 1000);
            DIAG_LOG(LOG_WARN, "stop set cut short: %zu of %zu commands not sent", left,
                     commands.count());
            break;
        }
        const int length = commands.length(i);
        if (sendSingleCmd(commands.command(i), length, selector)) {
            DIAG_LOG(LOG_INFO, "send cmd success.cmd length: %d", length);
        } else {
            DIAG_LOG(LOG_INFO, "send cmd failed.cmd length: %d", length);
        }
    }
    return true;
}
