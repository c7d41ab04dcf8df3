#ifndef VREC_SRV_DIAGSERVICE_H
#define VREC_SRV_DIAGSERVICE_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "captureRing.h"
#include "commandFile.h"
#include "fileSystem.h"
#include "jthread.h"
#include "logStore.h"
#include "maskAnswers.h"
#include "maskRequests.h"
#include "serialport.h"

enum ChipType { CHIP_QUALCOMM = 0, CHIP_IMC = 1 };
enum PortSelector { PORT_DIAG = 0, PORT_PCUI = 1 };

// Everything on the Diag side of a real-time capture: the chip family, the size limits, the
// reader thread that moves the port's stream into log files, and the one path by which
// start and stop commands reach the port.
class DiagService {
public:
    // Reads of up to 64 KiB drain the port; a driver's buffer is emptied in few calls.
    static constexpr int kReadBytes = 64 * 1024;
    // What the queue between reader and writer holds: 400 ms of a USB 2.0 module.
    static constexpr size_t kQueueBytes = 16 * 1024 * 1024;
    static constexpr useconds_t kReconnectPauseUs = 2000000;
    // After the first pause a lost port is looked for this often, so that reading resumes
    // soon after it is back.
    static constexpr useconds_t kRegainRetryUs = 500000;
    static constexpr useconds_t kTableFramePauseUs = 10000;
    // How long the stop commands wait for what was read to be stored.
    static constexpr int kStopStoreWaitMs = 2000;
    // A full or failing medium is tried again this often.
    static constexpr int kStoreRetryMs = 1000;
    // Bytes read wait at most this long before the writer is told of them (it is told
    // sooner of a batch worth a write): what a crash of the process can take with it.
    static constexpr std::chrono::milliseconds kStoreDelay{100};
    static constexpr useconds_t kStartSettleUs = 30000;
    // The longest a stop set may take; a stop must end within a service manager's limit.
    static constexpr int kStopSetLimitMs = 5000;
    // The longest the start waits for the log file to be made before it gives up.
    static constexpr int kSetupLimitMs = 10000;

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
    // What the user chose to be logged; with a choice, it is the start set.
    void setSelection(const masks::Selection& chosen);

    bool beginReadDiag(int port, const std::string& path);
    bool stopReadDiag();
    bool startReadThread();

    // Whether the stop commands were asked for: nothing more is started after that.
    bool stopAsked() const { return stopRequested; }

    void sendStartCmds();
    void sendStopCmds();
    bool sendSingleCmd(const unsigned char* bytes, int length, int selector);

    // Command files: only what stands between "{" and the next "}" counts; each group is
    // one command whose bytes are written as "0x" tokens.
    bool sendCmdInFile(const std::string& path, int selector);
    static bool readCmdFile(const std::string& path, std::string& text);
    static bool getFileCmds(const std::string& text,
                            std::map<int, std::vector<std::string>>& groups);
    static std::vector<std::string> splitHexTokens(const std::string& group);
    static bool tokensToBytes(const std::vector<std::string>& tokens, unsigned char* bytes);
    bool sendGroupCmds(const std::map<int, std::vector<std::string>>& groups, int selector);
    // Sends the commands in order; a stop set that has taken kStopSetLimitMs leaves the rest
    // out and says how many.
    bool sendCommands(const CommandList& commands, int selector);
    // Before anything reaches the module: false, after an ERROR line, where a command file
    // in the working directory is too large or cannot be read.
    static bool checkCommandFiles();

    void sendQualcommStartDiagCmds();
    bool sendQualcommStopCmds();
    void sendIMCStartDiagCmds();
    bool sendIMCStopCmds();

    // The three threads of a capture. The reader only moves bytes from the port into the
    // queue and regains a lost port; the writer stores what is queued, in items and under
    // the limits; the commander sends the start set again after a regain, so that the
    // reader never stops reading for it.
    void readPort();
    void writeLog();
    void resendStartCmds();

private:
    DiagService();

    void sendCmdsFromFileOrTable(const char* fileName, bool start);
    // Reader side. The wait for the port: 1 ready, 2 woken, 0 quiet, -1 failed.
    int waitForPort();
    void reconnect();
    // False when the capture stops meanwhile.
    bool pauseUnlessStopped(useconds_t pause);
    // Writer side; false when the writer ends.
    bool storeQueued(std::vector<iovec>& parts, bool draining);
    bool onStoreFailure(bool draining);
    // Empties the queue at the writer's end; bytes of a stop that could not be stored count
    // as lost, bytes beyond the total limit do not.
    void discardQueued(bool countAsLost);
    void reportLosses(bool final);
    void waitUntilStored(uint64_t target, int limitMs);
    void announceSetup(bool ready);
    // Until the writer's set-up is over: true when the log file is ready for the stream.
    bool waitForSetup();
    // Whether a start set that began with `generation` may send its next frame.
    bool startSetGoesOn(unsigned generation) const;
    void stopThreads();
    // The start set of a choice of logs (logSelection.cpp).
    void sendSelection();
    void sendSelectionLogMasks(unsigned generation);
    // False when the set is to end before the request: a stop, or the port went away.
    bool sendSelectionRequest(const std::string& request, unsigned generation, bool framed = false);
    // The writer's hook: `count` bytes of `parts` are stored.
    void takeStoredBytes(const std::vector<iovec>& parts, size_t count);

    // Written by the reader on a reconnect, read by senders on any thread.
    std::atomic<int> diagPort{-1};
    int pcuiPort = -1;
    std::atomic<bool> running{true};
    // Set when the stop commands are about to go out: no start command may follow them.
    std::atomic<bool> stopRequested{false};
    // Counts the losses of the port, so that a start set for a port that went away ends.
    std::atomic<unsigned> portGeneration{0};
    // Serialises a start frame against the whole stop set and against a regain.
    std::mutex sendLock;
    std::string cmdDir;
    std::string savePath;
    bool overwrite = true;
    LogStore::Limits limits;
    int chipType = CHIP_QUALCOMM;
    masks::Selection selection;
    MaskAnswers maskAnswers;
    // One selection set at a time: a set for a port that went away ends before the next.
    std::mutex selectionLock;

    std::unique_ptr<CaptureRing> ring;
    LogStore store;
    std::vector<char> overflow;  // where bytes go that find the queue full
    std::atomic<bool> readerDone{false};
    std::atomic<bool> writerDone{false};
    // Writer: the storage refuses bytes since this wall-clock time (0: it does not).
    uint64_t storeFailedSince = 0;
    int stopTries = 0;
    bool limitReached = false;
    uint64_t bytesDiscarded = 0;

    // The writer announces when its log file is set up, so that the start line can name it.
    std::mutex setupLock;
    std::condition_variable setupDone;
    bool setupFinished = false;
    bool setupSucceeded = false;
    // The commander's request and the writer's pauses; both end at once on a stop.
    std::mutex commandLock;
    std::condition_variable commandWake;
    bool startSetWanted = false;
    // Wakes the reader out of its wait on a silent port when the capture stops.
    CWakeup wakeup;
    // Last, so that they are stopped before anything they use goes away.
    JThreadT<DiagService, void> commandThread;
    JThreadT<DiagService, void> writeThread;
    JThreadT<DiagService, void> readThread;
};

#endif
