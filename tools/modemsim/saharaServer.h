#ifndef VREC_TOOLS_SAHARASERVER_H
#define VREC_TOOLS_SAHARASERVER_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "dumpSetup.h"

namespace vtools {

// Sahara command ids, as on the wire. The module's side keeps its own copy of the protocol,
// apart from vrec's, so that a mistake in vrec's reading of it cannot also hide in the module
// that checks it.
enum SaharaCommand : uint32_t {
    kSaharaHello = 1,
    kSaharaHelloResp = 2,
    kSaharaEndImageTx = 4,
    kSaharaReset = 7,
    kSaharaResetResp = 8,
    kSaharaMemoryDebug = 9,
    kSaharaMemoryRead = 0xA,
    kSaharaMemoryDebug64 = 0x10,
    kSaharaMemoryRead64 = 0x11,
};
constexpr uint32_t kSaharaModeMemoryDebug = 2;
constexpr uint32_t kSaharaInvalidCommand = 1;
constexpr uint32_t kSaharaInvalidHostMode = 0x18;
constexpr uint32_t kSaharaInvalidMemoryRead = 0x19;
constexpr uint32_t kSaharaReadTooBig = 0x1A;
constexpr uint64_t kSaharaMostRead = 64 * 1024;  // the largest read a host asks for

// The module's side of Sahara in memory-debug mode, without I/O: packets from the host go
// in, what the module sends comes out, and every packet with every fault a correct host
// would not commit is told through `note`.
class SaharaServer {
public:
    // kind: "sahara" (a packet received, named, with its fields), "junk" (hex), "error"
    // (what a correct host never does) or "event" (a step of the dump).
    using Note = std::function<void(const std::string& kind, const std::string& text)>;

    SaharaServer(const DumpSetup& setup, Note note);

    // Faults, for this dump from now on.
    void setMode(uint32_t mode) { mode_ = mode; }
    void refuse(const std::string& region);  // a number from 0 or a file name
    void hangupAfter(uint64_t bytes) { hangupAt = bytes; }
    void silentAfter(uint64_t bytes) { silentAt = bytes; }
    void announceTableLength(uint64_t bytes) { tableLength = bytes; }

    // The first thing the module sends, once: HELLO.
    void start();
    // What the host wrote.
    void feed(const char* data, size_t size);
    // Up to `most` bytes of what the module sends next into `out`; 0 when nothing is due.
    size_t produce(unsigned char* out, size_t most);
    bool pending() const { return !out.empty() && !silent() && !hungUp(); }
    // The host's bytes that no packet took yet: a cut packet when the port goes.
    void endOfInput();

    bool resetSeen() const { return reset; }
    bool resetAnswered() const { return reset && out.empty(); }
    bool hungUp() const { return stoppedHung; }
    bool silent() const { return stoppedSilent; }
    uint64_t regionBytes() const { return served; }
    const std::vector<unsigned char>& table() const { return tableBytes; }

private:
    // One thing to send: a packet, or raw bytes of the table or of a region.
    struct Out {
        std::string packet;
        bool memory = false;
        bool isTable = false;
        int region = -1;
        uint64_t address = 0;
        uint64_t left = 0;
    };

    void take(uint32_t command, const std::string& packet);
    void takeHelloResp(const std::string& packet);
    void takeRead(uint32_t command, uint64_t address, uint64_t length);
    void error(const std::string& words) { note("error", words); }
    void send(std::string packet);
    void endImage(uint32_t status);
    int regionOf(uint64_t address, uint64_t length) const;

    DumpSetup setup;
    Note note;
    std::vector<unsigned char> tableBytes;
    uint64_t tableLength = 0;  // announced
    uint32_t mode_ = kSaharaModeMemoryDebug;
    std::set<size_t> refused;
    uint64_t hangupAt = UINT64_MAX;
    uint64_t silentAt = UINT64_MAX;

    bool helloSent = false;
    bool helloAnswered = false;
    bool debugSent = false;
    bool reset = false;
    std::string input;
    std::deque<Out> out;
    uint64_t served = 0;         // region bytes sent
    bool stoppedHung = false;    // the hang-up fault's count was reached
    bool stoppedSilent = false;  // the silence fault's count was reached
};

// The name of a Sahara command, or its number in hex.
std::string saharaName(uint32_t command);

}  // namespace vtools

#endif
