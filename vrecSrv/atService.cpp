#include "atService.h"

#include <algorithm>

#include "atProtocol.h"
#include "dateTime.h"
#include "diagLog.h"
#include "serialport.h"

namespace {

AtService* g_atService = nullptr;
constexpr size_t kTunnelHeader = 7;

uint64_t elapsedSince(uint64_t start) {
    const uint64_t now = GetTickMs();
    return now > start ? now - start : 0;
}

}  // namespace

AtService* AtService::getInstance() {
    if (g_atService == nullptr) {
        g_atService = new AtService;
    }
    return g_atService;
}

void AtService::destroy() {
    DIAG_TRACE();
    delete g_atService;
    g_atService = nullptr;
}

AtService::AtService() : m_cmdIds(atproto::tunnelCommandIds()) {}

AtService::~AtService() = default;

void AtService::setDiagTunnel(bool enabled, int mode) {
    JMutexAutoLock lock(&m_cmdLock);
    m_diagTunnel = enabled;
    m_tunnelMode = mode;
}

std::string AtService::getShortCmd(const std::string& cmd) {
    if (cmd.empty()) {
        DIAG_LOG(LOG_INFO, "empty.");
        return std::string();
    }
    return atproto::shortCmd(cmd);
}

int AtService::atRead(std::string& text, int size, unsigned limitMs) {
    if (m_hPcuiPort == 0) {
        DIAG_LOG(LOG_ERRO, "m_hpcuiPort is null.");
        return 0;
    }
    const uint64_t start = GetTickMs();
    std::string buffer(static_cast<size_t>(size > 0 ? size : 1), '\0');
    int count = 0;
    for (;;) {
        // The port read itself has no limit, so wait for data no longer than what is left
        // of ours: a silent module ends the exchange at the limit instead of hanging it.
        const uint64_t elapsed = elapsedSince(start);
        const int left = elapsed < limitMs ? static_cast<int>(limitMs - elapsed) : 0;
        const int ready = OS_ADAPT_WaitReadable(m_hPcuiPort, left);
        if (ready == 0) {
            if (limitMs > 0) {
                DIAG_LOG(LOG_WARN, "read timeout (more then %u millisecond).", limitMs);
            }
            return count;
        }
        int got = 0;
        const int status = ready < 0 ? OS_ADAPT_FAILED
                                     : OS_ADAPT_Read(m_hPcuiPort, &buffer[0],
                                                     static_cast<int>(buffer.size()), &got);
        if (status != OS_ADAPT_SUCCESS) {
            DIAG_LOG(LOG_ERRO, "OS_ADAPT_Read failed(error: %d).", status);
            return 0;
        }
        count += got;
        text.append(buffer, 0, static_cast<size_t>(got));
        if (atproto::answerEnded(text)) {
            return count;
        }
        if (text.size() > kAnswerLimitBytes) {
            DIAG_LOG(LOG_ERRO, "an answer of more than %zu bytes without its end; given up.",
                     kAnswerLimitBytes);
            return count;
        }
        if (elapsedSince(start) > limitMs) {
            DIAG_LOG(LOG_WARN, "read timeout (more then %u millisecond).", limitMs);
            return count;
        }
    }
}

int AtService::atWrite(std::string data, int size, unsigned limitMs) {
    if (data.empty()) {
        DIAG_LOG(LOG_ERRO, "input is invalid.");
        return 0;
    }
    if (m_hPcuiPort == 0) {
        DIAG_LOG(LOG_ERRO, "m_hPcuiPort is NULL.");
        return 0;
    }
    const int wanted = std::min(size, static_cast<int>(data.size()));
    const uint64_t start = GetTickMs();
    int total = 0;
    for (;;) {
        int written = 0;
        const int status =
            OS_ADAPT_Write(m_hPcuiPort, data.data() + total, wanted - total, &written);
        if (status != OS_ADAPT_SUCCESS) {
            DIAG_LOG(LOG_ERRO, "OS_ADAPT_Write failed(error: %d).", status);
            return total;
        }
        total += written;
        if (total >= wanted) {
            return total;
        }
        if (elapsedSince(start) >= limitMs) {
            DIAG_LOG(LOG_WARN, "Write timeout(more then %u millisecond).", limitMs);
            return total;
        }
    }
}

