// Capture throughput: how fast vrec moves a module's Diag stream from its terminal into a
// log file, next to a plain read loop on the same kind of terminal, what that costs in
// processor time and memory, and the highest rate a module that never waits for the host
// can send at without losing bytes. Not a test: it prints figures.
//   capture_bench [MiB of stream, default 256] [--no-sweep]
#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <pty.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "hdlc.h"
#include "seqStream.h"

namespace {

using Clock = std::chrono::steady_clock;

const std::string kBin = VREC_BINARY_DIR;
const std::string kVrec = kBin + "/vrecCmd/vrec";
const std::string kSim = kBin + "/tools/vrec-modemsim";
const std::string kInspect = kBin + "/tools/vrec-inspect";

// Log configuration operation 3, which starts the simulator's stream, and operation 0.
const std::string kStartRequest("\x73\0\0\0\x03\0\0\0\x01\0\0\0\x07\0\0\0\xFF", 17);
const std::string kStopRequest("\x73\0\0\0\0\0\0\0", 8);

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void writeAll(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

void removeTree(const std::string& dir) {
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
}

uint64_t fileSize(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

// Starts `argv` in `dir` with its standard output to `out`.
pid_t spawn(const std::vector<std::string>& argv, const std::string& dir, const std::string& out) {
    const pid_t pid = fork();
    if (pid == 0) {
        std::vector<char*> args;
        for (const std::string& a : argv) {
            args.push_back(const_cast<char*>(a.c_str()));
        }
        args.push_back(nullptr);
        const int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (chdir(dir.c_str()) != 0 || fd < 0) {
            _exit(126);
        }
        dup2(fd, STDOUT_FILENO);
        dup2(fd, STDERR_FILENO);
        execv(args[0], args.data());
        _exit(127);
    }
    return pid;
}

bool waitFor(const std::string& path, const std::string& text, double seconds) {
    const auto start = Clock::now();
    while (readAll(path).find(text) == std::string::npos) {
        if (secondsSince(start) > seconds) {
            return false;
        }
        usleep(2000);
    }
    return true;
}

int finish(pid_t pid, int signal) {
    if (signal != 0 && pid > 0) {
        kill(pid, signal);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The simulator, with its Diag port "diag" in `dir`; -1 if it did not come up.
pid_t startSim(const std::string& dir, std::vector<std::string> args) {
    args.insert(args.begin(), {kSim, "--diag", "diag", "--record", "record.txt"});
    const pid_t pid = spawn(args, dir, dir + "/sim.out");
    if (!waitFor(dir + "/sim.out", "ready\n", 5)) {
        fprintf(stderr, "the simulator did not start in %s\n", dir.c_str());
        finish(pid, SIGKILL);
        return -1;
    }
    return pid;
}

// vrec captures in `dir` from `port`; the pid of the background run, -1 if none.
pid_t startVrec(const std::string& dir, const std::string& port) {
    for (const auto& file : {std::make_pair("/startcmd.txt", kStartRequest),
                             std::make_pair("/stopcmd.txt", kStopRequest)}) {
        std::string text = "{";
        char token[8];
        for (const char c : vtools::frame(file.second)) {
            snprintf(token, sizeof(token), "0x%02X,", static_cast<unsigned char>(c));
            text += token;
        }
        writeAll(dir + file.first, text + "}");
    }
    // vrec forks and its launcher ends once the run is up; the run, its child, comes to us.
    finish(spawn({kVrec, "-d", port}, dir, dir + "/vrec.out"), 0);
    const std::string self = std::to_string(getpid());
    for (int tries = 0; tries < 1000; ++tries) {
        std::ifstream children("/proc/" + self + "/task/" + self + "/children");
        pid_t child = 0;
        while (children >> child) {
            if (readAll("/proc/" + std::to_string(child) + "/comm") == "vrec\n") {
                return child;
            }
        }
        usleep(2000);
    }
    return -1;
}

// A module stand-in on a pseudo-terminal of our own that, once the host's start request
// has come, writes the stream in blocks of 64 KiB: a source faster than the simulator,
// whose writes are one packet each.
class BlockSource {
public:
    explicit BlockSource(const std::string& stream) {
        char name[128] = {};
        openpty(&master, &slave, name, nullptr, nullptr);
        termios tio{};
        tcgetattr(slave, &tio);
        cfmakeraw(&tio);
        tcsetattr(slave, TCSANOW, &tio);
        path = name;
        writer = std::thread([this, &stream] {
            char request[256];
            pollfd pfd{master, POLLIN, 0};
            if (poll(&pfd, 1, 10000) <= 0 || read(master, request, sizeof(request)) <= 0) {
                return;
            }
            for (size_t at = 0; at < stream.size();) {
                const ssize_t n =
                    write(master, stream.data() + at, std::min<size_t>(65536, stream.size() - at));
                if (n <= 0) {
                    return;
                }
                at += static_cast<size_t>(n);
            }
        });
    }
    ~BlockSource() {
        writer.join();
        close(master);
        close(slave);
    }
    std::string path;

private:
    int master = -1;
    int slave = -1;
    std::thread writer;
};

double cpuSeconds(pid_t pid) {
    const std::string stat = readAll("/proc/" + std::to_string(pid) + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string field;
    unsigned long long ticks = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i >= 14) {  // utime, stime
            ticks += strtoull(field.c_str(), nullptr, 10);
        }
    }
    return static_cast<double>(ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

long peakKiB(pid_t pid) {
    const std::string status = readAll("/proc/" + std::to_string(pid) + "/status");
    const size_t at = status.find("VmHWM:");
    return at == std::string::npos ? -1 : strtol(status.c_str() + at + 6, nullptr, 10);
}

// Opens `port` raw for a plain copy, asks for the stream, and opens the copy's file.
int openCopy(const std::string& dir, const std::string& port, int* out) {
    const int fd = open(port.c_str(), O_RDWR | O_NOCTTY);
    termios tio{};
    tcgetattr(fd, &tio);
    cfmakeraw(&tio);
    tcsetattr(fd, TCSANOW, &tio);
    *out = open((dir + "/copy.bin").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const std::string start = vtools::frame(kStartRequest);
    if (write(fd, start.data(), start.size()) != static_cast<ssize_t>(start.size())) {
        perror("write");
    }
    return fd;
}

// A plain copy: a read loop with large reads from `port` into a file, `bytes` long, after
// the start request.
double plainCopy(const std::string& dir, const std::string& port, uint64_t bytes) {
    int out = -1;
    const int fd = openCopy(dir, port, &out);
    std::vector<char> buffer(1 << 20);
    uint64_t got = 0;
    Clock::time_point first;
    while (got < bytes) {
        pollfd pfd{fd, POLLIN, 0};
        if (poll(&pfd, 1, 5000) <= 0) {
            break;
        }
        const ssize_t n = read(fd, buffer.data(), buffer.size());
        if (n <= 0) {
            break;
        }
        if (got == 0) {
            first = Clock::now();
        }
        got += static_cast<uint64_t>(n);
        if (write(out, buffer.data(), static_cast<size_t>(n)) != n) {
            perror("write");
        }
    }
    const double seconds = secondsSince(first);
    close(out);
    close(fd);
    if (got != bytes) {
        fprintf(stderr, "plain copy: %llu of %llu bytes\n", static_cast<unsigned long long>(got),
                static_cast<unsigned long long>(bytes));
    }
    return static_cast<double>(got) / 1e6 / seconds;
}

struct Capture {
    double mbps = 0;
    double cpuPerGiB = 0;
    long peak = 0;
    int stopStatus = -1;
    std::string verdict;
};

Capture vrecCapture(const std::string& dir, const std::string& port, uint64_t bytes) {
    Capture result;
    const pid_t vrec = startVrec(dir, port);
    if (vrec < 0) {
        fprintf(stderr, "vrec did not start: %s\n", readAll(dir + "/vrec.out").c_str());
        return result;
    }
    const std::string log = dir + "/real_log.bin";
    const auto launched = Clock::now();
    while (fileSize(log) == 0 && secondsSince(launched) < 30) {
        usleep(200);
    }
    const auto first = Clock::now();
    const double cpuFirst = cpuSeconds(vrec);
    uint64_t size = 0;
    while ((size = fileSize(log)) < bytes && secondsSince(first) < 600) {
        usleep(1000);
    }
    const double seconds = secondsSince(first);
    result.cpuPerGiB = (cpuSeconds(vrec) - cpuFirst) / (static_cast<double>(size) / (1 << 30));
    result.peak = peakKiB(vrec);
    result.mbps = static_cast<double>(size) / 1e6 / seconds;
    result.stopStatus = finish(vrec, SIGQUIT);
    const pid_t inspect = spawn({kInspect, log}, dir, dir + "/inspect.out");
    finish(inspect, 0);
    const std::string report = readAll(dir + "/inspect.out");
    const size_t at = report.find("verdict: ");
    result.verdict = at == std::string::npos ? "no verdict" : report.substr(at + 9);
    if (!result.verdict.empty() && result.verdict.back() == '\n') {
        result.verdict.pop_back();
    }
    return result;
}

// A plain copy for the drop sweep: reads `port` into a file until the simulator's stream
// has stopped and the port is quiet.
void copyUntilQuiet(const std::string& dir, const std::string& port) {
    int out = -1;
    const int fd = openCopy(dir, port, &out);
    std::vector<char> buffer(1 << 20);
    const auto begun = Clock::now();
    for (;;) {
        pollfd pfd{fd, POLLIN, 0};
        if (poll(&pfd, 1, 200) > 0) {
            const ssize_t n = read(fd, buffer.data(), buffer.size());
            if (n <= 0 || write(out, buffer.data(), static_cast<size_t>(n)) != n) {
                break;
            }
        } else if (readAll(dir + "/record.txt").find("stream stop") != std::string::npos ||
                   secondsSince(begun) > 30) {
            break;
        }
    }
    close(out);
    close(fd);
}

// One capture by vrec or by a plain copy of a module that never waits, sending `rate`
// packets a second for 2 seconds: the bytes it dropped, and the rate it reached in MB/s.
uint64_t droppedAt(const std::string& dir, long rate, bool byVrec, double* mbps) {
    mkdir(dir.c_str(), 0755);
    const pid_t sim = startSim(dir, {"--drop-when-full", "--rate", std::to_string(rate), "--total",
                                     std::to_string(rate * 2)});
    if (sim < 0) {
        return UINT64_MAX;
    }
    if (byVrec) {
        const pid_t vrec = startVrec(dir, "./diag");
        waitFor(dir + "/record.txt", "stream stop", 30);
        usleep(300000);  // the last bytes on their way into the file
        finish(vrec, SIGQUIT);
    } else {
        copyUntilQuiet(dir, dir + "/diag");
    }
    finish(sim, SIGTERM);
    const std::string out = readAll(dir + "/sim.out");
    const std::string record = readAll(dir + "/record.txt");
    removeTree(dir);
    unsigned long long offered = 0;
    unsigned long long written = 0;
    unsigned long long dropped = UINT64_MAX;
    const size_t stats = out.rfind("stats: diag");
    if (stats != std::string::npos) {
        sscanf(out.c_str() + stats, "stats: diag offered %llu written %llu dropped %llu", &offered,
               &written, &dropped);
    }
    // The stream's own time, from the simulator's record.
    const size_t startAt = record.rfind('\n', record.find(" stream start"));
    const size_t stopAt = record.rfind('\n', record.find(" stream stop"));
    const long startMs = strtol(record.c_str() + startAt + 1, nullptr, 10);
    const long stopMs = strtol(record.c_str() + stopAt + 1, nullptr, 10);
    *mbps =
        static_cast<double>(offered) / 1e3 / static_cast<double>(std::max(1L, stopMs - startMs));
    return dropped;
}

// The highest rate, in packets a second (about 96 bytes each), at which nothing is dropped:
// doubled until bytes are lost, then three halvings of the gap.
void sweep(const std::string& dir, bool byVrec) {
    const char* reader = byVrec ? "vrec" : "plain copy";
    long passed = 0;
    long failed = 0;
    double passedMbps = 0;
    for (int step = 0; step < 20 && (failed == 0 || failed - passed > failed / 16); ++step) {
        const long rate = failed == 0 ? 6250L << step : (passed + failed) / 2;
        double mbps = 0;
        const uint64_t lost = droppedAt(dir + "/rate", rate, byVrec, &mbps);
        printf("  %-10s %8ld packets/s, %6.1f MB/s offered, %llu bytes dropped\n", reader, rate,
               mbps, static_cast<unsigned long long>(lost));
        fflush(stdout);
        (lost == 0 ? passed : failed) = rate;
        passedMbps = lost == 0 ? mbps : passedMbps;
    }
    printf("  %-10s highest rate with nothing dropped: %ld packets/s, %.1f MB/s\n", reader, passed,
           passedMbps);
}

// A network namespace of our own, so that vrec's control port meets no other run.
void isolateNetwork() {
    if (unshare(CLONE_NEWNET) != 0) {
        fprintf(stderr, "note: no network namespace of our own (%s)\n", strerror(errno));
        return;
    }
    const int sock = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq ifr{};
    strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
    if (ioctl(sock, SIOCGIFFLAGS, &ifr) == 0) {
        ifr.ifr_flags |= IFF_UP;
        ioctl(sock, SIOCSIFFLAGS, &ifr);
    }
    close(sock);
}

}  // namespace

int main(int argc, char** argv) {
    uint64_t mib = 256;
    bool withSweep = true;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--no-sweep") == 0) {
            withSweep = false;
        } else {
            mib = strtoull(argv[i], nullptr, 10);
        }
    }
    isolateNetwork();
    prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
    signal(SIGPIPE, SIG_IGN);
    char pattern[] = "/tmp/vrec-bench-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        perror("mkdtemp");
        return 1;
    }
    const std::string dir = pattern;

    // The stream: as many of the simulator's packets as make `mib` MiB, and the module's
    // answer to the start request before them.
    uint64_t packets = 0;
    uint64_t bytes = vtools::frame(kStartRequest.substr(0, 8) + std::string(4, '\0')).size();
    while (bytes < (mib << 20)) {
        bytes += vtools::frame(vtools::simLogPacket(static_cast<uint32_t>(packets++))).size();
    }
    printf("stream: %llu packets, %llu bytes (%.1f MiB)\n",
           static_cast<unsigned long long>(packets), static_cast<unsigned long long>(bytes),
           static_cast<double>(bytes) / (1 << 20));
    fflush(stdout);

    // From the simulator, and from a source that writes in large blocks: a plain copy and
    // vrec each, one after the other, each in a directory of its own.
    std::string stream = vtools::frame(kStartRequest.substr(0, 8) + std::string(4, '\0'));
    for (uint64_t seq = 0; seq < packets; ++seq) {
        stream += vtools::frame(vtools::simLogPacket(static_cast<uint32_t>(seq)));
    }
    for (const bool blocks : {false, true}) {
        double copy = 0;
        Capture capture;
        for (const char* part : {"copy", "vrec"}) {
            const std::string where = dir + "/" + part;
            mkdir(where.c_str(), 0755);
            pid_t sim = -1;
            std::unique_ptr<BlockSource> source;
            std::string port = where + "/diag";
            if (blocks) {
                source = std::make_unique<BlockSource>(stream);
                port = source->path;
            } else {
                sim = startSim(where, {"--total", std::to_string(packets)});
            }
            if (part[0] == 'c') {
                copy = plainCopy(where, port, bytes);
            } else {
                capture = vrecCapture(where, port, bytes);
            }
            if (sim > 0) {
                finish(sim, SIGTERM);
            }
            source.reset();
            removeTree(where);
        }
        printf("%s\n", blocks ? "from a source writing blocks of 64 KiB:"
                              : "from vrec-modemsim at rate 0 (one write per packet):");
        printf("  plain copy:        %8.1f MB/s\n", copy);
        printf("  vrec:              %8.1f MB/s (%.2f of the plain copy)\n", capture.mbps,
               copy > 0 ? capture.mbps / copy : 0);
        printf("  vrec processor:    %8.2f s per GiB\n", capture.cpuPerGiB);
        printf("  vrec peak memory:  %8.1f MiB resident (VmHWM)\n", capture.peak / 1024.0);
        printf("  vrec stop status:  %8d\n", capture.stopStatus);
        printf("  capture:           %s (vrec-inspect)\n", capture.verdict.c_str());
        fflush(stdout);
    }

    if (withSweep) {
        printf("drop sweep (vrec-modemsim --drop-when-full, 2 s per rate):\n");
        sweep(dir, false);
        sweep(dir, true);
    }
    removeTree(dir);
    return 0;
}
