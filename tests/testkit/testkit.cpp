#include "testkit.h"

#include <dirent.h>
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
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace testkit {

namespace {

using Clock = std::chrono::steady_clock;

long msSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

void removeTree(const std::string& path) {
    struct stat st{};
    if (lstat(path.c_str(), &st) != 0) {
        return;
    }
    if (S_ISDIR(st.st_mode)) {
        for (const std::string& name : listDir(path)) {
            removeTree(path + "/" + name);
        }
        rmdir(path.c_str());
    } else {
        unlink(path.c_str());
    }
}

std::vector<char*> cArgs(const std::vector<std::string>& argv) {
    std::vector<char*> args;
    for (const std::string& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);
    return args;
}

// Process ids whose process group is `group` and whose parent is this process.
std::vector<pid_t> childrenInGroup(pid_t group) {
    std::vector<pid_t> found;
    for (const std::string& name : listDir("/proc")) {
        const pid_t pid = static_cast<pid_t>(atoi(name.c_str()));
        if (pid <= 0) {
            continue;
        }
        const std::string stat = readFile("/proc/" + name + "/stat");
        const size_t close = stat.rfind(')');
        if (close == std::string::npos) {
            continue;
        }
        char state = 0;
        int ppid = 0;
        int pgrp = 0;
        if (sscanf(stat.c_str() + close + 1, " %c %d %d", &state, &ppid, &pgrp) == 3 &&
            pgrp == group && ppid == getpid()) {
            found.push_back(pid);
        }
    }
    return found;
}

int decodeStatus(int status) {
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    return -2;
}

}  // namespace

TempDir::TempDir() {
    char pattern[] = "/tmp/vrec-test-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    dir = pattern;
}

TempDir::~TempDir() { removeTree(dir); }

Pty::Pty() {
    char slavePath[256] = {};
    if (openpty(&masterFd, &slaveFd, slavePath, nullptr, nullptr) != 0) {
        throw std::runtime_error("openpty failed");
    }
    fcntl(masterFd, F_SETFD, FD_CLOEXEC);
    fcntl(slaveFd, F_SETFD, FD_CLOEXEC);
    // Raw on the master's side too, so that bytes pass unchanged in both directions.
    termios tio{};
    tcgetattr(slaveFd, &tio);
    cfmakeraw(&tio);
    tcsetattr(slaveFd, TCSANOW, &tio);
    name = slavePath;
}

Pty::~Pty() {
    closeSlave();
    if (masterFd != -1) {
        close(masterFd);
    }
}

void Pty::closeSlave() {
    if (slaveFd != -1) {
        close(slaveFd);
        slaveFd = -1;
    }
}

void Pty::closeMaster() {
    if (masterFd != -1) {
        close(masterFd);
        masterFd = -1;
    }
}

std::string Pty::readMaster(size_t count, int timeoutMs) {
    std::string got;
    const auto start = Clock::now();
    while (got.size() < count) {
        const long left = timeoutMs - msSince(start);
        if (left <= 0) {
            break;
        }
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
    size_t done = 0;
    while (done < bytes.size()) {
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
    std::ofstream outFile(path, std::ios::binary | std::ios::trunc);
    outFile << content;
}

bool fileExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

std::vector<std::string> listDir(const std::string& path) {
    std::vector<std::string> names;
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr) {
        return names;
    }
    while (dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    closedir(dir);
    return names;
}

std::string hex(const std::string& bytes) {
    std::string text;
    char part[4];
    for (const char c : bytes) {
        snprintf(part, sizeof(part), "%02X ", static_cast<unsigned char>(c));
        text += part;
    }
    if (!text.empty()) {
        text.pop_back();
    }
    return text;
}

int openDescriptorCount() { return static_cast<int>(listDir("/proc/self/fd").size()) - 1; }

bool isolateNetwork() {
    if (unshare(CLONE_NEWNET) == 0) {
        const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ifreq ifr{};
        strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
        const bool up = sock >= 0 && ioctl(sock, SIOCGIFFLAGS, &ifr) == 0 &&
                        (ifr.ifr_flags |= IFF_UP, ioctl(sock, SIOCSIFFLAGS, &ifr) == 0);
        if (sock >= 0) {
            close(sock);
        }
        if (up) {
            return true;
        }
    }
    // No namespace of our own: serialise with every other test that uses the ports.
    static int lockFd = open("/tmp/vrec-tests-udp.lock", O_CREAT | O_RDWR | O_CLOEXEC, 0666);
    if (lockFd >= 0) {
        flock(lockFd, LOCK_EX);
    }
    return false;
}

void becomeSubreaper() { prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0); }

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
    std::vector<char*> args = cArgs(argv);
    launcher = fork();
    if (launcher == 0) {
        setpgid(0, 0);
        if (chdir(cwd.c_str()) != 0) {
            _exit(126);
        }
        dup2(outPipe[1], STDOUT_FILENO);
        dup2(errPipe[1], STDERR_FILENO);
        const int devNull = open("/dev/null", O_RDONLY);
        dup2(devNull, STDIN_FILENO);
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
    }
    if (!launcherDone && launcher > 0) {
        waitpid(launcher, nullptr, 0);
    }
    for (pid_t pid : childrenInGroup(launcher)) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
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
        if (n <= 0) {
            --openStreams;
            changed.notify_all();
            break;
        }
        sink->append(buffer, static_cast<size_t>(n));
        changed.notify_all();
    }
    close(fd);
}

int BackgroundRun::launcherStatus(int timeoutMs) {
    const auto start = Clock::now();
    while (!launcherDone) {
        int status = 0;
        const pid_t r = waitpid(launcher, &status, WNOHANG);
        if (r == launcher) {
            launcherDone = true;
            launcherExit = decodeStatus(status);
            break;
        }
        if (msSince(start) > timeoutMs) {
            return -1;
        }
        usleep(2000);
    }
    return launcherExit;
}

pid_t BackgroundRun::childPid(int timeoutMs) {
    const auto start = Clock::now();
    while (child <= 0) {
        for (pid_t pid : childrenInGroup(launcher)) {
            if (pid != launcher) {
                child = pid;
            }
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
    if (launcherStatus(timeoutMs) == -1 && !launcherDone) {
        return -1;
    }
    if (childPid(std::max<long>(0, timeoutMs - msSince(start))) <= 0) {
        return -1;
    }
    while (!childDone) {
        int status = 0;
        const pid_t r = waitpid(child, &status, WNOHANG);
        if (r == child) {
            childDone = true;
            childExit = decodeStatus(status);
            break;
        }
        if (msSince(start) > timeoutMs) {
            return -1;
        }
        usleep(2000);
    }
    return childExit;
}

bool BackgroundRun::waitForOutput(const std::string& needle, int timeoutMs) {
    std::unique_lock<std::mutex> guard(lock);
    return changed.wait_for(guard, std::chrono::milliseconds(timeoutMs), [&] {
        return out.find(needle) != std::string::npos || openStreams == 0;
    }) && out.find(needle) != std::string::npos;
}

std::string BackgroundRun::output() {
    std::lock_guard<std::mutex> guard(lock);
    return out;
}

std::string BackgroundRun::errors() {
    std::lock_guard<std::mutex> guard(lock);
    return err;
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
    // A program that forked reports through its child, which is a zombie of ours by now.
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
