// The WWAN stand-in served through libfuse3's high-level interface: a thread runs the
// file system's loop, another tells the kernel when a polled port got data.
#define FUSE_USE_VERSION 31

#include "wwanFs.h"

#include <fcntl.h>
#include <fuse.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "sysfsTree.h"

namespace vtools {

namespace {

// What one MHI transfer of a WWAN port takes; a longer write fails as the kernel's does.
constexpr size_t kMaxTransfer = 0x8000;
constexpr int kWaitStepMs = 100;
constexpr int kSocketBuffer = 1 << 20;

struct Node {
    std::string name;  // wwan0qcdm0
    int index = 0;
    WwanFs::Kind kind = WwanFs::kQcdm;
    int fsEnd = -1;  // the file system's end; the simulator holds the other
    std::atomic<bool> lost{false};
    fuse_pollhandle* poller = nullptr;  // under State::lock
};

const char* typeOf(WwanFs::Kind kind) {
    return kind == WwanFs::kQcdm ? "QCDM" : "AT";
}

}  // namespace

struct WwanFs::State {
    std::mutex lock;
    // Every port made, live or lost, by its number in the open files' handles; their
    // descriptors stay open as long as the file system, so a late request never meets a
    // number that was given to something else.
    std::vector<std::unique_ptr<Node>> nodes;
    int index = 0;
    bool anyMade = false;
    std::string mountDir;
    std::string sysfsRoot;
    std::function<void(const std::string&)> note;
    fuse* fs = nullptr;
    std::thread loop;
    std::thread watcher;
    std::atomic<bool> loopDone{false};
    std::atomic<bool> stopping{false};
    int wake[2] = {-1, -1};

