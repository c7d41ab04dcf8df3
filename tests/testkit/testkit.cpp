#include "testkit.h"

#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <pty.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace testkit {

namespace {

using Clock = std::chrono::steady_clock;

// Processes of process group `group`; with `ownOnly`, only those forked by this process or
// by the group's leader.
std::vector<pid_t> processesInGroup(pid_t group, bool ownOnly) {
    std::vector<pid_t> found;
    for (const std::string& name : listDir("/proc")) {
        const pid_t pid = static_cast<pid_t>(atoi(name.c_str()));
        const std::string stat = pid > 0 ? readFile("/proc/" + name + "/stat") : "";
        const size_t close = stat.rfind(')');
        int ppid = 0;
        int pgrp = 0;
        if (close != std::string::npos &&
            sscanf(stat.c_str() + close + 1, " %*c %d %d", &ppid, &pgrp) == 2 && pgrp == group &&
            (!ownOnly || ppid == getpid() || ppid == group)) {
            found.push_back(pid);
        }
    }
    return found;
}

// Collects `pid` once it has ended; false if it still runs after `timeoutMs`. A process
// that another one collected before us ends with `collected`, where that is given.
bool reap(pid_t pid, bool* done, int* exitStatus, int timeoutMs, const int* collected = nullptr) {
    const auto ended = [&] {
        int status = 0;
        const pid_t got = waitpid(pid, &status, WNOHANG);
        if (got == -1 && errno == ECHILD && collected != nullptr) {
            *exitStatus = *collected;
            return *done = true;
        }
        if (got != pid) {
            return false;
        }
        *exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -2;
        return *done = true;
    };
    return *done || waitFor(ended, timeoutMs);
}

size_t occurrences(const std::string& text, const std::string& needle) {
    size_t count = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
        ++count;
    }
    return count;
}

std::vector<std::string> withHead(std::vector<std::string> head,
                                  const std::vector<std::string>& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

}  // namespace

TempDir::TempDir() {
    char pattern[] = "/tmp/vrec-test-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    dir = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
}

Pty::Pty() {
    char slavePath[256] = {};
    if (openpty(&masterFd, &slaveFd, slavePath, nullptr, nullptr) != 0) {
        throw std::runtime_error("openpty failed");
    }
    fcntl(masterFd, F_SETFD, FD_CLOEXEC);
    fcntl(slaveFd, F_SETFD, FD_CLOEXEC);
    termios tio{};  // raw, so that bytes pass unchanged in both directions
    tcgetattr(slaveFd, &tio);
    cfmakeraw(&tio);
    tcsetattr(slaveFd, TCSANOW, &tio);
    name = slavePath;
}

Pty::~Pty() {
    closeSlave();
    closeMaster();
}

void Pty::closeFd(int& fd) {
    if (fd != -1) {
        close(fd);
        fd = -1;
    }
}

std::string Pty::readMaster(size_t count, int timeoutMs) {
    std::string got;
    const auto start = Clock::now();
    for (long left = timeoutMs; got.size() < count && left > 0; left = timeoutMs - msSince(start)) {
        pollfd pfd{masterFd, POLLIN, 0};
        if (poll(&pfd, 1, static_cast<int>(left)) <= 0) {
            continue;
        }
        char buffer[4096];
        const ssize_t n = read(masterFd, buffer, std::min(sizeof(buffer), count - got.size()));
        if (n <= 0) {
            break;
        }
        got.append(buffer, static_cast<size_t>(n));
    }
    return got;
}

void Pty::writeMaster(const std::string& bytes) {
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t n = write(masterFd, bytes.data() + done, bytes.size() - done);
        if (n <= 0) {
            throw std::runtime_error("write to pty master failed");
        }
        done += static_cast<size_t>(n);
    }
}

CurrentDir::CurrentDir(const std::string& path) {
    char buffer[4096] = {};
    if (getcwd(buffer, sizeof(buffer)) == nullptr || chdir(path.c_str()) != 0) {
        throw std::runtime_error("cannot change to " + path);
    }
    previous = buffer;
}

