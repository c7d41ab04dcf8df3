#ifndef VREC_CMD_UDPSERVER_H
#define VREC_CMD_UDPSERVER_H

#include <netinet/in.h>

// A datagram socket with a receive thread that hands every datagram to OnReceive.
class CUdpServer {
public:
    CUdpServer() = default;
    virtual ~CUdpServer();
    CUdpServer(const CUdpServer&) = delete;
    CUdpServer& operator=(const CUdpServer&) = delete;

    // Binds a socket to the port on all local addresses.
    bool Initialize(unsigned short port);
    // Binds a socket to the port on one address, quietly; on failure `error` holds the
    // system's error number.
    bool Bind(unsigned short port, in_addr_t address, int* error);
    // Starts the receive thread. It ends only when the socket is gone: an empty datagram
    // or a failed receive leaves the channel open.
    bool Start();
    int SendTo(const sockaddr_in* to, const char* data, int length);

protected:
    virtual void OnReceive(const sockaddr_in* from, const char* data, int length) = 0;

private:
    static void* ReceiveLoop(void* param);

    int socketHandle = -1;
};

#endif
