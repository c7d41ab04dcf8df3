// What the end-to-end suites share: vrec and the module simulator in a directory of their
// own, the command files that spare a run the Qualcomm table, vrec-inspect's verdicts,
// mounts in a namespace of the test's own.
#ifndef VREC_TESTS_E2EKIT_H
#define VREC_TESTS_E2EKIT_H

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "diagRequests.h"
#include "hdlc.h"
#include "testkit.h"

namespace e2e {

using testkit::TempDir;
using Args = std::vector<std::string>;

inline const std::string kVrec = testkit::builtProgram("vrecCmd/vrec");
inline const std::string kStopLine = "\nINFO: Stop capturing log.\n";
constexpr uint64_t kMiB = 1 << 20;

// What the command files send, sparing a run the 5 seconds of the Qualcomm table: log
// configuration operation 3 (equipment 1, items 0 to 7) starts the stream, 0 ends it.
inline const std::string kStartRequest("\x73\0\0\0\x03\0\0\0\x01\0\0\0\x07\0\0\0\xFF", 17);
inline const std::string kStopRequest("\x73\0\0\0\0\0\0\0", 8);
// The module's answers: the request's header and a status of 0, and for the mask set the
// equipment, the number of items and the mask behind.
inline const std::string kStartAnswer =
    vtools::frame(kStartRequest.substr(0, 8) + std::string(4, '\0') + kStartRequest.substr(8));
inline const std::string kStopAnswer = vtools::frame(kStopRequest + std::string(4, '\0'));

inline uint64_t fileSize(const std::string& path) {
    std::error_code error;
    const uint64_t size = std::filesystem::file_size(path, error);
    return error ? 0 : size;
}

// Requests as the simulator records their arrival: "frame" and hex digits without spaces.
inline Args arrivals(const Args& requests) {
    Args lines;
    for (const std::string& request : requests) {
        std::string text = testkit::hex(request);
        text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
        lines.push_back("frame " + text);
    }
    return lines;
}
inline const Args kFileArrivals = arrivals({kStartRequest, kStartRequest, kStopRequest});

inline void putCommandFiles(const std::string& dir) {
    for (const auto& file : {std::make_pair("/startcmd.txt", kStartRequest),
                             std::make_pair("/stopcmd.txt", kStopRequest)}) {
        testkit::writeFile(dir + file.first, testkit::commandFileText(diagreq::frame(file.second)));
    }
}

inline Args withHead(Args head, const Args& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

// The module: vrec-modemsim with a Diag port, in a directory of its own where vrec runs
// too, with the command files unless told otherwise.
struct Sim : TempDir, testkit::ModemSim {
    explicit Sim(const Args& args, bool commandFiles = true)
        : ModemSim(path(), withHead({"--diag", "diag"}, args)) {
        if (commandFiles) {
            putCommandFiles(path());
        }
    }
};

// One capture run of vrec in `cwd`, up and running in the background.
struct Vrec {
    Vrec(const std::string& where, const Args& args)
        : cwd(where),
          run(withHead({kVrec}, args), where),
          up(run.waitForOutput("vrec now is running in the background.", 20000)) {}
    // `vrec -s`, run in `from`; the capture's exit status.
    int stop(const std::string& from = "") {
        std::string out;
        testkit::runToEnd({kVrec, "-s"}, from.empty() ? cwd : from, &out);
        return run.childStatus(15000);
    }
    Args descriptors() {
        const std::string dir = "/proc/" + std::to_string(run.childPid()) + "/fd/";
        Args targets;
        for (const std::string& fd : testkit::listDir(dir)) {
            char target[PATH_MAX] = {};
            targets.push_back(readlink((dir + fd).c_str(), target, PATH_MAX - 1) > 0 ? target : "");
        }
        return targets;
    }

    const std::string cwd;
    testkit::BackgroundRun run;
    const bool up;
};

// vrec pauses 10 ms behind each frame it sends, so frame i of `times` comes at least 10 * i
// ms after the first; 50 ms allow for the simulator itself being late to read the first.
inline void expectPaced(const std::vector<long>& times) {
    for (size_t i = 1; i < times.size(); ++i) {
        EXPECT_GE(times[i] - times[0], static_cast<long>(10 * i) - 50) << "frame " << i;
    }
}

// When the simulator last recorded an event that begins with `what` ("event reopen diag"),
// on the clock of its arrivals; -1 if never.
inline long lastEventAt(const testkit::ModemSim& sim, const std::string& what) {
    std::vector<long> times;
    const Args events = sim.arrived("sim", &times);
    long at = -1;
    for (size_t e = 0; e < events.size(); ++e) {
        at = events[e].rfind(what, 0) == 0 ? times[e] : at;
    }
    return at;
}
// When the last request reached `port`; -1 if none did.
inline long lastArrivalAt(const testkit::ModemSim& sim, const std::string& port) {
    std::vector<long> times;
    sim.arrived(port, &times);
    return times.empty() ? -1 : times.back();
}

// vrec-inspect over `files`: its exit status, with its report.
inline int inspect(const Args& files, std::string* report) {
    return testkit::runToEnd(withHead({testkit::builtProgram("tools/vrec-inspect")}, files), "/",
                             report);
}

// The number behind `label` in an inspect report; -1 when the label is absent.
inline long long figure(const std::string& report, const std::string& label) {
    const size_t at = report.find(label);
    return at == std::string::npos ? -1 : strtoll(report.c_str() + at + label.size(), nullptr, 10);
}

// Mounts in a mount namespace of this test's own, undone in reverse order at the end,
// before the directories under them are removed.
struct Mounts {
    ~Mounts() {
        for (auto it = targets.rbegin(); it != targets.rend(); ++it) {
            umount2(it->c_str(), MNT_DETACH);
        }
    }
    // False where the process may not have a mount namespace of its own.
    static bool enter() {
        return unshare(CLONE_NEWNS) == 0 &&
               mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    }
    bool add(const std::string& source, const std::string& target, const char* type,
             unsigned long flags, const char* data = nullptr) {
        const bool done = mount(source.c_str(), target.c_str(), type, flags, data) == 0;
        EXPECT_TRUE(done) << "mount " << source << " on " << target << ": " << strerror(errno);
        targets.push_back(done ? target : "");
        return done;
    }

    Args targets;
};

// A /dev of the test's own in `dev`: the terminals a run needs and `links`, name to target,
// put over /dev; false where a mount failed.
inline bool mountDev(Mounts& mounts, const std::string& dev,
                     const std::vector<std::pair<std::string, std::string>>& links = {}) {
    mkdir(dev.c_str(), 0755);
    mkdir((dev + "/pts").c_str(), 0755);
    testkit::writeFile(dev + "/null", "");
    testkit::writeFile(dev + "/ptmx", "");
    for (const auto& link : links) {
        EXPECT_EQ(0, symlink(link.second.c_str(), (dev + "/" + link.first).c_str())) << link.first;
    }
    bool done = true;
    for (const std::string name : {"/null", "/pts", "/ptmx"}) {
        done = done && mounts.add("/dev" + name, dev + name, nullptr, MS_BIND);
    }
    return done && mounts.add(dev, "/dev", nullptr, MS_BIND | MS_REC);
}

// Finished items in `dir` by number; a name of another form fails the test.
inline std::vector<int> itemNumbers(const std::string& dir) {
    std::vector<int> numbers;
    for (const std::string& name : testkit::listDir(dir)) {
        int n = -1;
        int time[5];  // date, hour, minute, second, millisecond
        int end = 0;
        if (name.rfind("real_logitem_", 0) == 0) {
            EXPECT_TRUE(sscanf(name.c_str(), "real_logitem_%d_%d_%d_%d_%d_%d.bin%n", &n, &time[0],
                               &time[1], &time[2], &time[3], &time[4], &end) == 6 &&
                        end == static_cast<int>(name.size()))
                << name;
            numbers.push_back(n);
        }
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

// The bytes of log that vrec's terminal lines said were lost, in all.
inline long long lossTold(const std::string& out) {
    const std::string label = "WARNING: ";
    long long told = 0;
    for (size_t at = out.find(label); at != std::string::npos; at = out.find(label, at + 1)) {
        told += strtoll(out.c_str() + at + label.size(), nullptr, 10);
    }
    return told;
}

}  // namespace e2e

#endif
