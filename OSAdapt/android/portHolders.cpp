#include "portHolders.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

namespace fs = std::filesystem;

// Majors of the pseudo-terminal slaves and of the multiplexer that hands out their masters.
constexpr unsigned kPtySlaveMajorFirst = 136;
constexpr unsigned kPtySlaveMajorLast = 143;
constexpr unsigned kPtmxMajor = 5;
constexpr unsigned kPtmxMinor = 2;

// What identifies the open file: the device for a device node, else the inode.
struct FileKey {
    bool device = false;
    dev_t rdev = 0;
    dev_t dev = 0;
    ino_t ino = 0;

    bool matches(const struct stat& st) const {
        if (device) {
            return S_ISCHR(st.st_mode) && st.st_rdev == rdev;
        }
        return st.st_dev == dev && st.st_ino == ino;
    }
};

// The pseudo-terminal number of a slave device, or -1.
long ptyIndex(const struct stat& st) {
    if (!S_ISCHR(st.st_mode)) {
        return -1;
    }
    const unsigned majorNumber = major(st.st_rdev);
    if (majorNumber < kPtySlaveMajorFirst || majorNumber > kPtySlaveMajorLast) {
        return -1;
    }
    return static_cast<long>((majorNumber - kPtySlaveMajorFirst) * 256 + minor(st.st_rdev));
}

bool isPtmx(const struct stat& st) {
    return S_ISCHR(st.st_mode) && major(st.st_rdev) == kPtmxMajor &&
           minor(st.st_rdev) == kPtmxMinor;
}

// The pseudo-terminal a master descriptor stands for, as its fdinfo tells; -1 if unknown.
long masterIndex(const fs::path& fdinfo) {
    std::ifstream in(fdinfo);
    std::string label;
    while (in >> label) {
        if (label == "tty-index:") {
            long index = -1;
            in >> index;
            return index;
        }
    }
    return -1;
}

std::string commandOf(const fs::path& processDir) {
    std::ifstream in(processDir / "comm");
    std::string command;
    std::getline(in, command);
    return command.empty() ? "?" : command;
}

// Whether the process holds the file, and whether it holds the master of pseudo-terminal
// `pty` (when that is not -1).
void scanDescriptors(const fs::path& processDir, const FileKey& key, long pty, bool* holds,
                     bool* playsDevice) {
    std::error_code error;
    for (fs::directory_iterator it(processDir / "fd", error), end; !error && it != end;
         it.increment(error)) {
        struct stat st {};
        if (stat(it->path().c_str(), &st) != 0) {
            continue;  // closed meanwhile, or a link that leads nowhere
        }
        if (key.matches(st)) {
            *holds = true;
        } else if (pty != -1 && isPtmx(st) &&
                   masterIndex(processDir / "fdinfo" / it->path().filename()) == pty) {
            *playsDevice = true;
        }
    }
}

}  // namespace

std::vector<PortHolder> OS_ADAPT_FindPortHolders(const std::string& path) {
    std::vector<PortHolder> holders;
    struct stat target {};
    if (path.empty() || stat(path.c_str(), &target) != 0) {
        return holders;
    }
    FileKey key;
    key.device = S_ISCHR(target.st_mode);
    key.rdev = target.st_rdev;
    key.dev = target.st_dev;
    key.ino = target.st_ino;
    const long pty = ptyIndex(target);
    const pid_t self = getpid();

    std::error_code error;
    for (fs::directory_iterator it("/proc", error), end; !error && it != end; it.increment(error)) {
        const std::string name = it->path().filename();
        char* rest = nullptr;
        const long pid = strtol(name.c_str(), &rest, 10);
        if (pid <= 0 || *rest != '\0' || pid == self) {
            continue;
        }
        bool holds = false;
        bool playsDevice = false;
        scanDescriptors(it->path(), key, pty, &holds, &playsDevice);
        if (holds && !playsDevice) {
            holders.push_back({static_cast<pid_t>(pid), commandOf(it->path())});
        }
    }
    return holders;
}
