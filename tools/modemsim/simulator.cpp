#include "simulator.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "atText.h"
#include "diagPacket.h"
#include "seqStream.h"
#include "textUtil.h"

namespace vtools {

namespace {

// How much stream the simulator keeps queued for a slow host before it waits.
constexpr size_t kQueueLimit = 16 * 1024;
constexpr size_t kMeanFrameSize = 100;  // of the sequence stream, on the wire
// A driver's buffer fills in the kernel, ahead of any process; the simulator that plays it
// runs ahead of the host's processes where it may, so that a busy machine does not make it
// lose what a real driver would not.
constexpr int kDriverNice = -10;
constexpr auto kSplitPause = std::chrono::milliseconds(20);

// Names of the AT commands the tunnel knows, in id order; anything else travels as id 0.
const char* const kTunnelNames[] = {"^MDON", "^MDSL", "^MDSTORAGE", "^MDSF",
                                    "^RSFR", "^RSFW", "^CMDLEN"};

unsigned expectedTunnelId(const std::string& text) {
    for (unsigned id = 0; id < sizeof(kTunnelNames) / sizeof(kTunnelNames[0]); ++id) {
        if (text.find(kTunnelNames[id]) != std::string::npos) {
            return id;
        }
    }
    return 0;
}

// The answer to a DIAG request: its header echoed (command code, and the subsystem and
// command or the log operation where there are such), then a 32-bit status of 0.
std::string diagResponse(const std::string& request) {
    const auto code = static_cast<unsigned char>(request[0]);
    size_t header = 1;
    if (code == kCmdSubsystem) {
        header = 4;
    } else if (code == kCmdLogConfig) {
        header = 8;
    } else if (code == 0x7D || code == kCmdEventReport) {
        header = 2;
    }
    std::string response = request.substr(0, std::min(header, request.size()));
    appendLe32(response, 0);
    return response;
}

// An IMC text or an AT command standing at the front of what came on a Diag-side port:
// printable characters from "." or "a", up to a line end. `used` takes the line ends too.
bool textLineAtFront(const std::string& bytes, std::string* line, size_t* used) {
    if (bytes.empty() || (bytes[0] != '.' && bytes[0] != 'a' && bytes[0] != 'A')) {
        return false;
    }
    size_t i = 0;
    while (i < bytes.size() && bytes[i] >= 0x20 && bytes[i] < 0x7E) {
        ++i;
    }
    if (i == bytes.size() || (bytes[i] != '\r' && bytes[i] != '\n')) {
        return false;
    }
    *line = bytes.substr(0, i);
    while (i < bytes.size() && (bytes[i] == '\r' || bytes[i] == '\n')) {
        ++i;
    }
    *used = i;
    return true;
}

bool readWhole(const std::string& path, std::string* data) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    std::ostringstream content;
    content << in.rdbuf();
    *data = content.str();
    return true;
}

}  // namespace

Simulator::Simulator(SimOptions options)
    : opts(std::move(options)), module(opts.at), masks(opts.logRanges, opts.answerRanges) {
    module.echo = opts.echo;
    module.note = [this](const std::string& words) { event(words); };
}

Simulator::~Simulator() {
    for (auto& port : ports) {
        port->pty.close();
    }
    wwan.reset();
    if (recordFile != nullptr) {
        fclose(recordFile);
    }
    if (controlFd != -1) {
        close(controlFd);
        close(controlKeep);
        unlink(opts.controlPath.c_str());
    }
    if (signalFd != -1) {
        close(signalFd);
    }
}

long Simulator::elapsedMs() const {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started).count());
}

void Simulator::record(const Port& port, const std::string& kind, const std::string& data) {
    if (recordFile != nullptr) {
        fprintf(recordFile, "%ld %s %s %s\n", elapsedMs(), port.role.c_str(), kind.c_str(),
                data.c_str());
        fflush(recordFile);
    }
}

