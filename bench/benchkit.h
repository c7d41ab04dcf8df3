#ifndef VREC_BENCH_BENCHKIT_H
#define VREC_BENCH_BENCHKIT_H

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace benchkit {

// Starts a program with its standard output and error going to the file `output`.
inline pid_t spawn(const std::vector<std::string>& argv, const std::string& output) {
    const pid_t pid = fork();
    if (pid == 0) {
        const int fd = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, STDOUT_FILENO);
        dup2(fd, STDERR_FILENO);
        std::vector<char*> args;
        for (const std::string& a : argv) {
            args.push_back(const_cast<char*>(a.c_str()));
        }
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    return pid;
}

// A network namespace of this process's own with its loopback up, so that vrec's control
// port meets no other run; false, after a note, where none may be had.
inline bool ownNetwork() {
    if (unshare(CLONE_NEWNET) != 0) {
        fprintf(stderr, "note: no network namespace of our own (%s)\n", strerror(errno));
        return false;
    }
    const int sock = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq ifr{};
    strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
    if (ioctl(sock, SIOCGIFFLAGS, &ifr) == 0) {
        ifr.ifr_flags |= IFF_UP;
        ioctl(sock, SIOCSIFFLAGS, &ifr);
    }
    close(sock);
    return true;
}

inline std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

// The forked run of vrec, which comes to this process as its subreaper once the launcher
// ends: its pid, or -1 when none shows up within `tries` looks `pauseUs` apart.
inline pid_t adoptedVrecRun(int tries, useconds_t pauseUs) {
    const std::string self = std::to_string(getpid());
    for (int i = 0; i < tries; ++i) {
        std::ifstream children("/proc/" + self + "/task/" + self + "/children");
        pid_t child = 0;
        while (children >> child) {
            if (child > 0 && readAll("/proc/" + std::to_string(child) + "/comm") == "vrec\n") {
                return child;
            }
        }
        usleep(pauseUs);
    }
    return -1;
}

}  // namespace benchkit

#endif
