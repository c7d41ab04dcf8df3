#ifndef VREC_CMD_COMMANDLINESRV_H
#define VREC_CMD_COMMANDLINESRV_H

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

#include "captureOptions.h"
#include "logInterface.h"
#include "udpserver.h"

constexpr unsigned short kControlPort = 52888;
constexpr unsigned short kClientPort = 52889;

// Turns the command line into one run: reads the options, starts one capture mode, and
// either ends at once or stays until "stop" arrives on the control port, SIGQUIT or SIGTERM.
// One run at a time holds the control port; a stop that comes while the mode starts ends
// the start at its next step and then stops the mode.
class CommandLineSrv : public CUdpServer {
public:
    // Makes the capture mode for a run; the default picks by `mode`.
    using ImplFactory = std::function<std::unique_ptr<LogInterface>(const CaptureOptions&)>;

    static CommandLineSrv* getInstance();
    // Replaces how capture modes are made (for front-end tests); set before getInstance.
    static void setImplFactory(ImplFactory factory);

    // Everything from the banner on; returns only when the run ends by itself, with its exit
    // status: 0 when the asked action was launched, 1 when it was not.
    int run(int argc, char** argv);
    // True when the run is to end, false when the process stays alive for the capture.
    bool startLog(CaptureOptions& options);
    void showUsage();
    void sendCommand(const char* text);
    // A descriptor on which the run writes one byte once it is up and can be stopped; the
    // launching process waits for that or for the run's end.
    void setStartNotice(int fd) { startNotice = fd; }

protected:
    void OnReceive(const sockaddr_in* from, const char* data, int length) override;

private:
    enum class Phase { Preparing, Starting, Running, Finishing };
    enum class Control { Unclaimed, Held, Taken, Unavailable };

    CommandLineSrv();

    // Ends the run with an ERROR line at the first option value out of its rules, before
    // any option acts.
    void checkOptionValues(int argc, char** argv);
    void applyOption(int option, const char* argument);
    void applyFileOption(const char* name);
    void checkOptions();
    // Binds the control port on the loopback address, once; false when another run holds it.
    bool claimControlPort();
    void announceStarted();
    // The stop sequence: stopLog, destroy the mode, the closing line, status 1. A start in
    // progress is cut short by the stopLog and waited for before the mode is destroyed.
    void stopAndExit();
    [[noreturn]] void finishStop();
    static void onStopSignal(int signal);
    static void* stopSignalLoop(void* param);

    std::unique_ptr<LogInterface> current;
    CaptureOptions options;
    std::mutex stopLock;  // one stop sequence, whichever of datagram and signal comes first
    std::condition_variable startEnded;
    Phase phase = Phase::Preparing;
    bool stopping = false;
    bool startSucceeded = false;
    Control control = Control::Unclaimed;
    int startNotice = -1;
    bool collectDump = false;
};

// The program: forks, and the child runs the command line. The launching process ends
// once the run is up (status 0) or has ended (with the run's status).
int vrecMain(int argc, char** argv);

#endif
