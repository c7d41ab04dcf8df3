// Conversion speed of vrec-decode: a capture of 256 MiB (by default) built from the real Diag
// streams in ../shared/data, converted to pcapng and to text; MB/s of capture by the wall
// clock and by processor time, and the peak resident memory, next to a capture of 16 MiB to
// show that the memory does not grow with the capture.
//   build/bench/decode_bench [MiB]
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "benchkit.h"

namespace {

using Clock = std::chrono::steady_clock;

std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

struct Run {
    int status = -1;
    double wallSeconds = 0;
    double cpuSeconds = 0;
    long peakKiB = 0;
};

Run measure(const std::vector<std::string>& argv, const std::string& output) {
    const auto start = Clock::now();
    const pid_t pid = benchkit::spawn(argv, output);
    Run run;
    rusage usage{};
    int status = 0;
    if (pid > 0 && wait4(pid, &status, 0, &usage) == pid) {
        run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    run.wallSeconds = std::chrono::duration<double>(Clock::now() - start).count();
    run.cpuSeconds = usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
                     (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    run.peakKiB = usage.ru_maxrss;
    return run;
}

// Whole frames only: the second stream starts with the tail of a cut frame.
std::string realFrames(const std::string& dataDir) {
    const std::string lte = readAll(dataDir + "/real-diag-lte.bin");
    const std::string mixed = readAll(dataDir + "/real-diag-lte-gsm.bin");
    const size_t firstFlag = mixed.find('\x7E');
    if (lte.empty() || firstFlag == std::string::npos) {
        return "";
    }
    return lte + mixed.substr(firstFlag + 1);
}

}  // namespace

int main(int argc, char** argv) {
    const size_t mib = argc > 1 ? strtoul(argv[1], nullptr, 10) : 256;
    const std::string unit = realFrames(VREC_SHARED_DATA);
    if (unit.empty()) {
        fprintf(stderr, "the real captures are not in %s\n", VREC_SHARED_DATA);
        return 1;
    }
    char pattern[] = "/tmp/vrec-decode-bench-XXXXXX";
    const std::string dir = mkdtemp(pattern);
    const std::string decode = std::string(VREC_BINARY_DIR) + "/tools/vrec-decode";

    printf("%-9s %-7s %10s %12s %11s %9s\n", "capture", "output", "wall s", "MB/s wall", "MB/s cpu",
           "peak RSS");
    for (const size_t size : {static_cast<size_t>(16), mib}) {
        const std::string capture = dir + "/real_log.bin";
        {
            std::ofstream out(capture, std::ios::binary);
            for (size_t written = 0; written < (size << 20); written += unit.size()) {
                out << unit;
            }
        }
        const double megabytes = std::filesystem::file_size(capture) / 1e6;
        const struct {
            const char* name;
            std::vector<std::string> argv;
            std::string output;
        } kOutputs[] = {
            {"pcapng", {decode, "-o", dir + "/out.pcapng", capture}, "/dev/null"},
            {"text", {decode, "--text", capture}, dir + "/out.txt"},
        };
        for (const auto& output : kOutputs) {
            const Run run = measure(output.argv, output.output);
            if (run.status != 0) {
                fprintf(stderr, "vrec-decode failed (status %d)\n", run.status);
                return 1;
            }
            printf("%5zu MiB %-7s %10.2f %12.1f %11.1f %6.1f MiB\n", size, output.name,
                   run.wallSeconds, megabytes / run.wallSeconds, megabytes / run.cpuSeconds,
                   run.peakKiB / 1024.0);
        }
    }
    std::filesystem::remove_all(dir);
    return 0;
}
