// Capture throughput: vrec against a plain copy of the same terminal stream (wait, read up to
// 64 KiB, write each read to a file: what the field's capture tools do), in pairs, taking
// the medians of several rounds. Figures: MB/s, processor seconds per GiB and peak resident
// memory of the capturing process, from a terminal fed in 64 KiB blocks and from the
// simulator's one-write-per-packet stream; then, on storage that stalls 250 ms every second,
// the highest rate of a module that never waits (the simulator's driver model) at which
// nothing is lost. The simulator's stream also comes through a PCIe module's port, its
// WWAN stand-in (a FUSE file that is not a terminal), where libfuse3 is there. With --small,
// the rates modules really send on a small processor instead: processor seconds per GiB at a
// few rates, and the highest rate with nothing lost with the capturing process held to a
// share of one core, for large and small USB transfers.
// Not a test: it prints figures.
//   capture_bench [--quick] [--rounds N] [--blocks MIB] [--packets MIB]
//                 [--rates MB,MB,...] [--seconds S] [--stall MS/EVERY] [--no-sweep]
//                 [--no-wwan]
//   capture_bench --small [--rounds N] [--seconds S] [--transfers B,B] [--cpu-rates MB,...]
//                 [--shares PCT,PCT] [--ladder MB,MB,...]
#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <pty.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
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

#include "benchkit.h"
#include "cpuLimit.h"
#include "hdlc.h"
#include "seqStream.h"

