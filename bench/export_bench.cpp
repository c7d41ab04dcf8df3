// Export throughput: vrec pulls a module file of 64 MiB (by default) from vrec-modemsim over
// AT^RSFR at the simulator's default piece size, and the figures are the MiB/s of file
// content and the time per exchange.
//   build/bench/export_bench [MiB]
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "benchkit.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr size_t kPieceBytes = 512;  // the simulator's default

std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

using benchkit::spawn;

bool waitFor(const std::string& path, const std::string& text, int seconds) {
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    while (Clock::now() < end) {
        if (readAll(path).find(text) != std::string::npos) {
            return true;
        }
        usleep(20000);
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    const size_t mib = argc > 1 ? strtoul(argv[1], nullptr, 10) : 64;
    char pattern[] = "/tmp/vrec-export-bench-XXXXXX";
    const std::string dir = mkdtemp(pattern);
    if (chdir(dir.c_str()) != 0 || mkdir("files", 0755) != 0) {
        perror(dir.c_str());
        return 1;
    }
    const std::string root = VREC_BINARY_DIR;
    std::string content(mib << 20, '\0');
    std::mt19937 random(7);
    for (char& c : content) {
        c = static_cast<char>(random());
    }
    std::ofstream("files/logsave_bench", std::ios::binary) << content;

    const pid_t sim = spawn({root + "/tools/vrec-modemsim", "--pcui", "./pcui", "--files", "files"},
                            "simulator.out");
    if (!waitFor("simulator.out", "ready", 10)) {
        fprintf(stderr, "the simulator did not start\n");
        return 1;
    }
    const auto start = Clock::now();
    const pid_t run = spawn(
        {root + "/vrecCmd/vrec", "-p", "./pcui", "-f", "logsave_bench", "-r", "0"}, "vrec.out");
    const bool done = waitFor("vrec.out", "Exporting done", 3600);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    const pid_t stop = spawn({root + "/vrecCmd/vrec", "-s"}, "stop.out");
    waitpid(stop, nullptr, 0);
    waitpid(run, nullptr, 0);
    if (sim > 0) {
        kill(sim, SIGTERM);
        waitpid(sim, nullptr, 0);
    }

    const bool whole = done && readAll("logsave_bench0") == content;
    const double exchanges = static_cast<double>((content.size() + kPieceBytes - 1) / kPieceBytes);
    printf("export of %zu MiB in %zu-byte pieces: %.2f s, %.2f MiB/s, %.3f ms per exchange, %s\n",
           mib, kPieceBytes, seconds, static_cast<double>(mib) / seconds,
           seconds * 1000.0 / exchanges, whole ? "file equal" : "FILE DIFFERS");
    std::string cleanup = "rm -rf " + dir;
    if (system(cleanup.c_str()) != 0) {
        fprintf(stderr, "could not remove %s\n", dir.c_str());
    }
    return whole ? 0 : 1;
}
