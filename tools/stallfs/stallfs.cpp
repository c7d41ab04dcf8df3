// vrec-stallfs: a directory mirrored through FUSE whose writes stall now and then, as an SD
// card or eMMC does: every few hundred milliseconds a write, flush, fsync or create blocks
// until the stall is over. Any program writing under the mount point meets the same stalls.
#define FUSE_USE_VERSION 31

#include <dirent.h>
#include <fcntl.h>
#include <fuse.h>
#include <getopt.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using Ms = std::chrono::milliseconds;

const char kUsage[] =
    "Usage: vrec-stallfs [options] BACKING MOUNTPOINT\n"
    "Mirrors the directory BACKING at MOUNTPOINT (in the foreground, until it is unmounted\n"
    "or gets SIGINT or SIGTERM); writes, flushes, fsyncs and creates stall on a schedule.\n"
    "  --every-ms N     a stall starts every N ms from the mount on (0, default: none)\n"
    "  --stall-ms N     and lasts N ms: a call made in it waits for its end (default 250)\n"
    "  --control FIFO   a FIFO that takes lines:\n"
    "                     stall MS          every such call waits until MS from now\n"
    "                     every N STALL     a new schedule from now on (every 0 0: none)\n"
    "                     stats             print the number of calls that waited\n"
    "                   each line taken is answered on standard output as \"done LINE\"\n"
    "  --eio-creates    every create fails with EIO, as a failing medium's may\n"
    "Prints \"ready\" once the mount is in place.\n";

// When writes wait: a schedule of periodic stalls, and one long stall set from outside.
class Stalls {
public:
    void schedule(long everyMs, long stallMs) {
        std::lock_guard<std::mutex> lock(mutex);
        origin = Clock::now();
        every = Ms(everyMs);
        length = Ms(stallMs);
    }
    void once(long ms) {
        std::lock_guard<std::mutex> lock(mutex);
        onceUntil = Clock::now() + Ms(ms);
    }
    // Blocks the calling request until no stall is on.
    void pass() {
        bool waited = false;
        for (Clock::time_point until = end(); until > Clock::now(); until = end()) {
            waited = true;
            std::this_thread::sleep_until(until);
        }
        if (waited) {
            ++stalled;
        }
    }
    unsigned long stalledCalls() const { return stalled; }

private:
    // End of the stall that is on now; a time in the past if none is.
    Clock::time_point end() {
        std::lock_guard<std::mutex> lock(mutex);
        const auto now = Clock::now();
        if (onceUntil > now) {
            return onceUntil;
        }
        if (every.count() > 0) {
            const auto since = std::chrono::duration_cast<Ms>(now - origin);
            const auto phase = since % every;
            if (phase < length) {
                return now + (length - phase);
            }
        }
        return now;
    }

    std::mutex mutex;
    Clock::time_point origin = Clock::now();
    Ms every{0};
    Ms length{0};
    Clock::time_point onceUntil;
    std::atomic<unsigned long> stalled{0};
};

Stalls stalls;
bool g_eioCreates = false;
int backing = -1;  // the mirrored directory

// FUSE paths start at the mount's root "/"; below the backing directory they are relative.
const char* rel(const char* path) {
    return path[1] == '\0' ? "." : path + 1;
}

int status(int result) {
    return result == -1 ? -errno : 0;
}

int fsGetattr(const char* path, struct stat* st, fuse_file_info* fi) {
    if (fi != nullptr) {
        return status(fstat(static_cast<int>(fi->fh), st));
    }
    return status(fstatat(backing, rel(path), st, AT_SYMLINK_NOFOLLOW));
}

int fsAccess(const char* path, int mask) {
    return status(faccessat(backing, rel(path), mask, 0));
}

int fsReadlink(const char* path, char* buffer, size_t size) {
    const ssize_t n = readlinkat(backing, rel(path), buffer, size - 1);
    if (n == -1) {
        return -errno;
    }
    buffer[n] = '\0';
    return 0;
}

