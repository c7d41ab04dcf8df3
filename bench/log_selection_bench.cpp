// What choosing the logs saves: a phone's replayed Diag stream captured once with the
// built-in table (everything the module offers) and once with --logs signalling, by a
// simulated module that streams only what its masks enable. Figures: bytes stored and the
// capturing process's processor time, for the replay and scaled to 10 minutes of the
// phone's own clock (the span of the log packets' time stamps). Not a test.
//   log_selection_bench [--file PATH] [--copies N] [--logs LIST]
// The replay is N copies of the file back to back (default: as many as make 10 minutes).
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "benchkit.h"
#include "diagPacket.h"
#include "hdlc.h"

namespace {

using benchkit::readAll;

const std::string kBin = VREC_BINARY_DIR;
const std::string kVrec = kBin + "/vrecCmd/vrec";
const std::string kSim = kBin + "/tools/vrec-modemsim";
constexpr double kTenMinutes = 600.0;
constexpr size_t kReplaySeconds = 5;

// Seconds between the first and the last log packet's time stamp (units of 1.25 ms in the
// upper 48 bits).
double streamSpan(const std::string& stream) {
    vtools::Deframer deframer;
    deframer.feed(stream.data(), stream.size());
    vtools::DeframeStep step;
    double first = -1;
    double last = 0;
    while (deframer.next(step)) {
        unsigned code = 0;
        if (step.kind != vtools::DeframeStep::kFrame || !vtools::logCode(step.packet, &code) ||
            step.packet.size() < 16) {
            continue;
        }
        const uint64_t stamp = vtools::readLe32(step.packet, 8) |
                               (static_cast<uint64_t>(vtools::readLe32(step.packet, 12)) << 32);
        const double seconds = static_cast<double>(stamp >> 16) * 1.25e-3;
        first = first < 0 ? seconds : first;
        last = seconds;
    }
    return first < 0 ? 0 : last - first;
}

int waitEnd(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

// Processor seconds of a process so far, user and system.
double cpuSeconds(pid_t pid) {
    std::string stat = readAll("/proc/" + std::to_string(pid) + "/stat");
    const size_t close = stat.rfind(')');
    if (close == std::string::npos) {
        return 0;
    }
    std::istringstream fields(stat.substr(close + 2));
    std::string field;
    unsigned long long user = 0;
    unsigned long long system = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14) {
            user = strtoull(field.c_str(), nullptr, 10);
        } else if (i == 15) {
            system = strtoull(field.c_str(), nullptr, 10);
        }
    }
    return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

struct Figures {
    uint64_t stored = 0;
    double cpu = 0;
    bool ok = false;
};

Figures capture(const std::string& dir, const std::string& replay, long byteRate,
                const std::vector<std::string>& logs) {
    std::filesystem::create_directories(dir);
    const pid_t sim =
        benchkit::spawn({kSim, "--diag", dir + "/diag", "--record", dir + "/record.txt", "--replay",
                         replay, "--byte-rate", std::to_string(byteRate)},
                        dir + "/sim.out");
    for (int i = 0; i < 500 && readAll(dir + "/sim.out").find("ready") == std::string::npos; ++i) {
        usleep(10000);
    }
    std::vector<std::string> args = {kVrec, "-d", dir + "/diag", "-l", dir, "-r", "0"};
    args.insert(args.end(), logs.begin(), logs.end());
    waitEnd(benchkit::spawn(args, dir + "/vrec.out"));
    const pid_t run = benchkit::adoptedVrecRun(2000, 5000);
    Figures figures;
    // The replay is over once the simulator says so and the log stops growing.
    const std::string log = dir + "/real_log.bin";
    uint64_t size = 0;
    int still = 0;
    for (int i = 0; i < 12000 && still < 50; ++i) {
        usleep(10000);
        const bool ended = readAll(dir + "/record.txt").find("replay end") != std::string::npos;
        std::error_code error;
        const uint64_t now = std::filesystem::file_size(log, error);
        still = ended && !error && now == size ? still + 1 : 0;
        size = error ? size : now;
    }
    if (run > 0) {
        figures.cpu = cpuSeconds(run);
        figures.ok = true;
    }
    waitEnd(benchkit::spawn({kVrec, "-s"}, dir + "/stop.out"));
    if (run > 0) {
        waitEnd(run);
    }
    std::error_code error;
    figures.stored = std::filesystem::file_size(log, error);
    if (sim > 0) {
        kill(sim, SIGTERM);
        waitEnd(sim);
    }
    return figures;
}

void isolate() {
    benchkit::ownNetwork();
}

}  // namespace

int main(int argc, char** argv) {
    std::string file = VREC_SHARED_DATA "/real-diag-lte.bin";
    std::string logs = "signalling";
    int copies = 0;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        if (option == "--file") {
            file = argv[i + 1];
        } else if (option == "--copies") {
            copies = atoi(argv[i + 1]);
        } else if (option == "--logs") {
            logs = argv[i + 1];
        } else {
            fprintf(stderr,
                    "usage: log_selection_bench [--file PATH] [--copies N] [--logs LIST]\n");
            return 2;
        }
    }
    const std::string stream = readAll(file);
    const double span = streamSpan(stream);
    if (stream.empty() || span <= 0) {
        fprintf(stderr, "log_selection_bench: no log packets with time stamps in %s\n",
                file.c_str());
        return 1;
    }
    if (copies <= 0) {
        copies = static_cast<int>(std::ceil(kTenMinutes / span));
    }
    isolate();
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    char pattern[] = "/tmp/vrec-logsel-XXXXXX";
    const std::string dir = mkdtemp(pattern);
    // vrec runs where no command file stands, and leaves its vrec.log there.
    if (chdir(dir.c_str()) != 0) {
        perror("chdir");
        return 1;
    }
    std::string replay;
    for (int i = 0; i < copies; ++i) {
        replay += stream;
    }
    std::ofstream(dir + "/replay.bin", std::ios::binary) << replay;
    const double seconds = span * copies;
    // The replay takes some 5 s: the phone's time, compressed. The masks of a start set take
    // some 60 ms to go out; what streams before the last of them is the part not counted.
    const long byteRate = std::max<long>(1000, static_cast<long>(replay.size() / kReplaySeconds));
    printf(
        "stream: %s, %zu bytes spanning %.1f s of the phone's clock; replay: %d copies, "
        "%.1f s, %zu bytes at %ld bytes/s\n",
        file.c_str(), stream.size(), span, copies, seconds, replay.size(), byteRate);
    printf("%-22s %14s %14s %12s %16s\n", "start set", "bytes stored", "per 10 min", "CPU s",
           "CPU s per 10 min");
    const std::vector<std::string> kArgs[] = {{}, {"--logs", logs}};
    std::vector<Figures> results;
    for (size_t i = 0; i < 2; ++i) {
        const Figures f =
            capture(dir + "/run" + std::to_string(i), dir + "/replay.bin", byteRate, kArgs[i]);
        const double scale = kTenMinutes / seconds;
        printf("%-22s %14llu %14.0f %12.2f %16.2f%s\n",
               i == 0 ? "built-in table" : ("--logs " + logs).c_str(),
               static_cast<unsigned long long>(f.stored), static_cast<double>(f.stored) * scale,
               f.cpu, f.cpu * scale, f.ok ? "" : "  (no capture run found)");
        results.push_back(f);
    }
    if (results[1].stored > 0) {
        printf("the choice stores %.1f times less than the built-in table\n",
               static_cast<double>(results[0].stored) / static_cast<double>(results[1].stored));
    }
    std::filesystem::remove_all(dir);
    return 0;
}
