#include "testkit.h"

#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <pty.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

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

// Children of this process in process group `group`.
std::vector<pid_t> childrenInGroup(pid_t group) {
    std::vector<pid_t> found;
    for (const std::string& name : listDir("/proc")) {
        const pid_t pid = static_cast<pid_t>(atoi(name.c_str()));
        const std::string stat = pid > 0 ? readFile("/proc/" + name + "/stat") : "";
        const size_t close = stat.rfind(')');
        int ppid = 0;
        int pgrp = 0;
        if (close != std::string::npos &&
            sscanf(stat.c_str() + close + 1, " %*c %d %d", &ppid, &pgrp) == 2 && pgrp == group &&
            ppid == getpid()) {
            found.push_back(pid);
        }
    }
    return found;
}

// Collects `pid` once it has ended; false if it still runs after `timeoutMs`.
bool reap(pid_t pid, bool* done, int* exitStatus, int timeoutMs) {
    const auto start = Clock::now();
    while (!*done) {
        int status = 0;
        if (waitpid(pid, &status, WNOHANG) == pid) {
            *done = true;
            *exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -2;
        } else if (msSince(start) > timeoutMs) {
            return false;
        } else {
            usleep(2000);
        }
    }
    return true;
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

int openDescriptorCount() {
    return static_cast<int>(listDir("/proc/self/fd").size()) - 1;
}

bool isolateNetwork() {
    if (unshare(CLONE_NEWNET) == 0) {
        const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ifreq ifr{};
        strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
        const bool up = sock >= 0 && ioctl(sock, SIOCGIFFLAGS, &ifr) == 0 &&
                        (ifr.ifr_flags |= IFF_UP, ioctl(sock, SIOCSIFFLAGS, &ifr) == 0);
        close(sock);
        if (up) {
            return true;
        }
    }
    static int lockFd = open("/tmp/vrec-tests-udp.lock", O_CREAT | O_RDWR | O_CLOEXEC, 0666);
    if (lockFd >= 0) {
        flock(lockFd, LOCK_EX);
    }
    return false;
}

void becomeSubreaper() {
    prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
}

std::string builtProgram(const std::string& relative) {
    return std::string(VREC_BINARY_DIR) + "/" + relative;
}

BackgroundRun::BackgroundRun(const std::vector<std::string>& argv, const std::string& cwd) {
    becomeSubreaper();
    int outPipe[2];
    int errPipe[2];
    if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    std::vector<char*> args;
    for (const std::string& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);
    launcher = fork();
    if (launcher == 0) {
        setpgid(0, 0);
        if (chdir(cwd.c_str()) != 0) {
            _exit(126);
        }
        dup2(outPipe[1], STDOUT_FILENO);
        dup2(errPipe[1], STDERR_FILENO);
        dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
        execv(args[0], args.data());
        _exit(127);
    }
    setpgid(launcher, launcher);
    close(outPipe[1]);
    close(errPipe[1]);
    outReader = std::thread(&BackgroundRun::readerLoop, this, outPipe[0], &out);
    errReader = std::thread(&BackgroundRun::readerLoop, this, errPipe[0], &err);
}

BackgroundRun::~BackgroundRun() {
    if (launcher > 0) {
        kill(-launcher, SIGKILL);
        if (!launcherDone) {
            waitpid(launcher, nullptr, 0);
        }
        for (pid_t pid : childrenInGroup(launcher)) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
            childDone = childDone || pid == child;
        }
    }
    if (child > 0 && !childDone) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    outReader.join();
    errReader.join();
}

void BackgroundRun::readerLoop(int fd, std::string* sink) {
    char buffer[4096];
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        std::lock_guard<std::mutex> guard(lock);
        if (n > 0) {
            sink->append(buffer, static_cast<size_t>(n));
        }
        openStreams -= n <= 0 ? 1 : 0;
        changed.notify_all();
        if (n <= 0) {
            break;
        }
    }
    close(fd);
}

int BackgroundRun::launcherStatus(int timeoutMs) {
    return reap(launcher, &launcherDone, &launcherExit, timeoutMs) ? launcherExit : -1;
}

pid_t BackgroundRun::childPid(int timeoutMs) {
    const auto start = Clock::now();
    while (child <= 0) {
        for (pid_t pid : childrenInGroup(launcher)) {
            child = pid != launcher ? pid : child;
        }
        if (child > 0 || msSince(start) > timeoutMs) {
            break;
        }
        usleep(2000);
    }
    return child;
}

int BackgroundRun::childStatus(int timeoutMs) {
    const auto start = Clock::now();
    const auto left = [&] { return static_cast<int>(std::max(0L, timeoutMs - msSince(start))); };
    if (!reap(launcher, &launcherDone, &launcherExit, timeoutMs) || childPid(left()) <= 0 ||
        !reap(child, &childDone, &childExit, left())) {
        return -1;
    }
    return childExit;
}

bool BackgroundRun::waitForOutput(const std::string& needle, int timeoutMs) {
    std::unique_lock<std::mutex> guard(lock);
    changed.wait_for(guard, std::chrono::milliseconds(timeoutMs),
                     [&] { return out.find(needle) != std::string::npos || openStreams == 0; });
    return out.find(needle) != std::string::npos;
}

void BackgroundRun::waitForEof(int timeoutMs) {
    std::unique_lock<std::mutex> guard(lock);
    changed.wait_for(guard, std::chrono::milliseconds(timeoutMs), [&] { return openStreams == 0; });
}

int runToEnd(const std::vector<std::string>& argv, const std::string& cwd, std::string* out,
             std::string* err, int timeoutMs) {
    BackgroundRun run(argv, cwd);
    int status = run.launcherStatus(timeoutMs);
    run.waitForEof(timeoutMs);
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

}  // namespace testkit
