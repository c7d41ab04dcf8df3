#ifndef VREC_TOOLS_OUTPUTS_H
#define VREC_TOOLS_OUTPUTS_H

#include <netinet/in.h>

#include <cstdio>
#include <string>

#include "signalling.h"

namespace vdecode {

// Where records go. Errors are returned with a text that names what failed.
class Output {
public:
    enum class Result { kWritten, kNotCarried, kFailed };
    virtual ~Output() = default;
    virtual Result write(const Record& record) = 0;
    // A line of text that is not a record (an extended message); only text output shows it.
    virtual bool wantsMessages() const { return false; }
    virtual Result writeMessage(uint64_t /*unixMicros*/, const std::string& /*text*/) {
        return Result::kNotCarried;
    }
    virtual bool close() { return true; }
    // Hands on what is buffered, for a reader that follows a capture live.
    virtual void flush() {}
    const std::string& error() const { return failure; }

protected:
    std::string failure;
};

// pcapng: one IPv4 interface that carries GSMTAP in UDP to port 4729 and, from the first
// record that needs it, one exported-PDU interface.
class PcapngOutput : public Output {
public:
    ~PcapngOutput() override;
    bool open(const std::string& path);
    Result write(const Record& record) override;
    bool close() override;

private:
    bool put(const std::string& block);
    void interfaceBlock(uint16_t linkType);

    FILE* file = nullptr;
    std::string path;
    std::string block;  // reused for every record
    bool exportedInterface = false;
};

// One line per record on standard output, and the extended messages as text.
class TextOutput : public Output {
public:
    explicit TextOutput(FILE* to) : to(to) {}
    Result write(const Record& record) override;
    bool wantsMessages() const override { return true; }
    Result writeMessage(uint64_t unixMicros, const std::string& text) override;
    bool close() override;
    void flush() override { fflush(to); }

private:
    FILE* to;
};

// Each GSMTAP record as one UDP datagram. NR and 5GS records have no GSMTAP version 2 form.
class UdpOutput : public Output {
public:
    ~UdpOutput() override;
    // HOST or HOST:PORT, the port 4729 unless given.
    bool open(const std::string& where);
    Result write(const Record& record) override;

private:
    int fd = -1;
    sockaddr_storage address{};
    socklen_t addressLength = 0;
    bool reported = false;
};

// "2016-04-05 12:34:56.789" in UTC.
std::string utcTime(uint64_t unixMicros);

}  // namespace vdecode

#endif