int fsReaddir(const char* path, void* buffer, fuse_fill_dir_t fill, off_t, fuse_file_info*,
              fuse_readdir_flags) {
    const int fd = openat(backing, rel(path), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* dir = fd == -1 ? nullptr : fdopendir(fd);
    if (dir == nullptr) {
        const int error = errno;
        if (fd != -1) {
            close(fd);
        }
        return -error;
    }
    for (dirent* entry = readdir(dir); entry != nullptr; entry = readdir(dir)) {
        struct stat st {};
        st.st_ino = entry->d_ino;
        st.st_mode = static_cast<mode_t>(DTTOIF(entry->d_type));
        if (fill(buffer, entry->d_name, &st, 0, static_cast<fuse_fill_dir_flags>(0)) != 0) {
            break;
        }
    }
    closedir(dir);
    return 0;
}

int fsMknod(const char* path, mode_t mode, dev_t device) {
    return status(mknodat(backing, rel(path), mode, device));
}

int fsMkdir(const char* path, mode_t mode) {
    return status(mkdirat(backing, rel(path), mode));
}

int fsUnlink(const char* path) {
    return status(unlinkat(backing, rel(path), 0));
}

int fsRmdir(const char* path) {
    return status(unlinkat(backing, rel(path), AT_REMOVEDIR));
}

int fsSymlink(const char* target, const char* path) {
    return status(symlinkat(target, backing, rel(path)));
}

int fsRename(const char* from, const char* to, unsigned int flags) {
    if (flags != 0) {
        return -EINVAL;
    }
    return status(renameat(backing, rel(from), backing, rel(to)));
}

int fsLink(const char* from, const char* to) {
    return status(linkat(backing, rel(from), backing, rel(to), 0));
}

int fsChmod(const char* path, mode_t mode, fuse_file_info* fi) {
    if (fi != nullptr) {
        return status(fchmod(static_cast<int>(fi->fh), mode));
    }
    return status(fchmodat(backing, rel(path), mode, 0));
}

int fsChown(const char* path, uid_t uid, gid_t gid, fuse_file_info* fi) {
    if (fi != nullptr) {
        return status(fchown(static_cast<int>(fi->fh), uid, gid));
    }
    return status(fchownat(backing, rel(path), uid, gid, AT_SYMLINK_NOFOLLOW));
}

int fsTruncate(const char* path, off_t size, fuse_file_info* fi) {
    if (fi != nullptr) {
        return status(ftruncate(static_cast<int>(fi->fh), size));
    }
    const int fd = openat(backing, rel(path), O_WRONLY | O_CLOEXEC);
    if (fd == -1) {
        return -errno;
    }
    const int result = status(ftruncate(fd, size));
    close(fd);
    return result;
}

int fsUtimens(const char* path, const timespec times[2], fuse_file_info* fi) {
    if (fi != nullptr) {
        return status(futimens(static_cast<int>(fi->fh), times));
    }
    return status(utimensat(backing, rel(path), times, AT_SYMLINK_NOFOLLOW));
}

int fsCreate(const char* path, mode_t mode, fuse_file_info* fi) {
    stalls.pass();
    if (g_eioCreates) {
        return -EIO;
    }
    const int fd = openat(backing, rel(path), fi->flags | O_CREAT | O_CLOEXEC, mode);
    if (fd == -1) {
        return -errno;
    }
    fi->fh = static_cast<uint64_t>(fd);
    return 0;
}

int fsOpen(const char* path, fuse_file_info* fi) {
    const int fd = openat(backing, rel(path), fi->flags | O_CLOEXEC);
    if (fd == -1) {
        return -errno;
    }
    fi->fh = static_cast<uint64_t>(fd);
    return 0;
}

int fsRead(const char*, char* buffer, size_t size, off_t offset, fuse_file_info* fi) {
    const ssize_t n = pread(static_cast<int>(fi->fh), buffer, size, offset);
    return n == -1 ? -errno : static_cast<int>(n);
}

int fsWrite(const char*, const char* data, size_t size, off_t offset, fuse_file_info* fi) {
    stalls.pass();
    const ssize_t n = pwrite(static_cast<int>(fi->fh), data, size, offset);
    return n == -1 ? -errno : static_cast<int>(n);
}

int fsStatfs(const char*, struct statvfs* st) {
    return status(fstatvfs(backing, st));
}

int fsFlush(const char*, fuse_file_info* fi) {
    stalls.pass();
    // A close of a duplicate: what the backing file system does at close, without closing.
    return status(close(dup(static_cast<int>(fi->fh))));
}

int fsRelease(const char*, fuse_file_info* fi) {
    close(static_cast<int>(fi->fh));
    return 0;
}

int fsFsync(const char*, int dataOnly, fuse_file_info* fi) {
    stalls.pass();
    const int fd = static_cast<int>(fi->fh);
    return status(dataOnly != 0 ? fdatasync(fd) : fsync(fd));
}

void* fsInit(fuse_conn_info*, fuse_config* config) {
    // Sizes and names as the backing directory has them, at every look.
    config->entry_timeout = 0;
    config->attr_timeout = 0;
    config->negative_timeout = 0;
    return nullptr;
}

fuse_operations operations() {
    fuse_operations ops{};
    ops.getattr = fsGetattr;
    ops.access = fsAccess;
    ops.readlink = fsReadlink;
    ops.readdir = fsReaddir;
    ops.mknod = fsMknod;
    ops.mkdir = fsMkdir;
    ops.unlink = fsUnlink;
    ops.rmdir = fsRmdir;
    ops.symlink = fsSymlink;
    ops.rename = fsRename;
    ops.link = fsLink;
    ops.chmod = fsChmod;
    ops.chown = fsChown;
    ops.truncate = fsTruncate;
    ops.utimens = fsUtimens;
    ops.create = fsCreate;
    ops.open = fsOpen;
    ops.read = fsRead;
    ops.write = fsWrite;
    ops.statfs = fsStatfs;
    ops.flush = fsFlush;
    ops.release = fsRelease;
    ops.fsync = fsFsync;
    ops.init = fsInit;
    return ops;
}

void answer(const std::string& line) {
    printf("%s\n", line.c_str());
    fflush(stdout);
}

void controlLine(const std::string& line) {
    long a = 0;
    long b = 0;
    char tail = 0;
    if (sscanf(line.c_str(), "stall %ld %c", &a, &tail) == 1 && a >= 0) {
        stalls.once(a);
    } else if (sscanf(line.c_str(), "every %ld %ld %c", &a, &b, &tail) == 2 && a >= 0 && b >= 0) {
        stalls.schedule(a, b);
    } else if (line == "stats") {
        answer("stalled calls " + std::to_string(stalls.stalledCalls()));
    } else {
        fprintf(stderr,
                "vrec-stallfs: unknown control line \"%s\" (stall MS, every N STALL or "
                "stats)\n",
                line.c_str());
        return;
    }
    answer("done " + line);
}

// Reads control lines for as long as the process lives; the FIFO is held open for writing
// by this process too, so that it never reads as ended between two writers.
void controlLoop(int fd) {
    std::string pending;
    char buffer[256];
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n <= 0) {
            if (n == -1 && errno == EINTR) {
                continue;
            }
            return;
        }
        pending.append(buffer, static_cast<size_t>(n));
        for (size_t end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
            const std::string line = pending.substr(0, end);
            pending.erase(0, end + 1);
            if (!line.empty()) {
                controlLine(line);
            }
        }
    }
}

