#ifndef VREC_SRV_ATSERVICE_H
#define VREC_SRV_ATSERVICE_H

#include <cstdint>
#include <map>
#include <string>

#include "jmutex.h"

// The one place where AT commands cross to the module: writes a command to the port handle
// it is given, reads until the answer has ended, and cuts the useful text out of it. It
// never opens or closes a port. On a port that speaks Diag, commands can travel inside
// Diag tunnel frames without the callers changing.
class AtService {
public:
    static constexpr unsigned kWriteLimitMs = 5000;
    static constexpr unsigned kReadLimitMs = 5000;
    static constexpr int kAnswerReadSize = 4096;
    // An answer that grows past this without its end is given up: no sensible answer to a
    // command of this program is anywhere near as long.
    static constexpr size_t kAnswerLimitBytes = 4 << 20;
    static constexpr int kDrainReadSize = 10240;
    static constexpr int kDrainReads = 10;
    // The Diag reader owns the port's input: answers are not read here.
    static constexpr int kTunnelReaderOwnsPort = 3;

    // Why the last exchange failed. A refusal is the module's own answer; the others mean
    // that the port gave no usable answer at all.
    enum class Failure { None, NoCommand, NoPort, WriteFailed, NoAnswer, Garbled, Refused };

    static AtService* getInstance();
    static void destroy();
    virtual ~AtService();
    AtService(const AtService&) = delete;
    AtService& operator=(const AtService&) = delete;

    void setDiagTunnel(bool enabled, int mode);
    // Sends without waiting for an answer.
    bool sendATcmd(int port, const std::string& cmd);
    // The normal exchange. `drain` (tunnel mode only) first clears what the Diag stream
    // left in the port; `logExchange` switches the "AT send"/"AT Response" log lines.
    bool sendATcmdAndWaitResponse(int port, const std::string& cmd, std::string& response,
                                  bool drain = true, bool logExchange = true);
    // Appends what the port delivers until the answer ended or `limitMs` ran out; returns
    // the bytes appended by this call, 0 after a failed read.
    int atRead(std::string& text, int size, unsigned limitMs);
    // Writes the first `size` bytes of `data`; returns how many went out.
    int atWrite(std::string data, int size, unsigned limitMs);
    std::string getShortCmd(const std::string& cmd);
    Failure lastFailure();
    // The reason of the last failure in words, for an ERROR line; empty after a success.
    std::string lastFailureText();

private:
    AtService();
    // The checks every send makes; takes the port for the exchange.
    bool acceptCommand(int port, const std::string& cmd);
    // The whole command out within the write limit, or the failure logged.
    bool writeCommand(const std::string& wire);
    bool fail(Failure why, std::string text);

    int m_hPcuiPort = -1;
    std::string m_cmd;
    JMutex m_cmdLock;  // held over one whole exchange, the wait for the answer included
    std::map<uint32_t, std::string> m_cmdIds;
    bool m_diagTunnel = false;
    int m_tunnelMode = 0;
    Failure m_failure = Failure::None;
    std::string m_failureText;
};

#endif