void Simulator::event(const std::string& words) {
    if (recordFile != nullptr) {
        fprintf(recordFile, "%ld sim event %s\n", elapsedMs(), words.c_str());
        fflush(recordFile);
    }
}

bool Simulator::start(std::string* error) {
    started = Clock::now();
    if (!opts.sysfsRoot.empty() && opts.wwanDir.empty() &&
        !writeSysfsTree(opts.sysfsRoot, opts.sysfs, error)) {
        return false;
    }
    if (!opts.recordPath.empty()) {
        recordFile = fopen(opts.recordPath.c_str(), "we");
        if (recordFile == nullptr) {
            *error = "fopen(" + opts.recordPath + ") failed: " + strerror(errno);
            return false;
        }
    }
    if (!opts.replayPath.empty()) {
        std::string data;
        if (!readWhole(opts.replayPath, &data)) {
            *error = "open(" + opts.replayPath + ") failed: " + strerror(errno);
            return false;
        }
        // Cut at the flags, so that answers never land inside a replayed frame.
        size_t from = 0;
        while (from < data.size()) {
            size_t flag = data.find(static_cast<char>(kFlag), from);
            flag = flag == std::string::npos ? data.size() : flag + 1;
            replayFrames.push_back(data.substr(from, flag - from));
            from = flag;
        }
    }

    auto addPort = [&](const std::string& role, const std::string& link, bool diag, bool at) {
        auto port = std::make_unique<Port>();
        port->role = role;
        port->linkPath = link;
        port->carriesDiag = diag;
        port->carriesAt = at;
        ports.push_back(std::move(port));
    };
    if (!opts.sharedLink.empty()) {
        addPort("port", opts.sharedLink, true, true);
    }
    if (!opts.diagLink.empty()) {
        addPort("diag", opts.diagLink, true, false);
    }
    if (!opts.pcuiLink.empty()) {
        addPort("pcui", opts.pcuiLink, false, true);
    }
    if (!opts.wwanDir.empty() && !startWwan(error)) {
        return false;
    }
    for (auto& port : ports) {
        if (!port->pty.open(port->linkPath, error)) {
            return false;
        }
    }

    if (!opts.controlPath.empty()) {
        struct stat st {};
        if (stat(opts.controlPath.c_str(), &st) == 0 && !S_ISFIFO(st.st_mode)) {
            *error = opts.controlPath + " exists and is no FIFO";
            return false;
        }
        if (mkfifo(opts.controlPath.c_str(), 0600) != 0 && errno != EEXIST) {
            *error = "mkfifo(" + opts.controlPath + ") failed: " + strerror(errno);
            return false;
        }
        controlFd = open(opts.controlPath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        controlKeep = open(opts.controlPath.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (controlFd == -1 || controlKeep == -1) {
            *error = "open(" + opts.controlPath + ") failed: " + strerror(errno);
            return false;
        }
    }

    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGINT);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGUSR1);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    signal(SIGPIPE, SIG_IGN);
    signalFd = signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK);
    if (signalFd == -1) {
        *error = std::string("signalfd failed: ") + strerror(errno);
        return false;
    }

    if (opts.dropWhenFull && setpriority(PRIO_PROCESS, 0, kDriverNice) != 0) {
        event("driver priority not raised: " + std::string(strerror(errno)));
    }
    for (const Fault& fault : opts.faults) {
        timedFaults.push_back({started + std::chrono::milliseconds(fault.afterMs), fault});
    }
    for (auto& port : ports) {
        printf("%s: %s -> %s\n", port->role.c_str(), port->linkPath.c_str(),
               port->pty.terminal().c_str());
    }
    printf("ready\n");
    fflush(stdout);
    event("ready");
    return true;
}

