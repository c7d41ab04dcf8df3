#ifndef VREC_CMD_COMMANDLINESRV_H
#define VREC_CMD_COMMANDLINESRV_H

#include <functional>
#include <memory>
#include <mutex>

#include "captureOptions.h"
#include "logInterface.h"
#include "udpserver.h"

constexpr unsigned short kControlPort = 52888;
constexpr unsigned short kClientPort = 52889;

// Turns the command line into one run: reads the options, starts one capture mode, and
// either ends at once or stays until "stop" arrives on the control port or SIGQUIT.
class CommandLineSrv : public CUdpServer {
public:
    // Makes the capture mode for a run; the default picks by `mode`.
    using ImplFactory = std::function<std::unique_ptr<LogInterface>(const CaptureOptions&)>;

    static CommandLineSrv* getInstance();
    // Replaces how capture modes are made (for front-end tests); set before getInstance.
    static void setImplFactory(ImplFactory factory);

    // Everything from the banner on; returns only on the "Done." path.
    void run(int argc, char** argv);
    // True when the run is to end, false when the process stays alive for the capture.
    bool startLog(CaptureOptions& options);
    void showUsage();
    void sendCommand(const char* text);

protected:
    void OnReceive(const sockaddr_in* from, const char* data, int length) override;

private:
    CommandLineSrv();

    void applyOption(int option, const char* argument);
    void applyFileOption(const char* name);
    void checkOptions();
    // The stop sequence: stopLog, destroy the mode, the closing line, status 1.
    void stopAndExit();
    static void onSigQuit(int signal);
    static void* sigQuitLoop(void* param);

    std::unique_ptr<LogInterface> current;
    CaptureOptions options;
    std::mutex stopLock;  // one stop sequence, whichever of datagram and signal comes first
};

// The program: forks, and the child runs the command line.
int vrecMain(int argc, char** argv);

#endif