bool parseMs(const char* text, long* value) {
    char* end = nullptr;
    errno = 0;
    *value = strtol(text, &end, 10);
    return *text != '\0' && *end == '\0' && errno == 0 && *value >= 0;
}

}  // namespace

int main(int argc, char** argv) {
    long everyMs = 0;
    long stallMs = 250;
    std::string control;
    static const option kLong[] = {{"every-ms", required_argument, nullptr, 'e'},
                                   {"stall-ms", required_argument, nullptr, 's'},
                                   {"control", required_argument, nullptr, 'c'},
                                   {"eio-creates", no_argument, nullptr, 'i'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {nullptr, 0, nullptr, 0}};
    opterr = 0;
    for (int opt = 0; (opt = getopt_long(argc, argv, "h", kLong, nullptr)) != -1;) {
        if (opt == 'h') {
            fputs(kUsage, stdout);
            return 0;
        }
        const bool ok = opt == 'c'   ? (control = optarg, true)
                        : opt == 'i' ? (g_eioCreates = true)
                        : opt == 'e' ? parseMs(optarg, &everyMs)
                        : opt == 's' ? parseMs(optarg, &stallMs)
                                     : false;
        if (!ok) {
            fprintf(stderr, "vrec-stallfs: bad option %s%s%s (milliseconds are numbers from 0)\n%s",
                    argv[optind - 1], opt == '?' ? "" : " ", opt == '?' ? "" : optarg, kUsage);
            return 2;
        }
    }
    if (argc - optind != 2) {
        fprintf(stderr, "vrec-stallfs: give the backing directory and the mount point\n%s", kUsage);
        return 2;
    }
    const char* backingPath = argv[optind];
    const char* mountPoint = argv[optind + 1];
    backing = open(backingPath, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (backing == -1) {
        fprintf(stderr, "vrec-stallfs: open(%s) failed: %s (a directory is needed)\n", backingPath,
                strerror(errno));
        return 1;
    }
    stalls.schedule(everyMs, stallMs);

    int controlFd = -1;
    int controlKeep = -1;
    if (!control.empty()) {
        if (mkfifo(control.c_str(), 0600) != 0 && errno != EEXIST) {
            fprintf(stderr, "vrec-stallfs: mkfifo(%s) failed: %s\n", control.c_str(),
                    strerror(errno));
            return 1;
        }
        controlFd = open(control.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        controlKeep = open(control.c_str(), O_WRONLY | O_CLOEXEC);
        if (controlFd == -1 || controlKeep == -1) {
            fprintf(stderr, "vrec-stallfs: open(%s) failed: %s\n", control.c_str(),
                    strerror(errno));
            return 1;
        }
        fcntl(controlFd, F_SETFL, fcntl(controlFd, F_GETFL) & ~O_NONBLOCK);
    }

    const fuse_operations ops = operations();
    char* fuseArgv[] = {argv[0], nullptr};
    fuse_args args = FUSE_ARGS_INIT(1, fuseArgv);
    fuse* fs = fuse_new(&args, &ops, sizeof(ops), nullptr);
    if (fs == nullptr || fuse_mount(fs, mountPoint) != 0) {
        fprintf(stderr,
                "vrec-stallfs: mounting at %s failed (is /dev/fuse there and may this "
                "user mount?)\n",
                mountPoint);
        if (fs != nullptr) {
            fuse_destroy(fs);
        }
        return 1;
    }
    fuse_session* session = fuse_get_session(fs);
    fuse_set_signal_handlers(session);
    if (controlFd != -1) {
        std::thread(controlLoop, controlFd).detach();
    }
    answer("ready");
    const int result = fuse_loop_mt(fs, 0);
    fuse_remove_signal_handlers(session);
    fuse_unmount(fs);
    fuse_destroy(fs);
    if (controlKeep != -1) {
        close(controlKeep);
        unlink(control.c_str());
    }
    return result == 0 ? 0 : 1;
}