bool Simulator::startWwan(std::string* error) {
    wwan = std::make_unique<WwanFs>();
    wwan->setSysfsRoot(opts.sysfsRoot);
    wwan->setNote([this](const std::string& words) { event(words); });
    if (!wwan->mount(opts.wwanDir, error)) {
        return false;
    }
    for (auto& port : ports) {
        port->pty.serveThrough(wwan.get(), port->carriesDiag ? WwanFs::kQcdm : WwanFs::kAt);
    }
    return true;
}

Simulator::Port* Simulator::diagPort() {
    for (auto& port : ports) {
        if (port->carriesDiag) {
            return port.get();
        }
    }
    return nullptr;
}

void Simulator::send(Port& port, std::string bytes, bool answer, bool now) {
    if (bytes.empty() || port.silent || port.down) {
        return;
    }
    port.offered += bytes.size();
    port.queued += bytes.size();
    port.answerQueued = port.answerQueued || answer;
    const auto due = Clock::now();
    if (answer && splitSize > 0) {
        auto at = due;
        for (size_t from = 0; from < bytes.size(); from += splitSize) {
            port.out.push_back({bytes.substr(from, splitSize), at});
            at += kSplitPause;
        }
    } else if (opts.dropWhenFull && port.out.empty()) {
        admit(port, std::move(bytes));
    } else {
        port.out.push_back({std::move(bytes), due});
    }
    if (now) {
        flush(port);
    }
}

void Simulator::admit(Port& port, std::string&& bytes) {
    if (port.host.size() - port.hostHead + bytes.size() > opts.hostBuffer) {
        // The driver has no room for the whole transfer: it is gone, and the host never
        // learns of it.
        port.dropped += bytes.size();
        port.queued -= bytes.size();
        ++port.drops;
        return;
    }
    if (port.hostHead == port.host.size()) {
        port.host.clear();
        port.hostHead = 0;
    }
    port.host += bytes;
}

void Simulator::drain(Port& port) {
    // The driver hands the terminal whole USB transfers, one write each. The last transfer
    // of a stream that ended or went silent may be short, and so may one with an answer.
    const bool shortToo = !streaming || !port.carriesDiag || port.answerQueued || port.silent;
    while (port.hostHead < port.host.size() &&
           (shortToo || port.host.size() - port.hostHead >= opts.transfer)) {
        const ssize_t n = write(port.pty.fd(), port.host.data() + port.hostHead,
                                std::min(opts.transfer, port.host.size() - port.hostHead));
        if (n <= 0) {
            break;  // the terminal is full: the rest waits for the host to read
        }
        port.hostHead += static_cast<size_t>(n);
        port.written += static_cast<uint64_t>(n);
        port.queued -= static_cast<size_t>(n);
    }
    if (port.hostHead == port.host.size()) {
        port.host.clear();
        port.hostHead = 0;
        port.answerQueued = false;
    } else if (port.hostHead > (1u << 20) && port.hostHead > port.host.size() / 2) {
        port.host.erase(0, port.hostHead);
        port.hostHead = 0;
    }
}

void Simulator::flush(Port& port) {
    const auto now = Clock::now();
    if (opts.dropWhenFull) {
        while (!port.out.empty() && port.out.front().due <= now && !port.down) {
            admit(port, std::move(port.out.front().bytes));
            port.out.pop_front();
        }
        if (!port.down) {
            drain(port);
        }
        return;
    }
    while (!port.out.empty() && port.out.front().due <= now && !port.down) {
        Chunk& head = port.out.front();
        const ssize_t n = write(port.pty.fd(), head.bytes.data(), head.bytes.size());
        const size_t moved = n > 0 ? static_cast<size_t>(n) : 0;
        port.written += moved;
        port.queued -= moved;
        if (moved == head.bytes.size()) {
            port.out.pop_front();
            continue;
        }
        if (n >= 0 || errno == EAGAIN || errno == EINTR) {
            // The host is slow: wait for room, as terminal flow control makes a module wait.
            head.bytes.erase(0, moved);
            return;
        }
        port.dropped += head.bytes.size() - moved;
        port.queued -= head.bytes.size() - moved;
        ++port.drops;
        port.out.pop_front();
    }
}

