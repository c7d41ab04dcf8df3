#ifndef VREC_SRV_DIAGSERVICE_H
#define VREC_SRV_DIAGSERVICE_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "fileSystem.h"
#include "jthread.h"
#include "serialport.h"

enum ChipType { CHIP_QUALCOMM = 0, CHIP_IMC = 1 };
enum PortSelector { PORT_DIAG = 0, PORT_PCUI = 1 };

// Everything on the Diag side of a real-time capture: the chip family, the size limits, the
// reader thread that moves the port's stream into log files, and the one path by which
// start and stop commands reach the port.
class DiagService {
public:
    static constexpr int kChunkBytes = 2048;
    static constexpr useconds_t kReconnectPauseUs = 2000000;
    static constexpr useconds_t kTableFramePauseUs = 10000;
    static constexpr useconds_t kStartSettleUs = 30000;

    static DiagService* getInstance();
    static void destroy();
    virtual ~DiagService();
    DiagService(const DiagService&) = delete;
    DiagService& operator=(const DiagService&) = delete;

    void setChipType(int type) { chipType = type; }
    void setTotalSize(uint32_t megabytes);
    void setCycleSize(uint32_t megabytes);
    // A step of 1 stands for the standard step of 1,024,000 bytes.
    void setReport(bool enabled, uint32_t step);
    void setOverwrite(bool value) { overwrite = value; }

    bool beginReadDiag(int port, const std::string& path);
    bool stopReadDiag();
    bool startReadThread();

    void sendStartCmds();
    void sendStopCmds();
    bool sendSingleCmd(const unsigned char* bytes, int length, int selector);

    // Command files: only what stands between "{" and the next "}" counts; each group is
    // one command whose bytes are written as "0x" tokens.
    bool sendCmdInFile(const std::string& path, int selector);
    static bool readCmdFile(const std::string& path, std::string& text);
    static bool getFileCmds(const std::string& text, std::map<int, std::vector<std::string>>& groups);
    static std::vector<std::string> splitHexTokens(const std::string& group);
    static bool tokensToBytes(const std::vector<std::string>& tokens, unsigned char* bytes);
    bool sendGroupCmds(const std::map<int, std::vector<std::string>>& groups, int selector);

    void sendQualcommStartDiagCmds();
    bool sendQualcommStopCmds();
    void sendIMCStartDiagCmds();
    bool sendIMCStopCmds();

    // The reader's body.
    void readPort();

    std::string nextLogItemName(const std::string& dir);

private:
    DiagService();

    enum class ChunkResult { Continue, EndLoop, EndThread };
    enum class RotationCause { Cycle, TotalLimit };

    void sendCmdsFromFileOrTable(const char* fileName, bool start);
    bool prepareLogFile();
    ChunkResult takeChunk(const char* data, int count, uint64_t& lastReported);
    void pauseBeforeReconnect();
    void rememberItem(const std::string& name);
    bool rotate(RotationCause cause);
    void reconnect();
    void closeLogFile();
    void setCurrentLogName(const std::string& name);
    std::string getCurrentLogName();

    std::unique_ptr<CFile> logFile;
    // Written by the reader on a reconnect, read by senders on any thread.
    std::atomic<int> diagPort{-1};
    int pcuiPort = -1;
    std::atomic<bool> running{true};
    // Set when the stop commands are about to go out: no start command may follow them.
    std::atomic<bool> stopRequested{false};
    // Serialises a start frame against the whole stop set.
    std::mutex sendLock;
    std::string cmdDir;
    std::string savePath;
    std::string logDir;  // the directory of this run's log files
    bool reportEnabled = true;
    bool overwrite = true;
    uint32_t reportStep = 1024000;
    std::deque<std::string> logItems;  // oldest first; the last is the item in progress
    std::string currentLogName;
    std::string realLogName;
    // Sizes in 64 bits, so that limits of 4096 MB and more and long captures do not wrap.
    uint64_t totalBytes = 0;
    uint64_t cycleBytes = 0;
    uint64_t maxTotalBytes = 0;
    uint64_t cycleLimitBytes = 0;
    int chipType = CHIP_QUALCOMM;

    // The reader announces when its log file is set up, so that the start line can name it.
    std::mutex nameLock;
    std::condition_variable setupDone;
    bool setupFinished = false;
    // Wakes the reader out of its wait on a silent port when the capture stops.
    CWakeup wakeup;
    // Last, so that it is stopped before anything it uses goes away.
    JThreadT<DiagService, void> readThread;
};

#endif
