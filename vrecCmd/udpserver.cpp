#include "udpserver.h"

#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "console.h"
#include "diagLog.h"

namespace {
constexpr int kDatagramBuffer = 2048;
constexpr useconds_t kRetryPauseUs = 100000;
}  // namespace

CUdpServer::~CUdpServer() {
    if (socketHandle != -1) {
        close(socketHandle);
    }
}

bool CUdpServer::Initialize(unsigned short port) {
    int error = 0;
    if (Bind(port, htonl(INADDR_ANY), &error)) {
        return true;
    }
    if (error != 0) {
        consolePrint("bind error in UDP Initialize");
    }
    return false;
}

bool CUdpServer::Bind(unsigned short port, in_addr_t address, int* error) {
    *error = 0;
    socketHandle = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socketHandle < 0) {
        socketHandle = -1;
        DIAG_LOG(LOG_INFO, "socket return INVALID_SOCKET in UDP Initialize");
        return false;
    }
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = address;
    local.sin_port = htons(port);
    if (bind(socketHandle, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0) {
        *error = errno;
        close(socketHandle);
        socketHandle = -1;
        return false;
    }
    return true;
}

bool CUdpServer::Start() {
    pthread_t thread;
    if (pthread_create(&thread, nullptr, ReceiveLoop, this) != 0) {
        consolePrint("Create thread error in UDP Start");
        return false;
    }
    pthread_detach(thread);
    return true;
}

int CUdpServer::SendTo(const sockaddr_in* to, const char* data, int length) {
    return static_cast<int>(sendto(socketHandle, data, static_cast<size_t>(length), 0,
                                   reinterpret_cast<const sockaddr*>(to), sizeof(*to)));
}

void* CUdpServer::ReceiveLoop(void* param) {
    auto* self = static_cast<CUdpServer*>(param);
    if (self->socketHandle == -1) {
        return nullptr;
    }
    for (;;) {
        char buffer[kDatagramBuffer] = {};
        sockaddr_in from{};
        socklen_t fromLength = sizeof(from);
        const ssize_t received = recvfrom(self->socketHandle, buffer, sizeof(buffer), 0,
                                          reinterpret_cast<sockaddr*>(&from), &fromLength);
        if (received > 0) {
            self->OnReceive(&from, buffer, static_cast<int>(received));
        } else if (received < 0 && (errno == EBADF || errno == ENOTSOCK)) {
            return nullptr;  // the socket is gone
        } else if (received < 0 && errno != EINTR) {
            // A passing failure, such as a lack of memory: the channel stays, after a breath.
            usleep(kRetryPauseUs);
        }
        // An empty datagram carries no command; the channel stays.
    }
}