void Simulator::startStream() {
    if (streaming) {
        return;
    }
    streaming = true;
    streamStarted = Clock::now();
    streamSlots = 0;
    event("stream start");
}

void Simulator::stopStream(const std::string& why) {
    if (!streaming) {
        return;
    }
    streaming = false;
    event("stream stop " + why + " after " + std::to_string(generated) + " packets");
}

uint64_t Simulator::streamDue() const {
    const long perSecond = opts.byteRate > 0 ? opts.byteRate : opts.rate;
    if (perSecond == 0) {
        return UINT64_MAX;
    }
    const auto us =
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - streamStarted).count();
    return static_cast<uint64_t>(us) / 1000 * static_cast<uint64_t>(perSecond) / 1000;
}

// True while the host sets the pace and has not taken enough: a module behind flow control
// waits for it, and one that never waits, without a rate, keeps the receive buffer half full.
bool Simulator::hostPaced(const Port& port) const {
    return opts.dropWhenFull
               ? (opts.rate == 0 && opts.byteRate == 0 && port.queued >= opts.hostBuffer / 2)
               : port.queued >= kQueueLimit;
}

void Simulator::pump() {
    Port* port = diagPort();
    if (!streaming || port == nullptr || port->down || port->silent) {
        return;
    }
    const uint64_t due = streamDue();
    if (opts.dropWhenFull && due != UINT64_MAX) {
        // A simulator that could not run for a while (a loaded machine) would send all it
        // owes at once, a burst no module makes, and fill the receive buffer by itself.
        // What lies beyond half the buffer is skipped and counted as late instead.
        const size_t half = opts.hostBuffer / 2;
        const uint64_t most = opts.byteRate > 0 ? half : std::max<size_t>(1, half / kMeanFrameSize);
        if (due > streamSlots + most) {
            lateSlots += due - most - streamSlots;
            streamSlots = due - most;
        }
    }
    size_t unflushed = 0;
    while (streamSlots < due) {
        if (opts.total > 0 && generated >= static_cast<uint64_t>(opts.total)) {
            stopStream("total");
            break;
        }
        if (!opts.replayPath.empty() && replayNext >= replayFrames.size()) {
            stopStream("replay end");
            break;
        }
        if (hostPaced(*port)) {
            // The slots the host did not take are not made up later.
            streamSlots = due == UINT64_MAX ? streamSlots : due;
            break;
        }
        std::string bytes;
        size_t size = 0;
        if (!nextStreamFrame(&bytes, &size)) {
            if (!opts.replayPath.empty()) {
                stopStream("replay end");
            }
            break;
        }
        streamSlots += opts.byteRate > 0 ? size : 1;
        if (bytes.empty()) {
            continue;  // a replayed packet the masks keep back: its time passes all the same
        }
        ++generated;
        unflushed += bytes.size();
        // Behind flow control every packet is a write of its own; a driver's buffer fills
        // from the module's packets and goes to the terminal in USB transfers.
        const bool now = !opts.dropWhenFull || unflushed >= opts.transfer;
        send(*port, std::move(bytes), false, now);
        unflushed = now ? 0 : unflushed;
    }
    flush(*port);
}

void Simulator::readPort(Port& port) {
    char buffer[4096];
    const ssize_t n = read(port.pty.fd(), buffer, sizeof(buffer));
    if (n <= 0) {
        return;
    }
    if (port.carriesDiag) {
        port.deframer.feed(buffer, static_cast<size_t>(n));
        takeDiagBytes(port);
    } else {
        takeAtBytes(port, buffer, static_cast<size_t>(n));
    }
}

