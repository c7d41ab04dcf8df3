#ifndef VREC_TESTS_TESTKIT_H
#define VREC_TESTS_TESTKIT_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

namespace testkit {

// A fresh directory under /tmp, removed with everything in it at the end of the scope.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return dir; }
    std::string file(const std::string& name) const { return dir + "/" + name; }

private:
    std::string dir;
};

// Both ends of a raw pseudo-terminal; the slave is what a program opens as its port.
class Pty {
public:
    Pty();
    ~Pty();
    Pty(const Pty&) = delete;
    Pty& operator=(const Pty&) = delete;
    int master() const { return masterFd; }
    int slave() const { return slaveFd; }
    const std::string& slaveName() const { return name; }
    void closeSlave() { closeFd(slaveFd); }
    void closeMaster() { closeFd(masterFd); }  // hangs up, as an unplugged module does
    // Reads from the master until `count` bytes came or `timeoutMs` passed.
    std::string readMaster(size_t count, int timeoutMs);
    void writeMaster(const std::string& bytes);

private:
    static void closeFd(int& fd);
    int masterFd = -1;
    int slaveFd = -1;
    std::string name;
};

// Makes `path` the working directory for the scope, then goes back.
class CurrentDir {
public:
    explicit CurrentDir(const std::string& path);
    ~CurrentDir();
    CurrentDir(const CurrentDir&) = delete;
    CurrentDir& operator=(const CurrentDir&) = delete;

private:
    std::string previous;
};

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);
bool fileExists(const std::string& path);
std::vector<std::string> listDir(const std::string& path);
// Milliseconds since `start`.
inline long msSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 start)
        .count();
}
// Looks at `condition` every millisecond; false if it did not hold within `timeoutMs`.
bool waitFor(const std::function<bool()>& condition, int timeoutMs = 2000);
std::string hex(const std::string& bytes);  // "7E 01 ...", so a failure reads at a glance
std::string bytes(std::initializer_list<int> values);  // each 0 to 255
std::string le32(uint32_t value);                      // little-endian, as DIAG and Sahara are
inline bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}
// A command file's text that sends `wire`, a framed request: "{0x4B,0x13,...,0x7E,}".
std::string commandFileText(const std::string& wire);
// Opens `path` raw (no line discipline, no echo), with `flags` besides O_RDWR and O_NOCTTY.
int openRaw(const std::string& path, int flags = 0);
inline bool endsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() &&
           text.compare(text.size() - tail.size(), tail.npos, tail) == 0;
}
int openDescriptorCount();  // of this process

// Gives the process a network namespace with loopback up (true), so that the fixed UDP ports
// never collide between tests run in parallel; else takes a machine-wide lock until the end.
bool isolateNetwork();
// Only the namespace: false where the process may not have one.
bool enterOwnNetwork();

// Makes this process the reaper of the background run that vrec forks off; false where the
// system refuses (under qemu-user, for one), and then that run cannot be followed.
bool becomeSubreaper();
// A suite whose tests follow vrec's background run calls this once, at namespace scope:
// where this process cannot become a subreaper, each of its tests is skipped with the reason.
bool skipAllWithoutSubreaper();
// kill(2) for a process the test started: never for a pid of 0 or less, which would reach a
// process group or every process of the machine. False when nothing was sent.
bool sendSignal(pid_t pid, int signal);

// Path of a program built by the project, such as "vrecCmd/vrec".
std::string builtProgram(const std::string& relative);

// One run of a program that may fork itself into the background, as vrec does.
class BackgroundRun {
public:
    // `Own`: the run gets a network namespace of its own, for runs side by side that each
    // take the fixed UDP ports; the launch fails where that is not permitted.
    enum class Network { Shared, Own };
    BackgroundRun(const std::vector<std::string>& argv, const std::string& cwd,
                  Network network = Network::Shared);
    ~BackgroundRun();  // kills whatever of the run is still alive
    BackgroundRun(const BackgroundRun&) = delete;
    BackgroundRun& operator=(const BackgroundRun&) = delete;

