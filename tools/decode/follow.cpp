#include "follow.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <vector>

#include "captureCheck.h"

namespace vdecode {

namespace {

constexpr char kInProgress[] = "real_log.bin";

void pause() {
    const timespec step{0, 20 * 1000 * 1000};
    nanosleep(&step, nullptr);  // a signal ends it early, which is what is wanted
}

bool isCaptureFile(const std::string& name) {
    return name == kInProgress || (name.compare(0, 13, "real_logitem_") == 0 && name.size() > 17 &&
                                   name.compare(name.size() - 4, 4, ".bin") == 0);
}

// The capture's files in the order they were written.
std::vector<std::string> captureFiles(const std::string& dir) {
    std::vector<std::string> files;
    std::error_code failure;
    for (const auto& entry : std::filesystem::directory_iterator(dir, failure)) {
        if (isCaptureFile(entry.path().filename().string())) {
            files.push_back(entry.path().string());
        }
    }
    return vtools::captureOrder(files);
}

}  // namespace

Follower::~Follower() {
    if (fd >= 0) {
        close(fd);
    }
}

bool Follower::open(const std::string& path, std::string* error) {
    const int next = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (next < 0) {
        if (errno == ENOENT) {
            return true;  // gone or not there yet: looked for again on the next pass
        }
        *error = "open(" + path + ") failed: " + strerror(errno);
        return false;
    }
    struct stat info {};
    fstat(next, &info);
    if (fd >= 0) {
        close(fd);
    }
    fd = next;
    held = {info.st_dev, info.st_ino};
    return true;
}

bool Follower::openFirst(bool atEnd, std::string* error) {
    if (!atEnd) {
        const std::vector<std::string> files = captureFiles(dir);
        return files.empty() || open(files.front(), error);
    }
    if (!open(dir + "/" + kInProgress, error)) {
        return false;
    }
    if (fd >= 0 && lseek(fd, 0, SEEK_END) < 0) {
        *error = "seek in " + dir + "/" + kInProgress + " failed: " + strerror(errno);
        return false;
    }
    return true;
}

bool Follower::drain(std::string* error) {
    char buffer[65536];
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n > 0) {
            if (!converter.feed(buffer, static_cast<size_t>(n))) {
                return true;  // the caller sees the failed output
            }
            continue;
        }
        if (n == 0) {
            return true;
        }
        if (errno != EINTR) {
            *error = "read in " + dir + " failed: " + strerror(errno);
            return false;
        }
    }
}

std::string Follower::successor() const {
    const std::vector<std::string> files = captureFiles(dir);
    for (size_t i = 0; i < files.size(); ++i) {
        struct stat info {};
        if (stat(files[i].c_str(), &info) == 0 && FileId{info.st_dev, info.st_ino} == held) {
            return i + 1 < files.size() ? files[i + 1] : "";
        }
    }
    // The held file was deleted at the total limit: what is left is newer than it.
    return files.empty() ? "" : files.front();
}

bool Follower::run(const volatile sig_atomic_t& stop, std::string* error) {
    // A capture that begins after this start is read from its beginning.
    bool atEnd = !fromStart;
    while (fd < 0 && !stop) {
        if (!openFirst(atEnd, error)) {
            return false;
        }
        if (fd < 0 && atEnd == !fromStart) {
            fprintf(stderr, "vrec-decode: waiting for a capture to begin in %s\n", dir.c_str());
        }
        if (fd < 0) {
            atEnd = false;
            pause();  // no capture yet
        }
    }
    while (!stop && !converter.failed()) {
        if (!drain(error)) {
            return false;
        }
        struct stat info {};
        if (stat((dir + "/" + kInProgress).c_str(), &info) == 0 &&
            FileId{info.st_dev, info.st_ino} == held) {
            if (info.st_size < lseek(fd, 0, SEEK_CUR)) {
                // A new run of the capture emptied the file: its stream begins again.
                lseek(fd, 0, SEEK_SET);
                continue;
            }
            converter.flush();
            pause();
            continue;
        }
        // The held file is finished: it was renamed to an item, and vrec closes a file before
        // it renames it, so what it holds now is all it will hold.
        if (!drain(error)) {
            return false;
        }
        const std::string next = successor();
        if (next.empty()) {
            pause();
            continue;
        }
        const FileId before = held;
        if (!open(next, error)) {
            return false;
        }
        if (held == before) {
            pause();
        }
    }
    return true;
}

}  // namespace vdecode