CurrentDir::~CurrentDir() {
    if (chdir(previous.c_str()) != 0) {
        perror("chdir back");
    }
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

bool fileExists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

std::vector<std::string> listDir(const std::string& path) {
    std::vector<std::string> names;
    std::error_code error;
    for (std::filesystem::directory_iterator it(path, error), end; !error && it != end;
         it.increment(error)) {
        names.push_back(it->path().filename());
    }
    return names;
}

bool waitFor(const std::function<bool()>& condition, int timeoutMs) {
    for (const auto start = Clock::now(); !condition(); usleep(1000)) {
        if (msSince(start) > timeoutMs) {
            return false;
        }
    }
    return true;
}

std::string hex(const std::string& bytes) {
    std::string text;
    char part[4];
    for (const char c : bytes) {
        snprintf(part, sizeof(part), text.empty() ? "%02X" : " %02X",
                 static_cast<unsigned char>(c));
        text += part;
    }
    return text;
}

std::string bytes(std::initializer_list<int> values) {
    std::string out;
    for (const int value : values) {
        out += static_cast<char>(value);
    }
    return out;
}

std::string le32(uint32_t value) {
    return bytes({static_cast<int>(value & 0xFF), static_cast<int>((value >> 8) & 0xFF),
                  static_cast<int>((value >> 16) & 0xFF), static_cast<int>(value >> 24)});
}

std::string commandFileText(const std::string& wire) {
    std::string text = "{";
    for (const char c : wire) {
        text += "0x" + hex(std::string(1, c)) + ",";
    }
    return text + "}\n";
}

int openRaw(const std::string& path, int flags) {
    const int fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC | flags);
    termios tio{};
    if (fd != -1 && tcgetattr(fd, &tio) == 0) {
        cfmakeraw(&tio);
        tcsetattr(fd, TCSANOW, &tio);
    }
    return fd;
}

int openDescriptorCount() {
    return static_cast<int>(listDir("/proc/self/fd").size()) - 1;
}

bool enterOwnNetwork() {
    if (unshare(CLONE_NEWNET) != 0) {
        return false;
    }
    const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq ifr{};
    strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
    const bool up = sock >= 0 && ioctl(sock, SIOCGIFFLAGS, &ifr) == 0 &&
                    (ifr.ifr_flags |= IFF_UP, ioctl(sock, SIOCSIFFLAGS, &ifr) == 0);
    close(sock);
    return up;
}

bool isolateNetwork() {
    if (enterOwnNetwork()) {
        return true;
    }
    static int lockFd = open("/tmp/vrec-tests-udp.lock", O_CREAT | O_RDWR | O_CLOEXEC, 0666);
    if (lockFd >= 0) {
        flock(lockFd, LOCK_EX);
    }
    return false;
}

bool becomeSubreaper() {
    int set = 0;
    return prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) == 0 &&
           prctl(PR_GET_CHILD_SUBREAPER, &set, 0, 0, 0) == 0 && set != 0;
}

namespace {

class SubreaperCheck : public ::testing::Environment {
public:
    void SetUp() override {
        if (!becomeSubreaper()) {
            // Marked as gtest marks a skipped test, so that CTest counts the tests as skipped.
            GTEST_SKIP() << "[  SKIPPED ] every test of this suite: this process cannot be made "
                            "a child subreaper ("
                         << strerror(errno)
                         << "), so the background run of vrec cannot be followed";
        }
    }
};

}  // namespace

bool skipAllWithoutSubreaper() {
    ::testing::AddGlobalTestEnvironment(new SubreaperCheck);
    return true;
}

bool sendSignal(pid_t pid, int signal) {
    return pid > 0 && kill(pid, signal) == 0;
}

std::string builtProgram(const std::string& relative) {
    return std::string(VREC_BINARY_DIR) + "/" + relative;
}