void Simulator::takeDiagBytes(Port& port) {
    for (;;) {
        const std::string& pending = port.deframer.pending();
        if (port.afterText && !pending.empty() && (pending[0] == '\r' || pending[0] == '\n')) {
            port.deframer.drop(1);
            continue;
        }
        std::string line;
        size_t used = 0;
        if (textLineAtFront(pending, &line, &used)) {
            port.deframer.drop(used);
            port.afterText = true;
            takeDiagText(port, line);
            continue;
        }
        DeframeStep step;
        if (!port.deframer.next(step)) {
            return;
        }
        port.afterText = false;
        takeFrame(port, step);
    }
}

void Simulator::takeDiagText(Port& port, const std::string& line) {
    record(port, "text", escapeText(line));
    const bool trace = line.compare(0, 9, "at+trace=") == 0 || line.compare(0, 9, "AT+TRACE=") == 0;
    if (line[0] == '.') {
        return;  // ".trace-on..." sets the trace mask; the stream waits for at+trace=1
    }
    if (trace || !port.carriesAt) {
        // IMC trace orders on the Diag port are not answered: the port carries only the log.
        module.handle(line);
        const AtModule::Trace order = module.takeTrace();
        if (order == AtModule::Trace::kStart) {
            startStream();
        } else if (order == AtModule::Trace::kStop) {
            stopStream("at+trace=0");
        }
        return;
    }
    send(port, runAt(line), true);
}

void Simulator::takeFrame(Port& port, const DeframeStep& step) {
    if (step.kind == DeframeStep::kJunk) {
        record(port, "junk", hexBytes(step.packet));
        return;
    }
    if (!step.fcsOk) {
        // A module drops a damaged request without a word.
        record(port, "badfcs", hexBytes(step.packet));
        return;
    }
    if (isTunnel(step.packet)) {
        TunnelPacket tunnel;
        if (!parseTunnel(step.packet, &tunnel)) {
            record(port, "badtunnel", hexBytes(step.packet));
            send(port, frame(makeTunnel(tunnel.id, "\r\nERROR\r\n")), true);
            return;
        }
        record(port, "tunnel", std::to_string(tunnel.id) + " " + escapeText(tunnel.text));
        std::string line = tunnel.text;
        while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) {
            line.pop_back();
        }
        std::string answer;
        if (tunnel.id != expectedTunnelId(line)) {
            event("refused tunnel id " + std::to_string(tunnel.id) + " for " + escapeText(line));
            answer = "\r\nERROR\r\n";
        } else {
            answer = runAt(line);
        }
        send(port, frame(makeTunnel(tunnel.id, answer)), true);
        return;
    }
    record(port, "frame", hexBytes(step.packet));
    std::string answer = diagResponse(step.packet);
    takeMaskRequest(step.packet, &answer);
    if (opts.answerRequests && !answer.empty()) {
        send(port, frame(answer), false);
    }
    unsigned operation = 0;
    if (logConfigOperation(step.packet, &operation)) {
        if (operation == 3) {
            startStream();
        } else if (operation == 0) {
            stopStream("log configuration 0");
        }
    }
}

std::string Simulator::runAt(const std::string& line) {
    std::string answer = module.handle(line);
    const AtModule::Trace order = module.takeTrace();
    if (order == AtModule::Trace::kStart) {
        startStream();
    } else if (order == AtModule::Trace::kStop) {
        stopStream("at+trace=0");
    }
    if (!unsolicited.empty()) {
        answer = "\r\n" + unsolicited + "\r\n" + answer;
    }
    return answer;
}

void Simulator::takeAtBytes(Port& port, const char* data, size_t size) {
    port.atLine.append(data, size);
    for (;;) {
        const size_t end = port.atLine.find_first_of("\r\n");
        if (end == std::string::npos) {
            return;
        }
        const std::string line = port.atLine.substr(0, end);
        port.atLine.erase(0, end + 1);
        if (line.empty()) {
            continue;  // the line feed of a "\r\n", or an empty line
        }
        record(port, "at", escapeText(line));
        const bool echo = module.echo;  // ATE0 itself is still echoed
        const std::string answer = runAt(line);
        send(port, (echo ? line + "\r" : "") + answer, true);
    }
}

