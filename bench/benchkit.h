#ifndef VREC_BENCH_BENCHKIT_H
#define VREC_BENCH_BENCHKIT_H

#include <fcntl.h>
#include <unistd.h>

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

}  // namespace benchkit

#endif