    Node* live(const char* path) {
        for (auto& node : nodes) {
            if (!node->lost && path[0] == '/' && node->name == path + 1) {
                return node.get();
            }
        }
        return nullptr;
    }
    Node* byHandle(const fuse_file_info* fi) {
        std::lock_guard<std::mutex> guard(lock);
        return fi->fh < nodes.size() ? nodes[fi->fh].get() : nullptr;
    }
    void writeSysfs() {
        if (sysfsRoot.empty()) {
            return;
        }
        std::vector<WwanPortEntry> ports;
        for (auto& node : nodes) {
            if (!node->lost) {
                ports.push_back({node->index, node->name, typeOf(node->kind)});
            }
        }
        std::string error;
        if (!writeWwanTree(sysfsRoot, ports, &error)) {
            fprintf(stderr, "vrec-modemsim: %s\n", error.c_str());
        }
    }
    void poke() {
        const char byte = 1;
        if (write(wake[1], &byte, 1) < 0) {
            // the pipe is full: the watcher has a wake-up waiting already
        }
    }
    void notify(Node* node) {  // under lock
        if (node->poller != nullptr) {
            fuse_notify_poll(node->poller);
            fuse_pollhandle_destroy(node->poller);
            node->poller = nullptr;
        }
    }
    void watch();
};

namespace {

WwanFs::State* stateOf() {
    return static_cast<WwanFs::State*>(fuse_get_context()->private_data);
}

int fsGetattr(const char* path, struct stat* st, fuse_file_info*) {
    memset(st, 0, sizeof(*st));
    if (strcmp(path, "/") == 0) {
        st->st_mode = S_IFDIR | 0755;
        st->st_nlink = 2;
        return 0;
    }
    WwanFs::State* state = stateOf();
    std::lock_guard<std::mutex> guard(state->lock);
    if (state->live(path) == nullptr) {
        return -ENOENT;
    }
    st->st_mode = S_IFREG | 0666;
    st->st_nlink = 1;
    return 0;
}

int fsReaddir(const char* path, void* buffer, fuse_fill_dir_t fill, off_t, fuse_file_info*,
              fuse_readdir_flags) {
    if (strcmp(path, "/") != 0) {
        return -ENOTDIR;
    }
    const auto none = static_cast<fuse_fill_dir_flags>(0);
    fill(buffer, ".", nullptr, 0, none);
    fill(buffer, "..", nullptr, 0, none);
    WwanFs::State* state = stateOf();
    std::lock_guard<std::mutex> guard(state->lock);
    for (auto& node : state->nodes) {
        if (!node->lost) {
            fill(buffer, node->name.c_str(), nullptr, 0, none);
        }
    }
    return 0;
}

int fsOpen(const char* path, fuse_file_info* fi) {
    WwanFs::State* state = stateOf();
    std::lock_guard<std::mutex> guard(state->lock);
    for (size_t i = 0; i < state->nodes.size(); ++i) {
        Node& node = *state->nodes[i];
        if (!node.lost && node.name == path + 1) {
            fi->fh = i;
            fi->direct_io = 1;
            fi->nonseekable = 1;
            return 0;
        }
    }
    return -ENOENT;
}

int fsRead(const char*, char* buffer, size_t size, off_t, fuse_file_info* fi) {
    WwanFs::State* state = stateOf();
    Node* node = state->byHandle(fi);
    if (node == nullptr) {
        return -EBADF;
    }
    for (;;) {
        if (node->lost) {
            return -EIO;
        }
        const ssize_t n = recv(node->fsEnd, buffer, size, MSG_DONTWAIT);
        if (n > 0) {
            return static_cast<int>(n);
        }
        if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
            return -EIO;  // the simulator let go of the port
        }
        if ((fi->flags & O_NONBLOCK) != 0) {
            return -EAGAIN;
        }
        if (state->stopping) {
            return -EIO;
        }
        pollfd pfd{node->fsEnd, POLLIN, 0};
        poll(&pfd, 1, kWaitStepMs);
    }
}

int fsWrite(const char*, const char* data, size_t size, off_t, fuse_file_info* fi) {
    Node* node = stateOf()->byHandle(fi);
    if (node == nullptr) {
        return -EBADF;
    }
    if (node->lost) {
        return -ENODEV;
    }
    if (size > kMaxTransfer) {
        return -EMSGSIZE;
    }
    const int flags = MSG_NOSIGNAL | ((fi->flags & O_NONBLOCK) != 0 ? MSG_DONTWAIT : 0);
    const ssize_t n = send(node->fsEnd, data, size, flags);
    if (n >= 0) {
        return static_cast<int>(n);
    }
    return errno == EAGAIN ? -EAGAIN : -ENODEV;
}

int fsPoll(const char*, fuse_file_info* fi, fuse_pollhandle* ph, unsigned* revents) {
    WwanFs::State* state = stateOf();
    Node* node = state->byHandle(fi);
    if (node == nullptr) {
        return -EBADF;
    }
    std::lock_guard<std::mutex> guard(state->lock);
    if (node->lost) {
        *revents = POLLHUP | POLLERR;
        if (ph != nullptr) {
            fuse_pollhandle_destroy(ph);
        }
        return 0;
    }
    pollfd pfd{node->fsEnd, POLLIN | POLLOUT, 0};
    poll(&pfd, 1, 0);
    *revents = static_cast<unsigned>(pfd.revents & (POLLIN | POLLOUT));
    if (ph != nullptr) {
        if (node->poller != nullptr) {
            fuse_pollhandle_destroy(node->poller);
        }
        node->poller = ph;
        state->poke();
    }
    return 0;
}

int fsIoctl(const char* path, int cmd, void*, fuse_file_info*, unsigned int, void*) {
    // Like the kernel's QCDM port, the stand-in is no terminal. Asking for the settings is
    // how a program learns that (isatty); setting them is a mistake worth recording.
    const unsigned command = static_cast<unsigned>(cmd);
    if (command == TCSETS || command == TCSETSW || command == TCSETSF) {
        WwanFs::State* state = stateOf();
        std::function<void(const std::string&)> note;
        {
            std::lock_guard<std::mutex> guard(state->lock);
            note = state->note;
        }
        if (note) {
            note(std::string("refused terminal settings on ") + (path + 1));
        }
        fprintf(stderr, "vrec-modemsim: %s is not a terminal: terminal settings refused\n",
                path + 1);
    }
    return -ENOTTY;
}

void* fsInit(fuse_conn_info*, fuse_config* config) {
    config->entry_timeout = 0;
    config->attr_timeout = 0;
    config->negative_timeout = 0;
    config->direct_io = 1;
    return fuse_get_context()->private_data;
}

fuse_operations operations() {
    fuse_operations ops{};
    ops.getattr = fsGetattr;
    ops.readdir = fsReaddir;
    ops.open = fsOpen;
    ops.read = fsRead;
    ops.write = fsWrite;
    ops.poll = fsPoll;
    ops.ioctl = fsIoctl;
    ops.init = fsInit;
    return ops;
}

}  // namespace

// Tells the kernel of ports that a poll waits on and that got data meanwhile.
void WwanFs::State::watch() {
    while (!stopping) {
        std::vector<pollfd> fds{{wake[0], POLLIN, 0}};
        std::vector<Node*> watched;
        {
            std::lock_guard<std::mutex> guard(lock);
            for (auto& node : nodes) {
                if (node->poller != nullptr && !node->lost) {
                    fds.push_back({node->fsEnd, POLLIN, 0});
                    watched.push_back(node.get());
                }
            }
        }
        poll(fds.data(), fds.size(), kWaitStepMs);
        if ((fds[0].revents & POLLIN) != 0) {
            char buffer[64];
            while (read(wake[0], buffer, sizeof(buffer)) > 0) {
            }
        }
        std::lock_guard<std::mutex> guard(lock);
        for (size_t i = 0; i < watched.size(); ++i) {
            if (fds[i + 1].revents != 0) {
                notify(watched[i]);
            }
        }
    }
}