void Simulator::hangup(Port& port, long downMs) {
    if (port.down) {
        return;
    }
    port.pty.close();
    port.down = true;
    port.reopenAt = Clock::now() + std::chrono::milliseconds(downMs);
    // What the host had not read yet goes with the port.
    port.dropped += port.queued;
    port.out.clear();
    port.host.clear();
    port.hostHead = 0;
    port.queued = 0;
    port.deframer.drop(port.deframer.pending().size());
    port.atLine.clear();
    if (port.carriesDiag) {
        // A module that drops off the bus forgets its log configuration.
        stopStream("hangup");
        masks.reset();
    }
    event("hangup " + port.role + " for " + std::to_string(downMs) + " ms");
}

void Simulator::reopen(Port& port) {
    std::string error;
    if (!port.pty.open(port.linkPath, &error)) {
        fprintf(stderr, "vrec-modemsim: %s\n", error.c_str());
        port.reopenAt = Clock::now() + std::chrono::milliseconds(200);
        return;
    }
    port.down = false;
    if (port.carriesAt) {
        module.echo = opts.echo;  // a module that comes back starts with its defaults
    }
    event("reopen " + port.role + " " + port.pty.terminal());
    printf("%s: %s -> %s\n", port.role.c_str(), port.linkPath.c_str(), port.pty.terminal().c_str());
    fflush(stdout);
}

void Simulator::applyFault(const Fault& fault) {
    event("fault " + fault.given);
    switch (fault.kind) {
        case Fault::kHangup:
            for (auto& port : ports) {
                if (fault.port == "all" || fault.port == port->role) {
                    hangup(*port, fault.value);
                }
            }
            break;
        case Fault::kSilent:
            for (auto& port : ports) {
                if (fault.port == "off") {
                    port->silent = false;
                } else if (fault.port == "all" || fault.port == port->role) {
                    port->silent = true;
                }
            }
            break;
        case Fault::kError:
            if (fault.text.empty()) {
                module.errorCommands.clear();
            } else {
                module.errorCommands.push_back(fault.text);
            }
            break;
        case Fault::kSplit:
            splitSize = static_cast<size_t>(fault.value);
            break;
        case Fault::kUnsolicited:
            unsolicited = fault.text;
            break;
        case Fault::kStopTransfer:
            module.stopTransferAfter = static_cast<int>(fault.value);
            break;
        case Fault::kCrash:
        case Fault::kDumpHangup:
        case Fault::kDumpRefuse:
        case Fault::kDumpSilent:
        case Fault::kDumpMode:
        case Fault::kDumpTableLength:
            crashFault(fault);
            break;
    }
}

void Simulator::report() {
    uint64_t offered = 0;
    uint64_t written = 0;
    uint64_t dropped = 0;
    for (const auto& port : ports) {
        const long perSecond = opts.byteRate > 0 ? opts.byteRate : opts.rate;
        const uint64_t lateMs =
            port->carriesDiag && perSecond > 0 ? lateSlots * 1000 / perSecond : 0;
        const std::string counts =
            port->role + " offered " + std::to_string(port->offered) + " written " +
            std::to_string(port->written) + " dropped " + std::to_string(port->dropped) +
            " queued " + std::to_string(port->queued) + " drops " + std::to_string(port->drops) +
            " late-ms " + std::to_string(lateMs);
        printf("stats: %s\n", counts.c_str());
        event("stats " + counts);
        offered += port->offered;
        written += port->written;
        dropped += port->dropped;
    }
    const std::string total = "offered " + std::to_string(offered) + " written " +
                              std::to_string(written) + " dropped " + std::to_string(dropped) +
                              " packets " + std::to_string(generated);
    printf("stats: total %s\n", total.c_str());
    fflush(stdout);
    event("stats total " + total);
}