AtService::Failure AtService::lastFailure() {
    JMutexAutoLock lock(&m_cmdLock);
    return m_failure;
}

std::string AtService::lastFailureText() {
    JMutexAutoLock lock(&m_cmdLock);
    return m_failureText;
}

bool AtService::fail(Failure why, std::string text) {
    m_failure = why;
    m_failureText = std::move(text);
    return false;
}

bool AtService::acceptCommand(int port, const std::string& cmd) {
    m_failure = Failure::None;
    m_failureText.clear();
    if (port == 0) {
        DIAG_LOG(LOG_ERRO, "pcui port is not open.");
        return fail(Failure::NoPort, "the port is not open");
    }
    if (cmd.empty()) {
        DIAG_LOG(LOG_ERRO, "at cmd is empty.");
        return fail(Failure::NoCommand, "there is no command for that value");
    }
    m_hPcuiPort = port;
    return true;
}

bool AtService::writeCommand(const std::string& wire) {
    const int length = static_cast<int>(wire.size());
    const int written = atWrite(wire, length, kWriteLimitMs);
    if (written != length) {
        DIAG_LOG(LOG_ERRO, "Write data failed(cmd length is %d, but write data length is %d).",
                 length, written);
        return fail(Failure::WriteFailed, "the command could not be written to the port");
    }
    return true;
}

bool AtService::sendATcmd(int port, const std::string& cmd) {
    JMutexAutoLock lock(&m_cmdLock);
    if (!acceptCommand(port, cmd)) {
        return false;
    }
    std::string wire = cmd;
    if (m_diagTunnel) {
        atproto::packTunnelFrame(wire, m_cmdIds);
    }
    if (!writeCommand(wire)) {
        return false;
    }
    DIAG_LOG(LOG_INFO, "AT send: %s", wire.c_str());
    return true;
}

bool AtService::sendATcmdAndWaitResponse(int port, const std::string& cmd, std::string& response,
                                         bool drain, bool logExchange) {
    JMutexAutoLock lock(&m_cmdLock);
    if (!acceptCommand(port, cmd)) {
        return false;
    }
    m_cmd = cmd;
    if (m_diagTunnel) {
        atproto::packTunnelFrame(m_cmd, m_cmdIds);
        if (drain) {
            std::string scratch;
            for (int i = 0; i < kDrainReads; ++i) {
                atRead(scratch, kDrainReadSize, 0);
            }
        }
    }
    if (!writeCommand(m_cmd)) {
        return false;
    }
    if (logExchange) {
        DIAG_LOG(LOG_INFO, "AT send: %s", m_cmd.c_str());
    }
    if (m_diagTunnel) {
        m_cmd.erase(0, kTunnelHeader);
        if (m_tunnelMode == kTunnelReaderOwnsPort) {
            return true;
        }
    }
    std::string answer;
    if (atRead(answer, kAnswerReadSize, kReadLimitMs) < 1) {
        DIAG_LOG(LOG_ERRO, "Get at response failed.");
        return fail(Failure::NoAnswer,
                    "no answer within " + std::to_string(kReadLimitMs / 1000) + " s");
    }
    if (logExchange) {
        DIAG_LOG(LOG_INFO, "AT Response: %s", answer.c_str());
    }
    if (m_diagTunnel) {
        answer.erase(0, kTunnelHeader);
    }
    response = atproto::parseResponse(answer, m_cmd);
    if (response.empty()) {
        DIAG_LOG(LOG_ERRO, "AT response isn't correct.");
        if (answer.find("\r\nERROR") != std::string::npos) {
            return fail(Failure::Refused, "the module answered ERROR");
        }
        return fail(Failure::Garbled, std::to_string(answer.size()) +
                                          " bytes came back that are no AT answer (no final OK)");
    }
    return true;
}