WwanFs::WwanFs() : state(new State) {}

WwanFs::~WwanFs() {
    if (state->fs == nullptr) {
        return;
    }
    state->stopping = true;
    state->poke();
    if (state->watcher.joinable()) {
        state->watcher.join();
    }
    fuse_exit(state->fs);
    fuse_unmount(state->fs);
    // With the mount gone the loop ends, unless a host still holds a port open: then the
    // process's end closes the connection, and the loop is left to it.
    for (int i = 0; i < 50 && !state->loopDone; ++i) {
        usleep(10000);
    }
    if (!state->loopDone) {
        state->loop.detach();
        state.release();  // still in use by the loop until the process ends
        return;
    }
    state->loop.join();
    fuse_destroy(state->fs);
    std::lock_guard<std::mutex> guard(state->lock);
    for (auto& node : state->nodes) {
        if (node->poller != nullptr) {
            fuse_pollhandle_destroy(node->poller);
        }
        close(node->fsEnd);
    }
    close(state->wake[0]);
    close(state->wake[1]);
}

void WwanFs::setSysfsRoot(const std::string& root) {
    std::lock_guard<std::mutex> guard(state->lock);
    state->sysfsRoot = root;
}

void WwanFs::setNote(std::function<void(const std::string&)> note) {
    std::lock_guard<std::mutex> guard(state->lock);
    state->note = std::move(note);
}

bool WwanFs::mount(const std::string& dir, std::string* error) {
    if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
        *error = "mkdir(" + dir + ") failed: " + strerror(errno);
        return false;
    }
    if (pipe2(state->wake, O_CLOEXEC | O_NONBLOCK) != 0) {
        *error = std::string("pipe failed: ") + strerror(errno);
        return false;
    }
    const fuse_operations ops = operations();
    char name[] = "vrec-modemsim";
    char* argv[] = {name, nullptr};
    fuse_args args = FUSE_ARGS_INIT(1, argv);
    state->fs = fuse_new(&args, &ops, sizeof(ops), state.get());
    fuse_opt_free_args(&args);
    if (state->fs == nullptr || fuse_mount(state->fs, dir.c_str()) != 0) {
        *error = "mounting the WWAN ports at " + dir +
                 " failed (is /dev/fuse there and may this user mount?)";
        if (state->fs != nullptr) {
            fuse_destroy(state->fs);
            state->fs = nullptr;
        }
        return false;
    }
    state->mountDir = dir;
    State* s = state.get();
    // Signals are the simulator's main thread's: its threads here take none.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before);
    state->loop = std::thread([s] {
        fuse_loop_mt(s->fs, 0);
        s->loopDone = true;
    });
    state->watcher = std::thread([s] { s->watch(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return true;
}

int WwanFs::attach(Kind kind, std::string* path, std::string* error) {
    int ends[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        *error = std::string("socketpair failed: ") + strerror(errno);
        return -1;
    }
    for (int end : ends) {
        setsockopt(end, SOL_SOCKET, SO_SNDBUF, &kSocketBuffer, sizeof(kSocketBuffer));
        setsockopt(end, SOL_SOCKET, SO_RCVBUF, &kSocketBuffer, sizeof(kSocketBuffer));
    }
    fcntl(ends[0], F_SETFL, fcntl(ends[0], F_GETFL) | O_NONBLOCK);
    std::lock_guard<std::mutex> guard(state->lock);
    bool liveAtIndex = false;
    for (auto& node : state->nodes) {
        liveAtIndex = liveAtIndex || (!node->lost && node->index == state->index);
    }
    // A modem that comes back from a reset is a new WWAN device with the next index.
    if (state->anyMade && !liveAtIndex) {
        ++state->index;
    }
    state->anyMade = true;
    auto node = std::make_unique<Node>();
    node->index = state->index;
    node->kind = kind;
    node->name = "wwan" + std::to_string(state->index) + (kind == kQcdm ? "qcdm0" : "at0");
    node->fsEnd = ends[1];
    *path = state->mountDir + "/" + node->name;
    state->nodes.push_back(std::move(node));
    state->writeSysfs();
    return ends[0];
}

void WwanFs::lose(Kind kind) {
    std::lock_guard<std::mutex> guard(state->lock);
    for (auto& node : state->nodes) {
        if (!node->lost && node->kind == kind) {
            node->lost = true;
            shutdown(node->fsEnd, SHUT_RDWR);
            state->notify(node.get());
        }
    }
    state->writeSysfs();
}

}  // namespace vtools