void Simulator::controlLine(const std::string& line) {
    if (line.empty()) {
        return;
    }
    if (line == "stats") {
        report();
        return;
    }
    if (line == "quit") {
        quit = true;
        return;
    }
    Fault fault;
    std::string error;
    if (!parseFault(line, &fault, &error)) {
        fprintf(stderr, "vrec-modemsim: %s\n", error.c_str());
        event("control refused " + escapeText(line));
        return;
    }
    if (fault.afterMs > 0) {
        timedFaults.push_back({Clock::now() + std::chrono::milliseconds(fault.afterMs), fault});
    } else {
        applyFault(fault);
    }
}

void Simulator::readControl() {
    char buffer[512];
    ssize_t n = 0;
    while ((n = read(controlFd, buffer, sizeof(buffer))) > 0) {
        controlLineBuffer.append(buffer, static_cast<size_t>(n));
    }
    size_t end = 0;
    while ((end = controlLineBuffer.find('\n')) != std::string::npos) {
        std::string line = controlLineBuffer.substr(0, end);
        controlLineBuffer.erase(0, end + 1);
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        controlLine(line);
    }
}

int Simulator::run() {
    while (!quit) {
        const auto now = Clock::now();
        for (size_t i = 0; i < timedFaults.size();) {
            if (timedFaults[i].due <= now) {
                const TimedFault due = timedFaults[i];
                timedFaults.erase(timedFaults.begin() + static_cast<long>(i));
                applyFault(due.fault);
            } else {
                ++i;
            }
        }
        for (auto& port : ports) {
            if (port->down && port->reopenAt <= now) {
                reopen(*port);
            }
        }
        pump();
        serviceCrash();
        bool waiting = streaming || crashState != Crash::kNone;
        for (auto& port : ports) {
            flush(*port);
            waiting = waiting || port->queued > 0 || port->down;
        }
        waiting = waiting || !timedFaults.empty();

        std::vector<pollfd> fds;
        std::vector<Port*> polled;
        for (auto& port : ports) {
            if (port->down) {
                continue;
            }
            short events = POLLIN;
            const bool due = !port->out.empty() && port->out.front().due <= now;
            if (opts.dropWhenFull ? port->hostHead < port->host.size() : due) {
                events |= POLLOUT;
            }
            fds.push_back({port->pty.fd(), events, 0});
            polled.push_back(port.get());
        }
        short dumpEvents = 0;
        const int dumpFd = dumpPort ? dumpPort->pollFd(&dumpEvents) : -1;
        fds.push_back({dumpFd, dumpEvents, 0});  // a negative descriptor is passed over
        fds.push_back({signalFd, POLLIN, 0});
        if (controlFd != -1) {
            fds.push_back({controlFd, POLLIN, 0});
        }
        const int timeout = waiting ? 2 : 100;
        if (poll(fds.data(), fds.size(), timeout) < 0 && errno != EINTR) {
            perror("vrec-modemsim: poll");
            return 1;
        }
        for (size_t i = 0; i < polled.size(); ++i) {
            if ((fds[i].revents & POLLIN) != 0 && !polled[i]->down) {
                readPort(*polled[i]);
            }
        }
        const size_t signalAt = polled.size() + 1;
        if ((fds[signalAt].revents & POLLIN) != 0) {
            signalfd_siginfo info{};
            while (read(signalFd, &info, sizeof(info)) == sizeof(info)) {
                if (info.ssi_signo == SIGUSR1) {
                    report();
                } else {
                    quit = true;
                }
            }
        }
        if (controlFd != -1 && (fds[signalAt + 1].revents & POLLIN) != 0) {
            readControl();
        }
    }
    event("exit");
    report();
    return 0;
}

}  // namespace vtools