namespace {

using benchkit::readAll;

// The stream's own time in milliseconds, from its start and stop in the simulator's record.
long streamMs(const std::string& recordPath) {
    const std::string record = readAll(recordPath);
    const size_t startAt = record.rfind('\n', record.find(" stream start"));
    const size_t stopAt = record.rfind('\n', record.find(" stream stop"));
    return std::max(1L, atol(record.c_str() + stopAt + 1) - atol(record.c_str() + startAt + 1));
}

using Clock = std::chrono::steady_clock;

const std::string kBin = VREC_BINARY_DIR;
const std::string kVrec = kBin + "/vrecCmd/vrec";
const std::string kSim = kBin + "/tools/vrec-modemsim";
const std::string kStallFs = kBin + "/tools/vrec-stallfs";
constexpr double kGiB = 1024.0 * 1024 * 1024;

// Log configuration operation 3, which starts the simulator's stream, and operation 0.
const std::string kStartRequest("\x73\0\0\0\x03\0\0\0\x01\0\0\0\x07\0\0\0\xFF", 17);
const std::string kStopRequest("\x73\0\0\0\0\0\0\0", 8);

struct Settings {
    int rounds = 5;
    uint64_t blockMiB = 256;
    uint64_t packetMiB = 64;
    std::vector<long> ratesMB = {2, 4, 8, 16, 24, 32, 48};
    int seconds = 4;
    long stallMs = 250;
    long everyMs = 1000;
    bool sweep = true;
    bool wwan = true;
    // The small-processor mode.
    bool small = false;
    std::vector<long> transfers = {4096, 512};
    std::vector<double> cpuRatesMB = {0.5, 2, 8};
    std::vector<double> sharesPercent = {10, 5};
    std::vector<double> ladderMB = {0.25, 0.5, 1, 1.5, 2, 3, 4, 6, 8, 12, 16, 24, 32, 48};
};

// Where a capture's stream comes from.
enum class Source { kBlocks, kPackets, kWwanPackets };

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
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

// Starts `argv` in `dir` with its standard output to `out`, in the cgroup whose process list
// is `cgroup` if one is given.
pid_t spawn(const std::vector<std::string>& argv, const std::string& dir, const std::string& out,
            const std::string& cgroup = "") {
    std::vector<char*> args;
    for (const std::string& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (chdir(dir.c_str()) != 0 || fd < 0 ||
            (!cgroup.empty() && !benchkit::CpuLimit::join(cgroup))) {
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

// How a process of ours ended, with what it cost.
struct Usage {
    double cpuSeconds = 0;  // user and system
    long peakKiB = 0;       // largest resident set
};

Usage finish(pid_t pid, int signal) {
    if (pid <= 0) {
        return Usage();
    }
    if (signal != 0) {
        kill(pid, signal);
    }
    int status = 0;
    rusage use{};
    wait4(pid, &status, 0, &use);
    Usage usage;
    usage.cpuSeconds = static_cast<double>(use.ru_utime.tv_sec + use.ru_stime.tv_sec) +
                       static_cast<double>(use.ru_utime.tv_usec + use.ru_stime.tv_usec) / 1e6;
    usage.peakKiB = use.ru_maxrss;
    return usage;
}

// Opens `port` raw, as a capture tool does.
int openRaw(const std::string& port) {
    const int fd = open(port.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios tio{};
    tcgetattr(fd, &tio);
    cfmakeraw(&tio);
    tcsetattr(fd, TCSANOW, &tio);
    return fd;
}

// The plain copy, run as a process of its own (this program with --plain-copy) so that its
// processor time is its own: asks for the stream, then waits, reads up to 64 KiB and writes
// each read to `file`, until `bytes` came (0: until it is told to end).
volatile sig_atomic_t g_copyEnds = 0;

int plainCopy(const std::string& port, const std::string& file, uint64_t bytes) {
    // Told to end, it still reports its peak.
    struct sigaction ending {};
    ending.sa_handler = [](int) { g_copyEnds = 1; };
    sigaction(SIGTERM, &ending, nullptr);
    const int fd = openRaw(port);
    const int out = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || out < 0) {
        perror("plain copy: open");
        return 1;
    }
    const std::string start = vtools::frame(kStartRequest);
    if (write(fd, start.data(), start.size()) != static_cast<ssize_t>(start.size())) {
        perror("plain copy: write");
    }
    std::vector<char> buffer(64 * 1024);
    for (uint64_t got = 0; (bytes == 0 || got < bytes) && g_copyEnds == 0;) {
        pollfd pfd{fd, POLLIN, 0};
        const int ready = poll(&pfd, 1, bytes == 0 ? -1 : 10000);
        if (ready == 0 || (ready < 0 && errno != EINTR)) {
            return 1;
        }
        if (ready < 0) {
            continue;
        }
        const ssize_t n = read(fd, buffer.data(), buffer.size());
        if (n <= 0) {
            return n == 0 ? 0 : 1;
        }
        got += static_cast<uint64_t>(n);
        for (ssize_t done = 0; done < n;) {
            const ssize_t w = write(out, buffer.data() + done, static_cast<size_t>(n - done));
            if (w <= 0) {
                return 1;
            }
            done += w;
        }
    }
    // Our own peak: the one the parent learns of at the end may be that of the process
    // forked to start this one.
    const std::string status = readAll("/proc/self/status");
    const size_t at = status.find("VmHWM:");
    printf("peak %ld KiB\n", at == std::string::npos ? 0 : atol(status.c_str() + at + 6));
    return 0;
}

pid_t startCopy(const std::string& port, const std::string& file, uint64_t bytes,
                const std::string& dir, const std::string& cgroup = "") {
    return spawn({"/proc/self/exe", "--plain-copy", port, file, std::to_string(bytes)}, dir,
                 dir + "/copy.out", cgroup);
}

// vrec captures in `dir` from `port`, printing to `out`; the pid of the background run, -1
// if none.
pid_t startVrec(const std::string& dir, const std::string& port, const std::string& out,
                const std::string& cgroup = "") {
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
    finish(spawn({kVrec, "-d", port}, dir, out, cgroup), 0);
    return benchkit::adoptedVrecRun(1000, 2000);
}

// The simulator, with its Diag port "diag" and control FIFO "ctl" in `dir`.
class Sim {
public:
    Sim(const std::string& where, std::vector<std::string> args, bool wwan = false) : dir(where) {
        args.insert(args.begin(),
                    {kSim, "--diag", "diag", "--record", "record.txt", "--control", "ctl"});
        if (wwan) {
            args.insert(args.end(), {"--wwan", dir + "/wwan"});
        }
        pid = spawn(args, dir, dir + "/sim.out");
        if (!waitFor(dir + "/sim.out", "ready\n", 5)) {
            fprintf(stderr, "the simulator did not start in %s\n", dir.c_str());
            finish(pid, SIGKILL);
            pid = -1;
        }
    }
    ~Sim() { finish(pid, SIGTERM); }
    Sim(const Sim&) = delete;
    Sim& operator=(const Sim&) = delete;
    bool ready() const { return pid > 0; }
    std::string port() const { return dir + "/diag"; }

    struct Counts {
        unsigned long long offered = 0, written = 0, dropped = 0, queued = 0, drops = 0, lateMs = 0;
        bool valid = false;
    };
    Counts counts() {
        const std::string out = dir + "/sim.out";
        const std::string earlier = readAll(out);
        const size_t before = static_cast<size_t>(std::count(earlier.begin(), earlier.end(), '\n'));
        writeAll(dir + "/ctl", "stats\n");
        Counts c;
        for (const auto start = Clock::now(); secondsSince(start) < 5; usleep(2000)) {
            const std::string text = readAll(out);
            if (static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) > before + 1) {
                const size_t at = text.rfind("stats: diag ");
                c.valid =
                    at != std::string::npos &&
                    sscanf(text.c_str() + at,
                           "stats: diag offered %llu written %llu dropped %llu queued %llu "
                           "drops %llu late-ms %llu",
                           &c.offered, &c.written, &c.dropped, &c.queued, &c.drops, &c.lateMs) == 6;
                break;
            }
        }
        return c;
    }
    // The counts once the stream has ended and the host took everything that was queued.
    Counts settled(double seconds) {
        waitFor(dir + "/record.txt", "stream stop", seconds);
        Counts last;
        for (const auto start = Clock::now(); secondsSince(start) < 15; usleep(100 * 1000)) {
            const Counts now = counts();
            if (now.valid && now.queued == 0 && now.written == last.written) {
                return now;
            }
            last = now;
        }
        return Counts();
    }

private:
    std::string dir;
    pid_t pid = -1;
};

// A module stand-in on a pseudo-terminal of our own that, once the host's start request
// has come, writes the stream in blocks of 64 KiB as fast as the host takes them.
class BlockSource {
public:
    explicit BlockSource(const std::string& stream) {
        char name[128] = {};
        openpty(&master, &slave, name, nullptr, nullptr);
        fcntl(master, F_SETFD, FD_CLOEXEC);
        fcntl(slave, F_SETFD, FD_CLOEXEC);
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

struct Figures {
    double mbps = 0;
    double cpuPerGiB = 0;
    long peakKiB = 0;
    bool whole = false;
};

// One capture of `stream` from `port` into `file` by the process `pid`: MB/s from the
// first byte in the file to the last, and what the process cost once `stop` ended it.
Figures measure(pid_t pid, const std::string& file, const std::string& stream, int stop) {
    Figures figures;
    const auto launched = Clock::now();
    while (fileSize(file) == 0 && secondsSince(launched) < 30) {
        usleep(200);
    }
    const auto first = Clock::now();
    auto grown = first;
    uint64_t size = 0;
    for (uint64_t last = 0; (size = fileSize(file)) < stream.size(); last = size) {
        if (size != last) {
            grown = Clock::now();
        } else if (secondsSince(grown) > 10) {
            break;  // the capture is stuck
        }
        usleep(500);
    }
    figures.mbps = static_cast<double>(size) / 1e6 / secondsSince(first);
    const Usage usage = finish(pid, stop);
    figures.cpuPerGiB = usage.cpuSeconds / (static_cast<double>(size) / kGiB);
    figures.peakKiB = usage.peakKiB;
    // Behind the stream there may be the module's answer to a stop command.
    figures.whole = readAll(file).compare(0, stream.size(), stream) == 0;
    return figures;
}

// One pair of captures of `stream`: the plain copy and vrec, in the order `copyFirst` says,
// each in a directory of its own, from a block source or from the simulator.
void capturePair(const std::string& dir, const std::string& stream, uint64_t packets, Source from,
                 bool copyFirst, Figures* copy, Figures* vrec) {
    const bool blocks = from == Source::kBlocks;
    for (const bool byCopy : {copyFirst, !copyFirst}) {
        const std::string where = dir + (byCopy ? "/copy" : "/vrec");
        mkdir(where.c_str(), 0755);
        std::unique_ptr<BlockSource> source;
        std::unique_ptr<Sim> sim;
        std::string port;
        if (blocks) {
            source = std::make_unique<BlockSource>(stream);
            port = source->path;
        } else {
            sim = std::make_unique<Sim>(
                where, std::vector<std::string>{"--total", std::to_string(packets)},
                from == Source::kWwanPackets);
            port = sim->port();
        }
        if (byCopy) {
            const std::string file = where + "/copy.bin";
            *copy = measure(startCopy(port, file, stream.size(), where), file, stream, 0);
            const std::string said = readAll(where + "/copy.out");
            const size_t at = said.find("peak ");
            copy->peakKiB = at == std::string::npos ? 0 : atol(said.c_str() + at + 5);
        } else {
            *vrec = measure(startVrec(where, port, where + "/vrec.out"), where + "/real_log.bin",
                            stream, SIGQUIT);
        }
        sim.reset();
        source.reset();
        if ((byCopy ? copy : vrec)->whole) {
            removeTree(where);
        } else {
            // Kept for a look, under a name of its own.
            static int kept = 0;
            const std::string keep =
                "/tmp/vrec-bench-kept-" + std::to_string(getpid()) + "-" + std::to_string(++kept);
            rename(where.c_str(), keep.c_str());
            fprintf(stderr, "a capture that is not whole is kept in %s\n", keep.c_str());
        }
    }
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n == 0 ? 0 : n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// The module's answer to the start request (its status, then the mask echoed), then `packets`
// packets of the stream.
std::string streamOf(uint64_t packets) {
    std::string stream =
        vtools::frame(kStartRequest.substr(0, 8) + std::string(4, '\0') + kStartRequest.substr(8));
    for (uint64_t seq = 0; seq < packets; ++seq) {
        stream += vtools::frame(vtools::simLogPacket(static_cast<uint32_t>(seq)));
    }
    return stream;
}

uint64_t packetsFor(uint64_t bytes) {
    uint64_t packets = 0;
    for (uint64_t size = 0; size < bytes; ++packets) {
        size += vtools::frame(vtools::simLogPacket(static_cast<uint32_t>(packets))).size();
    }
    return packets;
}

uint64_t meanFrameSize() {
    static const uint64_t mean = [] {
        constexpr uint64_t kSample = 100000;
        uint64_t bytes = 0;
        for (uint64_t seq = 0; seq < kSample; ++seq) {
            bytes += vtools::frame(vtools::simLogPacket(static_cast<uint32_t>(seq))).size();
        }
        return bytes / kSample;
    }();
    return mean;
}

void compare(const Settings& settings, const std::string& dir, Source from) {
    const bool blocks = from == Source::kBlocks;
    const uint64_t mib = blocks ? settings.blockMiB : settings.packetMiB;
    const uint64_t packets = packetsFor(mib << 20);
    const std::string stream = streamOf(packets);
    std::vector<double> mbps[2], cpu[2];
    long peak[2] = {0, 0};
    int whole[2] = {0, 0};
    for (int round = 0; round < settings.rounds; ++round) {
        Figures figures[2];
        capturePair(dir, stream, packets, from, round % 2 == 0, &figures[0], &figures[1]);
        for (int who = 0; who < 2; ++who) {
            mbps[who].push_back(figures[who].mbps);
            cpu[who].push_back(figures[who].cpuPerGiB);
            peak[who] = std::max(peak[who], figures[who].peakKiB);
            whole[who] += figures[who].whole ? 1 : 0;
        }
    }
    char source[64];
    snprintf(source, sizeof(source), "%s (%llu MiB)",
             blocks                         ? "64 KiB blocks"
             : from == Source::kWwanPackets ? "packets, WWAN node"
                                            : "simulator packets",
             static_cast<unsigned long long>(mib));
    for (int who = 0; who < 2; ++who) {
        printf("%-28s %-11s %8.1f %11.2f %8.1f MiB %5d/%d\n", who == 0 ? source : "",
               who == 0 ? "plain copy" : "vrec", median(mbps[who]), median(cpu[who]),
               static_cast<double>(peak[who]) / 1024, whole[who], settings.rounds);
    }
    printf("%-28s vrec/copy   %8.2f %11.2f\n", "", median(mbps[1]) / median(mbps[0]),
           median(cpu[1]) / median(cpu[0]));
    fflush(stdout);
}

// vrec-stallfs over `dir`/mnt, mirroring `dir`/data; unmounted at the end of the scope.
class StallingStorage {
public:
    StallingStorage(const std::string& where, long stallMs, long everyMs) : mnt(where + "/mnt") {
        const std::string data = where + "/data";
        mkdir(where.c_str(), 0755);
        mkdir(mnt.c_str(), 0755);
        mkdir(data.c_str(), 0755);
        if (access(kStallFs.c_str(), X_OK) != 0) {
            why = "vrec-stallfs was not built (libfuse3 missing; scripts/setup.sh installs it)";
            return;
        }
        pid = spawn({kStallFs, "--every-ms", std::to_string(everyMs), "--stall-ms",
                     std::to_string(stallMs), data, mnt},
                    where, where + "/stallfs.out");
        if (!waitFor(where + "/stallfs.out", "ready\n", 5)) {
            why = "vrec-stallfs did not mount: " + readAll(where + "/stallfs.out");
            finish(pid, SIGKILL);
            pid = -1;
        }
    }
    ~StallingStorage() {
        if (pid > 0) {
            finish(spawn({"/bin/sh", "-c", "exec fusermount3 -u \"$0\"", mnt}, "/", "/dev/null"),
                   0);
            finish(pid, 0);
        }
    }
    StallingStorage(const StallingStorage&) = delete;
    StallingStorage& operator=(const StallingStorage&) = delete;
    bool mounted() const { return pid > 0; }
    const std::string mnt;
    std::string why;

private:
    pid_t pid = -1;
};

// One capture onto the stalling storage of a module that never waits, sending `mbPerSecond`
// MB/s for `seconds`.
struct SweepRun {
    uint64_t lost = UINT64_MAX;  // at the source or in the capture; UINT64_MAX: the run failed
    uint64_t atSource = 0;       // of that, dropped by the driver's full buffer
    double mbps = 0;             // what the simulator offered, in its stream's own time
};

SweepRun lostAt(const std::string& dir, const std::string& storage, long mbPerSecond, int seconds,
                bool byVrec) {
    const std::string simDir = dir + "/sim";
    const std::string capDir = storage + "/run";
    mkdir(simDir.c_str(), 0755);
    mkdir(capDir.c_str(), 0755);
    const long bytesPerSecond = mbPerSecond * 1000000;
    const uint64_t packets = static_cast<uint64_t>(bytesPerSecond) * seconds / meanFrameSize();
    SweepRun run;
    {
        Sim sim(simDir, {"--drop-when-full", "--byte-rate", std::to_string(bytesPerSecond),
                         "--total", std::to_string(packets)});
        const std::string file = capDir + (byVrec ? "/real_log.bin" : "/copy.bin");
        const pid_t capture = !sim.ready() ? -1
                              : byVrec     ? startVrec(capDir, sim.port(), simDir + "/vrec.out")
                                           : startCopy(sim.port(), file, 0, simDir);
        if (capture > 0) {
            const Sim::Counts counts = sim.settled(seconds + 20);
            // The capture's storage may still be in a stall: give it time to catch up.
            for (const auto start = Clock::now();
                 fileSize(file) < counts.written && secondsSince(start) < 3; usleep(10000)) {
            }
            const uint64_t captured = fileSize(file);
            finish(capture, byVrec ? SIGQUIT : SIGTERM);
            if (counts.valid) {
                run.atSource = counts.dropped;
                run.lost =
                    counts.dropped + (counts.written > captured ? counts.written - captured : 0);
            }
            // The stream's own time, from the simulator's record.
            run.mbps = static_cast<double>(counts.offered) / 1e3 /
                       static_cast<double>(streamMs(simDir + "/record.txt"));
        }
    }
    removeTree(simDir);
    removeTree(capDir);
    return run;
}

void stallSweep(const Settings& settings, const std::string& dir) {
    StallingStorage storage(dir + "/stall", settings.stallMs, settings.everyMs);
    if (!storage.mounted()) {
        printf("stalling storage: left out: %s\n", storage.why.c_str());
        return;
    }
    printf(
        "\nstalling storage (writes stall %ld ms every %ld ms), module never waits\n"
        "(vrec-modemsim --drop-when-full, 640 KiB host buffer), %d s per rate;\n"
        "lost: at the port (the driver's buffer was full) + in the capture (read, not\n"
        "stored); in brackets the rate the simulator reached:\n"
        "%-10s %-30s %-30s\n",
        settings.stallMs, settings.everyMs, settings.seconds, "MB/s", "plain copy", "vrec");
    long best[2] = {0, 0};
    double reached[2] = {0, 0};
    bool failed[2] = {false, false};
    for (const long rate : settings.ratesMB) {
        std::string cells[2];
        for (int who = 0; who < 2; ++who) {
            if (failed[who]) {
                cells[who] = "-";
                continue;
            }
            const SweepRun run = lostAt(dir, storage.mnt, rate, settings.seconds, who == 1);
            failed[who] = run.lost != 0;
            if (!failed[who]) {
                best[who] = rate;
                reached[who] = run.mbps;
            }
            char text[96];
            if (run.lost == UINT64_MAX) {
                snprintf(text, sizeof(text), "run failed");
            } else if (run.lost == 0) {
                snprintf(text, sizeof(text), "nothing lost (%.1f)", run.mbps);
            } else {
                snprintf(text, sizeof(text), "lost %.2f+%.2f MB (%.1f)",
                         static_cast<double>(run.atSource) / 1e6,
                         static_cast<double>(run.lost - run.atSource) / 1e6, run.mbps);
            }
            cells[who] = text;
        }
        printf("%-10ld %-30s %-30s\n", rate, cells[0].c_str(), cells[1].c_str());
        fflush(stdout);
        if (failed[0] && failed[1]) {
            break;
        }
    }
    printf(
        "highest rate with nothing lost: plain copy %ld MB/s (%.1f reached), vrec %ld MB/s "
        "(%.1f reached)%s\n",
        best[0], reached[0], best[1], reached[1], failed[1] ? "" : ", the highest tried");
}

// ---- the small processor ----

// One capture of a module that never waits, sending `bytesPerSecond` in USB transfers of
// `transfer` bytes for `seconds`, onto a directory that keeps up, by vrec or the plain copy,
// in the cgroup `cgroup` if one is given.
struct SmallRun {
    uint64_t lost = UINT64_MAX;  // UINT64_MAX: the run failed
    uint64_t captured = 0;
    // Processor time of the capturing process while it captured `steadyBytes`: from its
    // first stored byte to the end of the stream, so that start-up work (finding the port,
    // reading command files) does not weigh on a short run.
    double cpuSeconds = 0;
    uint64_t steadyBytes = 0;
    long peakKiB = 0;
    double mbps = 0;  // what the simulator offered, in its stream's own time
};

// Processor time of all threads of `pid` so far, in seconds.
double threadSeconds(pid_t pid) {
    std::error_code error;
    uint64_t ns = 0;
    for (const auto& task :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", error)) {
        std::ifstream in(task.path() / "schedstat");
        uint64_t onCpu = 0;
        if (in >> onCpu) {
            ns += onCpu;
        }
    }
    return static_cast<double>(ns) / 1e9;
}

SmallRun smallRun(const std::string& dir, long bytesPerSecond, long transfer, int seconds,
                  bool byVrec, const std::string& cgroup) {
    const std::string simDir = dir + "/sim";
    const std::string capDir = dir + "/run";
    mkdir(simDir.c_str(), 0755);
    mkdir(capDir.c_str(), 0755);
    const uint64_t packets =
        std::max<uint64_t>(1, static_cast<uint64_t>(bytesPerSecond) * seconds / meanFrameSize());
    SmallRun run;
    {
        Sim sim(simDir,
                {"--drop-when-full", "--byte-rate", std::to_string(bytesPerSecond), "--transfer",
                 std::to_string(transfer), "--total", std::to_string(packets)});
        const std::string file = capDir + (byVrec ? "/real_log.bin" : "/copy.bin");
        const pid_t capture = !sim.ready() ? -1
                              : byVrec ? startVrec(capDir, sim.port(), simDir + "/vrec.out", cgroup)
                                       : startCopy(sim.port(), file, 0, capDir, cgroup);
        if (capture > 0) {
            for (const auto start = Clock::now(); fileSize(file) == 0 && secondsSince(start) < 10;
                 usleep(1000)) {
            }
            const uint64_t firstBytes = fileSize(file);
            const double firstCpu = threadSeconds(capture);
            const Sim::Counts counts = sim.settled(seconds + 20);
            for (const auto start = Clock::now();
                 fileSize(file) < counts.written && secondsSince(start) < 3; usleep(10000)) {
            }
            run.captured = fileSize(file);
            run.cpuSeconds = threadSeconds(capture) - firstCpu;
            run.steadyBytes = run.captured - std::min(run.captured, firstBytes);
            const Usage usage = finish(capture, byVrec ? SIGQUIT : SIGTERM);
            run.peakKiB = usage.peakKiB;
            if (!byVrec) {
                // The copy's own figure: the one of its process includes the fork it came from.
                const std::string said = readAll(capDir + "/copy.out");
                const size_t at = said.find("peak ");
                run.peakKiB = at == std::string::npos ? 0 : atol(said.c_str() + at + 5);
            }
            if (counts.valid) {
                run.lost = counts.dropped +
                           (counts.written > run.captured ? counts.written - run.captured : 0);
            }
            run.mbps = static_cast<double>(counts.offered) / 1e3 /
                       static_cast<double>(streamMs(simDir + "/record.txt"));
        }
    }
    removeTree(simDir);
    removeTree(capDir);
    return run;
}

std::string rateText(double mb) {
    char text[32];
    snprintf(text, sizeof(text), "%g", mb);
    return text;
}

// Processor seconds per GiB at the rates modules send, without a limit, each rate a pair of
// runs per round in alternating order; medians.
void smallCpu(const Settings& settings, const std::string& dir, long transfer) {
    printf("%-10s %14s %14s %10s %14s %14s\n", "MB/s", "copy CPU s/GiB", "vrec CPU s/GiB",
           "vrec/copy", "copy peak RSS", "vrec peak RSS");
    for (const double rate : settings.cpuRatesMB) {
        std::vector<double> cpu[2];
        long peak[2] = {0, 0};
        int failed = 0;
        for (int round = 0; round < settings.rounds; ++round) {
            for (const int who : {round % 2, 1 - round % 2}) {
                const SmallRun run = smallRun(dir, static_cast<long>(rate * 1e6), transfer,
                                              settings.seconds, who == 1, "");
                if (run.lost != 0 || run.captured == 0) {
                    ++failed;
                    continue;
                }
                cpu[who].push_back(
                    run.cpuSeconds /
                    (static_cast<double>(std::max<uint64_t>(1, run.steadyBytes)) / kGiB));
                peak[who] = std::max(peak[who], run.peakKiB);
            }
        }
        printf("%-10s %14.2f %14.2f %10.2f %10.2f MiB %10.2f MiB%s\n", rateText(rate).c_str(),
               median(cpu[0]), median(cpu[1]), median(cpu[1]) / median(cpu[0]),
               static_cast<double>(peak[0]) / 1024, static_cast<double>(peak[1]) / 1024,
               failed > 0 ? "  (runs with loss left out)" : "");
        fflush(stdout);
    }
}

// The highest rate of the ladder with nothing lost, for each capture held to `percent` of a
// core; each round climbs the ladder for both in turn, until each loses.
void smallLadder(const Settings& settings, const std::string& dir, long transfer,
                 benchkit::CpuLimit& cpuLimit, double percent) {
    if (!cpuLimit.limit(percent)) {
        printf("%g%% of a core: left out: the cgroup's limit could not be set\n", percent);
        return;
    }
    std::vector<double> best[2];
    std::vector<double> reached[2];
    for (int round = 0; round < settings.rounds; ++round) {
        double top[2] = {0, 0};
        double got[2] = {0, 0};
        bool done[2] = {false, false};
        for (const double rate : settings.ladderMB) {
            for (const int who : {round % 2, 1 - round % 2}) {
                if (done[who]) {
                    continue;
                }
                const SmallRun run = smallRun(dir, static_cast<long>(rate * 1e6), transfer,
                                              settings.seconds, who == 1, cpuLimit.procs());
                done[who] = run.lost != 0;
                if (!done[who]) {
                    top[who] = rate;
                    got[who] = run.mbps;
                }
            }
            if (done[0] && done[1]) {
                break;
            }
        }
        for (int who = 0; who < 2; ++who) {
            best[who].push_back(top[who]);
            reached[who].push_back(got[who]);
        }
    }
    printf(
        "%g%% of a core (%ld us in %ld us): highest rate with nothing lost: plain copy %s "
        "MB/s (%.2f reached), vrec %s MB/s (%.2f reached)\n",
        percent, static_cast<long>(cpuLimit.period() * percent / 100), cpuLimit.period(),
        rateText(median(best[0])).c_str(), median(reached[0]), rateText(median(best[1])).c_str(),
        median(reached[1]));
    fflush(stdout);
}

void smallProcessor(const Settings& settings, const std::string& dir) {
    benchkit::CpuLimit cpuLimit;
    printf(
        "small processor: a module that never waits (vrec-modemsim --drop-when-full,\n"
        "640 KiB host buffer), %d s per run, %d rounds, medians; vrec and the plain copy\n"
        "in turn; storage keeps up\n",
        settings.seconds, settings.rounds);
    for (const long transfer : settings.transfers) {
        printf("\nUSB transfers of %ld bytes, no limit:\n", transfer);
        smallCpu(settings, dir, transfer);
        if (!cpuLimit.usable()) {
            printf("limited to a share of a core: left out: %s\n", cpuLimit.whyNot().c_str());
            continue;
        }
        printf("limited, the simulator and the bench outside the limit:\n");
        fflush(stdout);
        for (const double percent : settings.sharesPercent) {
            smallLadder(settings, dir, transfer, cpuLimit, percent);
        }
    }
}

// Namespaces of our own: vrec's control port meets no other run, and the stalling storage
// goes away with us whatever happens.
void isolate() {
    benchkit::ownNetwork();
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        fprintf(stderr, "note: no mount namespace of our own (%s)\n", strerror(errno));
    }
}

bool parseSettings(int argc, char** argv, Settings* settings) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : "";
        if (arg == "--quick") {
            settings->blockMiB = 32;
            settings->packetMiB = 8;
            settings->seconds = 3;
        } else if (arg == "--no-sweep") {
            settings->sweep = false;
        } else if (arg == "--no-wwan") {
            settings->wwan = false;
        } else if (arg == "--rounds" && atoi(value) >= 1) {
            settings->rounds = atoi(argv[++i]);
        } else if (arg == "--blocks" && atoi(value) >= 1) {
            settings->blockMiB = strtoull(argv[++i], nullptr, 10);
        } else if (arg == "--packets" && atoi(value) >= 1) {
            settings->packetMiB = strtoull(argv[++i], nullptr, 10);
        } else if (arg == "--seconds" && atoi(value) >= 1) {
            settings->seconds = atoi(argv[++i]);
        } else if (arg == "--stall" &&
                   sscanf(value, "%ld/%ld", &settings->stallMs, &settings->everyMs) == 2) {
            ++i;
        } else if (arg == "--small") {
            settings->small = true;
            settings->rounds = 3;
        } else if ((arg == "--transfers" || arg == "--cpu-rates" || arg == "--shares" ||
                    arg == "--ladder") &&
                   atof(value) > 0) {
            std::vector<double> list;
            std::istringstream items(argv[++i]);
            for (std::string item; std::getline(items, item, ',');) {
                list.push_back(atof(item.c_str()));
            }
            if (arg == "--transfers") {
                settings->transfers.assign(list.begin(), list.end());
            } else {
                (arg == "--cpu-rates" ? settings->cpuRatesMB
                 : arg == "--shares"  ? settings->sharesPercent
                                      : settings->ladderMB) = list;
            }
        } else if (arg == "--rates" && atol(value) >= 1) {
            settings->ratesMB.clear();
            std::istringstream list(argv[++i]);
            for (std::string rate; std::getline(list, rate, ',');) {
                settings->ratesMB.push_back(atol(rate.c_str()));
            }
        } else {
            fprintf(
                stderr,
                "capture_bench: bad argument %s\n"
                "usage: capture_bench [--quick] [--rounds N] [--blocks MIB] [--packets MIB]\n"
                "                     [--rates MB,MB,...] [--seconds S] [--stall MS/EVERY]\n"
                "                     [--no-sweep] [--no-wwan]\n"
                "       capture_bench --small [--rounds N] [--seconds S] [--transfers B,B]\n"
                "                     [--cpu-rates MB,...] [--shares PCT,PCT] [--ladder MB,...]\n",
                arg.c_str());
            return false;
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 5 && strcmp(argv[1], "--plain-copy") == 0) {
        return plainCopy(argv[2], argv[3], strtoull(argv[4], nullptr, 10));
    }
    Settings settings;
    if (!parseSettings(argc, argv, &settings)) {
        return 2;
    }
    isolate();
    prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
    signal(SIGPIPE, SIG_IGN);
    char pattern[] = "/tmp/vrec-bench-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        perror("mkdtemp");
        return 1;
    }
    const std::string dir = pattern;
    if (settings.small) {
        smallProcessor(settings, dir);
        removeTree(dir);
        return 0;
    }

    printf(
        "%d rounds, medians; each round a plain copy and vrec on the same stream, in turn\n"
        "%-28s %-11s %8s %11s %12s %7s\n",
        settings.rounds, "source", "reader", "MB/s", "CPU s/GiB", "peak RSS", "whole");
    fflush(stdout);
    compare(settings, dir, Source::kBlocks);
    compare(settings, dir, Source::kPackets);
    if (settings.wwan) {
        const std::string probe = dir + "/probe";
        mkdir(probe.c_str(), 0755);
        const bool served = Sim(probe, {}, true).ready();
        removeTree(probe);
        if (served) {
            compare(settings, dir, Source::kWwanPackets);
        } else {
            printf("packets, WWAN node: left out: the simulator cannot serve WWAN nodes here\n");
        }
    }
    if (settings.sweep) {
        stallSweep(settings, dir);
    }
    removeTree(dir);
    return 0;
}
