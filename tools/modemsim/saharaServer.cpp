#include "saharaServer.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "atText.h"
#include "simMemory.h"

namespace vtools {

namespace {

constexpr size_t kHeader = 8;
constexpr size_t kLongestPacket = 0x40;  // a length field above this is no host packet
constexpr size_t kNameField = 20;

struct CommandInfo {
    uint32_t id;
    const char* name;
    uint32_t length;  // what a host sends; 0: not a command a host sends in a dump
};
const CommandInfo kCommands[] = {
    {1, "HELLO", 0},
    {2, "HELLO_RESP", 0x30},
    {3, "READ_DATA", 0},
    {4, "END_IMAGE_TX", 0},
    {5, "DONE", 0},
    {6, "DONE_RESP", 0},
    {7, "RESET", 8},
    {8, "RESET_RESP", 0},
    {9, "MEMORY_DEBUG", 0},
    {0xA, "MEMORY_READ", 0x10},
    {0xB, "CMD_READY", 0},
    {0xC, "SWITCH_MODE", 0},
    {0xD, "EXECUTE", 0},
    {0xE, "EXECUTE_RESP", 0},
    {0xF, "EXECUTE_DATA", 0},
    {0x10, "MEMORY_DEBUG_64", 0},
    {0x11, "MEMORY_READ_64", 0x18},
    {0x12, "READ_DATA_64", 0},
    {0x13, "RESET_STATE_MACHINE", 0},
    {0x14, "WRITE_DATA", 0},
};

const CommandInfo* commandInfo(uint32_t id) {
    for (const CommandInfo& info : kCommands) {
        if (info.id == id) {
            return &info;
        }
    }
    return nullptr;
}

uint32_t le32(const std::string& bytes, size_t at) {
    uint32_t value = 0;
    for (size_t i = 0; i < 4; ++i) {
        value |= static_cast<uint32_t>(static_cast<unsigned char>(bytes[at + i])) << (8 * i);
    }
    return value;
}

uint64_t le64(const std::string& bytes, size_t at) {
    return le32(bytes, at) | static_cast<uint64_t>(le32(bytes, at + 4)) << 32;
}

void putLe(std::string& bytes, uint64_t value, size_t size) {
    for (size_t i = 0; i < size; ++i) {
        bytes += static_cast<char>(value >> (8 * i));
    }
}

void putLe(std::vector<unsigned char>& bytes, uint64_t value, size_t size) {
    for (size_t i = 0; i < size; ++i) {
        bytes.push_back(static_cast<unsigned char>(value >> (8 * i)));
    }
}

std::string packet(uint32_t command, std::initializer_list<uint64_t> fields, size_t fieldSize) {
    std::string bytes;
    putLe(bytes, command, 4);
    putLe(bytes, kHeader + fields.size() * fieldSize, 4);
    for (const uint64_t field : fields) {
        putLe(bytes, field, fieldSize);
    }
    return bytes;
}

std::string hex(uint64_t value) {
    char text[24];
    snprintf(text, sizeof(text), "0x%" PRIx64, value);
    return text;
}

}  // namespace

std::string saharaName(uint32_t command) {
    const CommandInfo* info = commandInfo(command);
    return info != nullptr ? info->name : hex(command);
}

SaharaServer::SaharaServer(const DumpSetup& dumpSetup, Note noteFunction)
    : setup(dumpSetup), note(std::move(noteFunction)) {
    const size_t field = setup.tableBits == 32 ? 4 : 8;
    for (const DumpRegion& region : setup.regions) {
        putLe(tableBytes, 0, field);  // save preference
        putLe(tableBytes, region.address, field);
        putLe(tableBytes, region.length, field);
        for (const std::string* name : {&region.description, &region.file}) {
            std::vector<unsigned char> text(kNameField, 0);
            std::copy(name->begin(), name->end(), text.begin());
            tableBytes.insert(tableBytes.end(), text.begin(), text.end());
        }
    }
    tableLength = tableBytes.size();
}

void SaharaServer::refuse(const std::string& region) {
    for (size_t i = 0; i < setup.regions.size(); ++i) {
        if (setup.regions[i].file == region || std::to_string(i) == region) {
            refused.insert(i);
            return;
        }
    }
    note("event", "refuse: no region " + region);
}

void SaharaServer::send(std::string bytes) {
    Out item;
    item.packet = std::move(bytes);
    out.push_back(std::move(item));
}

void SaharaServer::endImage(uint32_t status) {
    send(packet(kSaharaEndImageTx, {0, status}, 4));
}

void SaharaServer::start() {
    if (helloSent) {
        return;
    }
    helloSent = true;
    // version, version compatible, longest command packet, mode, six reserved words
    send(packet(kSaharaHello, {2, 1, 0x30, mode_, 0, 0, 0, 0, 0, 0}, 4));
    note("event", "hello mode " + std::to_string(mode_));
}

void SaharaServer::feed(const char* data, size_t size) {
    if (mode_ != kSaharaModeMemoryDebug) {
        note("junk", hexBytes(std::string(data, size)));
        error("written to a port whose HELLO has mode " + std::to_string(mode_));
        return;
    }
    input.append(data, size);
    while (input.size() >= kHeader) {
        const uint32_t command = le32(input, 0);
        const uint32_t length = le32(input, 4);
        if (length < kHeader || length > kLongestPacket) {
            note("junk", hexBytes(input));
            error("length field " + hex(length) + " in a packet of command " + hex(command) +
                  ": no host packet is shorter than 8 or longer than 0x30 bytes");
            input.clear();
            return;
        }
        if (input.size() < length) {
            return;
        }
        const std::string bytes = input.substr(0, length);
        input.erase(0, length);
        take(command, bytes);
    }
}

void SaharaServer::endOfInput() {
    if (!input.empty()) {
        note("junk", hexBytes(input));
        error("a cut packet of " + std::to_string(input.size()) + " bytes");
        input.clear();
    }
}

void SaharaServer::take(uint32_t command, const std::string& bytes) {
    const CommandInfo* info = commandInfo(command);
    const std::string name = saharaName(command);
    std::string fields;
    if (command == kSaharaHelloResp && bytes.size() >= 0x18) {
        fields = " version=" + std::to_string(le32(bytes, 8)) +
                 " compatible=" + std::to_string(le32(bytes, 12)) +
                 " status=" + std::to_string(le32(bytes, 16)) +
                 " mode=" + std::to_string(le32(bytes, 20));
    } else if (command == kSaharaMemoryRead && bytes.size() >= 0x10) {
        fields = " address=" + hex(le32(bytes, 8)) + " length=" + hex(le32(bytes, 12));
    } else if (command == kSaharaMemoryRead64 && bytes.size() >= 0x18) {
        fields = " address=" + hex(le64(bytes, 8)) + " length=" + hex(le64(bytes, 16));
    } else if (bytes.size() > kHeader) {
        fields = " " + hexBytes(bytes.substr(kHeader));
    }
    note("sahara", name + fields);
    if (reset) {
        error(name + " after RESET");
        return;
    }
    if (info == nullptr || info->length == 0) {
        error(name + ": not a command a host sends in memory-debug mode");
        endImage(kSaharaInvalidCommand);
        return;
    }
    if (bytes.size() != info->length) {
        error(name + " with length field " + hex(bytes.size()) + ", not " + hex(info->length));
        return;
    }
    if (command != kSaharaReset && !helloAnswered && command != kSaharaHelloResp) {
        error(name + " before HELLO_RESP");
    }
    switch (command) {
        case kSaharaHelloResp:
            takeHelloResp(bytes);
            break;
        case kSaharaMemoryRead:
            takeRead(command, le32(bytes, 8), le32(bytes, 12));
            break;
        case kSaharaMemoryRead64:
            takeRead(command, le64(bytes, 8), le64(bytes, 16));
            break;
        case kSaharaReset:
            reset = true;
            note("event", "reset after " + std::to_string(served) + " bytes");
            if (!silent()) {
                send(packet(kSaharaResetResp, {}, 4));
            }
            break;
        default:
            break;
    }
}

void SaharaServer::takeHelloResp(const std::string& bytes) {
    const uint32_t version = le32(bytes, 8);
    const uint32_t status = le32(bytes, 16);
    const uint32_t mode = le32(bytes, 20);
    if (helloAnswered) {
        error("a second HELLO_RESP");
        return;
    }
    bool good = true;
    if (mode != kSaharaModeMemoryDebug) {
        error("HELLO_RESP with mode " + std::to_string(mode) + ", not 2");
        good = false;
    }
    if (status != 0) {
        error("HELLO_RESP with status " + std::to_string(status) + ", not 0");
        good = false;
    }
    if (version < 2) {
        error("HELLO_RESP with version " + std::to_string(version) + ", below 2");
    }
    if (!good) {
        endImage(kSaharaInvalidHostMode);
        return;
    }
    helloAnswered = true;
    debugSent = true;
    if (setup.tableBits == 32) {
        send(packet(kSaharaMemoryDebug, {kDumpTableAddress, tableLength}, 4));
    } else {
        send(packet(kSaharaMemoryDebug64, {kDumpTableAddress, tableLength}, 8));
    }
}

int SaharaServer::regionOf(uint64_t address, uint64_t length) const {
    for (size_t i = 0; i < setup.regions.size(); ++i) {
        const DumpRegion& region = setup.regions[i];
        if (address >= region.address && address - region.address <= region.length &&
            length <= region.length - (address - region.address)) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

void SaharaServer::takeRead(uint32_t command, uint64_t address, uint64_t length) {
    const bool wide = command == kSaharaMemoryRead64;
    if (!debugSent) {
        error(saharaName(command) + " before MEMORY_DEBUG");
    }
    if (wide != (setup.tableBits == 64)) {
        error(saharaName(command) + " with a " + std::to_string(setup.tableBits) + "-bit table");
    }
    const std::string what = "a read of " + hex(length) + " bytes at " + hex(address);
    if (length == 0) {
        error(what + ": no bytes");
        endImage(kSaharaInvalidMemoryRead);
        return;
    }
    if (length > kSaharaMostRead) {
        error(what + ": over 64 KiB");
        endImage(kSaharaReadTooBig);
        return;
    }
    if (length == 16) {
        error(what + ": its answer cannot be told from END_IMAGE_TX");
    }
    Out item;
    item.memory = true;
    item.address = address;
    item.left = length;
    if (address >= kDumpTableAddress && address - kDumpTableAddress <= tableLength &&
        length <= tableLength - (address - kDumpTableAddress)) {
        item.isTable = true;
        out.push_back(item);
        return;
    }
    item.region = regionOf(address, length);
    if (item.region < 0) {
        error(what + ": not inside the table or one region");
        endImage(kSaharaInvalidMemoryRead);
        return;
    }
    if (refused.count(static_cast<size_t>(item.region)) != 0) {
        note("event", "refused region " + std::to_string(item.region));
        endImage(kSaharaInvalidMemoryRead);
        return;
    }
    out.push_back(item);
}

size_t SaharaServer::produce(unsigned char* to, size_t most) {
    size_t made = 0;
    while (made < most && !out.empty() && !silent() && !hungUp()) {
        Out& head = out.front();
        if (!head.memory) {
            const size_t n = std::min(most - made, head.packet.size());
            memcpy(to + made, head.packet.data(), n);
            head.packet.erase(0, n);
            made += n;
            if (head.packet.empty()) {
                out.pop_front();
            }
            continue;
        }
        size_t n = static_cast<size_t>(std::min<uint64_t>(most - made, head.left));
        if (head.isTable) {
            const uint64_t offset = head.address - kDumpTableAddress;
            for (size_t i = 0; i < n; ++i) {
                to[made + i] = offset + i < tableBytes.size() ? tableBytes[offset + i] : 0;
            }
        } else {
            // The faults take effect at their count of region bytes, however the reads fall.
            if (served >= hangupAt || served >= silentAt) {
                stoppedHung = served >= hangupAt;
                stoppedSilent = !stoppedHung;
                note("event", std::string(stoppedHung ? "hangup" : "silent") + " after " +
                                  std::to_string(served) + " bytes");
                break;
            }
            n = static_cast<size_t>(std::min<uint64_t>(n, std::min(hangupAt, silentAt) - served));
            simMemoryFill(head.address, to + made, n);
            served += n;
        }
        made += n;
        head.address += n;
        head.left -= n;
        if (head.left == 0) {
            if (head.region >= 0) {
                const DumpRegion& region = setup.regions[static_cast<size_t>(head.region)];
                if (head.address == region.address + region.length) {
                    note("event", "region " + std::to_string(head.region) + " done");
                }
            }
            out.pop_front();
        }
    }
    return made;
}

}  // namespace vtools