BackgroundRun::BackgroundRun(const std::vector<std::string>& argv, const std::string& cwd,
                             Network network) {
    becomeSubreaper();
    // Files, not pipes: what a run printed stays readable after it ended, and the launcher
    // and its child write through one shared offset.
    const int out = open(streams.file("out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const int err = open(streams.file("err").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    std::vector<char*> args;
    for (const std::string& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);
    launcher = fork();
    if (launcher == 0) {
        setpgid(0, 0);
        if ((network == Network::Own && !enterOwnNetwork()) || chdir(cwd.c_str()) != 0) {
            _exit(126);
        }
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
        execv(args[0], args.data());
        _exit(127);
    }
    setpgid(launcher, launcher);
    close(out);
    close(err);
}

BackgroundRun::~BackgroundRun() {
    if (launcher > 0) {
        // Every process of the group this run made, one by one: the launcher first, so that
        // it forks no more, then what it forked, which init may have taken over where this
        // process is no subreaper.
        sendSignal(launcher, SIGKILL);
        for (pid_t pid : processesInGroup(launcher, false)) {
            sendSignal(pid, SIGKILL);
        }
        if (!launcherDone) {
            waitpid(launcher, nullptr, 0);
        }
        for (pid_t pid : processesInGroup(launcher, true)) {
            waitpid(pid, nullptr, 0);
            childDone = childDone || pid == child;
        }
    }
    if (child > 0 && !childDone) {
        sendSignal(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
}

int BackgroundRun::launcherStatus(int timeoutMs) {
    return reap(launcher, &launcherDone, &launcherExit, timeoutMs) ? launcherExit : -1;
}

pid_t BackgroundRun::childPid(int timeoutMs) {
    waitFor(
        [&] {
            for (pid_t pid : processesInGroup(launcher, true)) {
                child = child <= 0 && pid != launcher ? pid : child;
            }
            return child > 0;
        },
        timeoutMs);
    return child;
}

bool BackgroundRun::signalChild(int signal, int timeoutMs) {
    return sendSignal(childPid(timeoutMs), signal);
}

int BackgroundRun::childStatus(int timeoutMs) {
    const auto start = Clock::now();
    const auto left = [&] { return static_cast<int>(std::max(0L, timeoutMs - msSince(start))); };
    if (!reap(launcher, &launcherDone, &launcherExit, timeoutMs)) {
        return -1;
    }
    // A launcher that waited for the end of its child has collected it and passed its
    // status on; otherwise the child is ours now.
    if (childPid(0) <= 0) {
        return launcherExit;
    }
    return reap(child, &childDone, &childExit, left(), &launcherExit) ? childExit : -1;
}

bool BackgroundRun::waitForOutput(const std::string& needle, int timeoutMs) {
    return waitFor([&] { return output().find(needle) != std::string::npos; }, timeoutMs);
}

void BackgroundRun::waitForEof(int timeoutMs) {
    // A child is forked before the launcher ends, so once the launcher is gone a child
    // that is not there yet never comes.
    if (launcherStatus(timeoutMs) != -1 && childPid(0) > 0) {
        childStatus(timeoutMs);
    }
}

int runToEnd(const std::vector<std::string>& argv, const std::string& cwd, std::string* out,
             std::string* err, int timeoutMs) {
    BackgroundRun run(argv, cwd);
    int status = run.launcherStatus(timeoutMs);
    // A program that forked reports through its child, a zombie of ours by now.
    if (status != -1 && run.childPid(0) > 0) {
        status = run.childStatus(timeoutMs);
    }
    if (out != nullptr) {
        *out = run.output();
    }
    if (err != nullptr) {
        *err = run.errors();
    }
    return status;
}

ModemSim::ModemSim(const std::string& where, const std::vector<std::string>& args)
    : dir(where),
      run(withHead(
              {builtProgram("tools/vrec-modemsim"), "--record", "record.txt", "--control", "ctl"},
              args),
          where),
      ready(run.waitForOutput("ready\n", 5000)) {
    EXPECT_TRUE(ready) << run.errors();
}

void ModemSim::control(const std::string& line) {
    // Not blocking: a FIFO with no simulator behind it fails at once.
    const int fd = open((dir + "/ctl").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_NE(-1, fd) << strerror(errno);
    EXPECT_EQ(static_cast<ssize_t>(line.size() + 1),
              write(fd, (line + "\n").data(), line.size() + 1));
    close(fd);
}

bool ModemSim::fault(const std::string& text) {
    control(text);
    return waitFor([&] { return record().find("fault " + text) != std::string::npos; });
}

std::vector<std::string> ModemSim::arrived(const std::string& port,
                                           std::vector<long>* times) const {
    std::vector<std::string> lines;
    std::istringstream text(record());
    long ms = 0;
    std::string who;
    std::string what;
    while (text >> ms >> who && std::getline(text >> std::ws, what)) {
        if (who == port) {
            lines.push_back(what);
            if (times != nullptr) {
                times->push_back(ms);
            }
        }
    }
    return lines;
}

SimCounts ModemSim::lastCounts(const std::string& port) {
    const std::string out = run.output();
    const std::string head = "stats: " + port + " ";
    SimCounts counts;
    const size_t at = out.rfind(head);
    counts.valid =
        at != std::string::npos &&
        sscanf(out.c_str() + at + head.size(),
               "offered %llu written %llu dropped %llu queued %llu drops %llu late-ms %llu",
               &counts.offered, &counts.written, &counts.dropped, &counts.queued, &counts.drops,
               &counts.lateMs) == 6;
    return counts;
}

SimCounts ModemSim::counts(const std::string& port) {
    const std::string head = "stats: " + port + " ";
    const size_t before = occurrences(run.output(), head);
    control("stats");
    if (!waitFor([&] { return occurrences(run.output(), head) > before; }, 5000)) {
        return SimCounts();
    }
    return lastCounts(port);
}

SimCounts ModemSim::settled(const std::string& port, int quietMs, int timeoutMs) {
    const auto start = std::chrono::steady_clock::now();
    SimCounts last;
    auto stable = start;
    while (msSince(start) < timeoutMs) {
        const SimCounts now = counts(port);
        if (!now.valid || now.queued > 0 || now.written != last.written) {
            stable = std::chrono::steady_clock::now();
        } else if (msSince(stable) >= quietMs) {
            return now;
        }
        last = now;
        usleep(20 * 1000);
    }
    return SimCounts();
}

namespace {

// A mount namespace of this process's own, best effort, so that a mount left by a test that
// died goes away with it.
void privateMounts() {
    static const bool done = unshare(CLONE_NEWNS) == 0 &&
                             mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    (void)done;
}

bool inPath(const std::string& program) {
    const char* path = getenv("PATH");
    std::istringstream dirs(path == nullptr ? "/usr/bin:/bin" : path);
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        if (access((dir + "/" + program).c_str(), X_OK) == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

StallFs::StallFs(const std::vector<std::string>& args) {
    const std::string program = builtProgram("tools/vrec-stallfs");
    if (access(program.c_str(), X_OK) != 0) {
        reason =
            "vrec-stallfs was not built: libfuse3 was missing when the build was "
            "configured (scripts/setup.sh installs libfuse3-dev and fuse3)";
        return;
    }
    const int fuse = open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (fuse == -1) {
        reason = std::string("FUSE is not usable here: open(/dev/fuse) failed: ") + strerror(errno);
        return;
    }
    close(fuse);
    mkdir(dir().c_str(), 0755);
    mkdir(backing().c_str(), 0755);
    privateMounts();
    run = std::make_unique<BackgroundRun>(
        withHead({program, "--control", root.file("ctl")}, withHead(args, {backing(), dir()})),
        root.path());
    isMounted = run->waitForOutput("ready\n", 5000);
    if (!isMounted) {
        reason = "mounting vrec-stallfs is not permitted here: " + run->errors();
    }
}

StallFs::~StallFs() {
    if (isMounted) {
        std::string out;
        if (!inPath("fusermount3") ||
            runToEnd({"/bin/sh", "-c", "exec fusermount3 -u \"$0\"", dir()}, "/", &out) != 0) {
            umount2(dir().c_str(), MNT_DETACH);
        }
    }
    if (run) {
        run->launcherStatus(5000);  // ends by itself once unmounted
    }
}

bool StallFs::control(const std::string& line) {
    const std::string answer = "done " + line + "\n";
    const size_t before = occurrences(run ? run->output() : "", answer);
    const int fd = open(root.file("ctl").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    const bool sent = fd != -1 && write(fd, (line + "\n").data(), line.size() + 1) ==
                                      static_cast<ssize_t>(line.size() + 1);
    if (fd != -1) {
        close(fd);
    }
    return sent && waitFor([&] { return occurrences(run->output(), answer) > before; });
}

}  // namespace testkit
