// Collection of a crash dump through a pseudo-terminal: vrec's collector (the same code a
// capture runs when the module crashes) against vrec-modemsim in dump mode, with a 256 MiB
// region by default. Prints MB/s of region bytes stored and the collector's CPU seconds per
// GiB (user + system, this process only; the simulator's own work is not counted).
//
//   dump_bench [MiB]
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "benchkit.h"
#include "dumpCollection.h"
#include "serialport.h"

namespace {

const std::string kBin = VREC_BINARY_DIR;
const std::string kSim = kBin + "/tools/vrec-modemsim";

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

}  // namespace

int main(int argc, char** argv) {
    const long mib = argc > 1 ? strtol(argv[1], nullptr, 10) : 256;
    char pattern[] = "/tmp/vrec-dump-bench-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        perror("mkdtemp");
        return 1;
    }
    const std::string dir = pattern;
    const std::string port = dir + "/diag.dump";
    const pid_t sim =
        benchkit::spawn({kSim, "--diag", dir + "/diag", "--fault", "crash", "--dump-regions",
                         std::to_string(mib) + "M:BIG.BIN:BIG", "--reboot-ms", "100000"},
                        dir + "/sim.out");
    for (int i = 0; i < 500 && access(port.c_str(), F_OK) != 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    int handle = -1;
    if (OS_ADAPT_OpenDump(port.c_str(), &handle) != OS_ADAPT_SUCCESS) {
        fprintf(stderr, "no dump port at %s\n", port.c_str());
        kill(sim, SIGTERM);
        return 1;
    }
    DumpCollection collection(handle, port, sahara::Session::Action::Collect, nullptr);
    const double cpuBefore = cpuSeconds();
    const auto start = std::chrono::steady_clock::now();
    collection.run(dir, nullptr);
    const double wall =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const double cpu = cpuSeconds() - cpuBefore;
    OS_ADAPT_Close(handle);
    kill(sim, SIGTERM);
    waitpid(sim, nullptr, 0);

    const double bytes = static_cast<double>(collection.session().storedBytes());
    printf("dump of %ld MiB through a pty: %s, %.0f bytes in %.2f s (from the HELLO)\n", mib,
           collection.session().result().c_str(), bytes, wall);
    printf("  %.1f MB/s, collector CPU %.2f s per GiB\n", bytes / 1e6 / wall,
           bytes > 0 ? cpu / (bytes / (1 << 30)) : 0.0);
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
    return collection.session().allComplete() ? 0 : 1;
}