    // Exit status of the launched process, which ends once the run is up or over; -1 on
    // time-out, -2 if it died of a signal.
    int launcherStatus(int timeoutMs = 10000);
    // Exit status of the forked child, the same way.
    int childStatus(int timeoutMs = 10000);
    pid_t childPid(int timeoutMs = 5000);
    // Signals the forked child; false, with nothing sent, when there is none.
    bool signalChild(int signal, int timeoutMs = 5000);
    bool waitForOutput(const std::string& needle, int timeoutMs = 10000);
    std::string output() { return readFile(streams.file("out")); }  // stdout so far
    std::string errors() { return readFile(streams.file("err")); }  // stderr so far
    // Waits until the launcher and the child it forked have ended, the only writers.
    void waitForEof(int timeoutMs = 10000);

private:
    TempDir streams;  // the files that stdout and stderr go to
    pid_t launcher = -1;
    pid_t child = -1;
    int launcherExit = -1;
    int childExit = -1;
    bool launcherDone = false;
    bool childDone = false;
};

// Runs a program to its end and returns its exit status (-1 on time-out) with what it
// printed. For a program that forks, as vrec does, the status is that of the child.
int runToEnd(const std::vector<std::string>& argv, const std::string& cwd, std::string* out,
             std::string* err = nullptr, int timeoutMs = 20000);

// The simulator's byte counts of one port: offered = written + dropped + queued, where
// `written` reached the terminal, `dropped` was lost on the way (driver buffer full, hang-up)
// and `queued` still waits for the host. `drops` counts packets and answers dropped whole.
struct SimCounts {
    bool valid = false;
    unsigned long long offered = 0;
    unsigned long long written = 0;
    unsigned long long dropped = 0;
    unsigned long long queued = 0;
    unsigned long long drops = 0;
    unsigned long long lateMs = 0;  // stream time skipped because the simulator fell behind
};

// vrec-modemsim running in `dir`, with its record "record.txt" and control FIFO "ctl" there.
class ModemSim {
public:
    ModemSim(const std::string& dir, const std::vector<std::string>& args);
    void control(const std::string& line);  // a fault, "stats" or "quit"
    bool fault(const std::string& text);    // true once the simulator has taken it
    std::string record() const { return readFile(dir + "/record.txt"); }
    // What reached `port` ("diag", "pcui", "port"; "sim" for the module's own events) as
    // "KIND DATA", in order, with the time of each in `times` if asked.
    std::vector<std::string> arrived(const std::string& port,
                                     std::vector<long>* times = nullptr) const;
    // The counts of `port` ("diag", "pcui", "port"), asked for now; not valid if no answer.
    SimCounts counts(const std::string& port);
    // The counts once nothing waits for the host any more and `written` stayed put for
    // `quietMs`: what a capture should hold. Not valid if that took longer than `timeoutMs`.
    SimCounts settled(const std::string& port, int quietMs = 300, int timeoutMs = 10000);
    // The last counts of `port` printed, e.g. at exit.
    SimCounts lastCounts(const std::string& port);

    const std::string dir;
    BackgroundRun run;
    const bool ready;
};

// vrec-stallfs mounted over a fresh directory: what is written under dir() lands in
// backing(), and writes, flushes, fsyncs and creates stall as `args` say ("--every-ms",
// "1000", "--stall-ms", "250"). Where FUSE cannot be used, mounted() is false and whyNot()
// says why, for GTEST_SKIP() << fs.whyNot().
class StallFs {
public:
    explicit StallFs(const std::vector<std::string>& args = {});
    ~StallFs();  // unmounts (fusermount3 -u) and waits for the file system's process
    StallFs(const StallFs&) = delete;
    StallFs& operator=(const StallFs&) = delete;
    bool mounted() const { return isMounted; }
    const std::string& whyNot() const { return reason; }
    std::string dir() const { return root.file("mnt"); }
    std::string backing() const { return root.file("data"); }
    // A control line, "stall MS" (every such call waits until MS from now), "every N STALL"
    // (a new schedule) or "stats"; true once the file system has taken it.
    bool control(const std::string& line);

private:
    TempDir root;
    std::unique_ptr<BackgroundRun> run;
    bool isMounted = false;
    std::string reason;
};

}  // namespace testkit

#endif
