#ifndef VREC_SRV_COMMANDFILE_H
#define VREC_SRV_COMMANDFILE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// "startcmd.txt" and "stopcmd.txt" in a form that costs little memory: the bytes of all
// commands in one buffer and where each command ends. The text's rules: only what stands
// between "{" and the next "}" counts, each such group is one command, and every "0x" in a
// group starts a byte, read from the four characters there as a hexadecimal number.
class CommandList {
public:
    // The largest command file accepted: far beyond any real set of commands, small
    // beside a board's memory.
    static constexpr long kFileLimitBytes = 1L << 20;

    // Counts first and then fills, so that the whole list takes at most 2.5 bytes for
    // each byte of `text`.
    static CommandList parse(const std::string& text);

    size_t count() const { return ends.size(); }
    const unsigned char* command(size_t index) const;
    int length(size_t index) const;
    // Bytes the list holds, for checks of its size.
    size_t footprint() const { return bytes.capacity() + ends.capacity() * sizeof(uint32_t); }

    // What stands in the way of sending the command file at `path`, as the end of an
    // "ERROR:" line; empty when it can be read and is not too large, or does not exist.
    static std::string problemWith(const std::string& path);

    void addCommand(const unsigned char* data, size_t size);

private:
    std::vector<unsigned char> bytes;
    std::vector<uint32_t> ends;
};

#endif
