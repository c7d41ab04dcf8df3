#include "sahara.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <set>

namespace sahara {

namespace {

constexpr size_t kAnnounce32Bytes = 0x10;
constexpr size_t kAnnounce64Bytes = 0x18;
constexpr size_t kEndImageBytes = 0x10;
constexpr size_t kResetRespBytes = 0x08;
// A read of exactly the size of END_IMAGE_TX could not be told from one, so a piece of 16
// bytes is asked for as two of 8.
constexpr uint64_t kAmbiguousPiece = kEndImageBytes;
constexpr uint32_t kHostVersion = 2;
constexpr size_t kReadsInFlight = 2;
constexpr uint32_t kHostCompatible = 1;
const char* const kIndexName = "dump_index.txt";

struct StatusName {
    uint32_t code;
    const char* name;
};
constexpr StatusName kStatusNames[] = {
    {0x00, "success"},
    {0x01, "invalid command"},
    {0x02, "protocol mismatch"},
    {0x03, "invalid target protocol"},
    {0x04, "invalid host protocol"},
    {0x05, "invalid packet size"},
    {0x06, "unexpected image"},
    {0x0C, "transmit/receive error"},
    {0x15, "unknown host error"},
    {0x16, "receive time-out"},
    {0x17, "transmit time-out"},
    {0x18, "invalid host mode"},
    {0x19, "invalid memory read"},
    {0x1A, "read size too big for the host"},
    {0x1B, "memory debug not supported"},
    {0x1C, "invalid mode switch"},
    {0x27, "enumeration failure"},
    {0x28, "bulk transfer error"},
};

void putU32(std::string* out, uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        out->push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
    }
}

void putU64(std::string* out, uint64_t value) {
    putU32(out, static_cast<uint32_t>(value));
    putU32(out, static_cast<uint32_t>(value >> 32));
}

std::string header(uint32_t command, size_t length) {
    std::string out;
    putU32(&out, command);
    putU32(&out, static_cast<uint32_t>(length));
    return out;
}

// The bytes of a fixed-size name up to its first NUL.
std::string nameField(const uint8_t* at) {
    size_t length = 0;
    while (length < kNameBytes && at[length] != 0) {
        ++length;
    }
    return std::string(reinterpret_cast<const char*>(at), length);
}

bool nameIsSafe(const std::string& name) {
    if (name.empty() || name == "." || name == kIndexName || name.find("..") != std::string::npos ||
        name.find_first_of("/\\") != std::string::npos) {
        return false;
    }
    return std::none_of(name.begin(), name.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte < 0x20 || byte == 0x7F;
    });
}

std::string escaped(const std::string& text) {
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte >= 0x7F || c == '\\') {
            char code[5];
            snprintf(code, sizeof(code), "\\x%02x", byte);
            out += code;
        } else {
            out.push_back(c);
        }
    }
    return out;
}

std::string hex(uint64_t value) {
    char text[24];
    snprintf(text, sizeof(text), "0x%" PRIx64, value);
    return text;
}

const char* causeText(Cause cause) {
    switch (cause) {
        case Cause::HungUp:
            return "port hung up";
        case Cause::Silent:
            return "no answer";
        case Cause::StorageFull:
            return "storage full";
        case Cause::Stopped:
            return "stopped";
    }
    return "";
}

}  // namespace

std::string modeName(uint32_t mode) {
    switch (mode) {
        case kModeImagePending:
            return "image transfer pending (download)";
        case kModeImageComplete:
            return "image transfer complete";
        case kModeMemoryDebug:
            return "memory debug";
        case kModeCommand:
            return "command";
        default:
            return "unknown mode " + std::to_string(mode);
    }
}

const char* statusName(uint32_t status) {
    for (const StatusName& entry : kStatusNames) {
        if (entry.code == status) {
            return entry.name;
        }
    }
    return "unknown";
}

uint32_t readU32(const uint8_t* at) {
    return static_cast<uint32_t>(at[0]) | static_cast<uint32_t>(at[1]) << 8 |
           static_cast<uint32_t>(at[2]) << 16 | static_cast<uint32_t>(at[3]) << 24;
}

uint64_t readU64(const uint8_t* at) {
    return static_cast<uint64_t>(readU32(at)) | static_cast<uint64_t>(readU32(at + 4)) << 32;
}

std::string helloResponse() {
    std::string out = header(kHelloResp, kHelloBytes);
    putU32(&out, kHostVersion);
    putU32(&out, kHostCompatible);
    putU32(&out, 0);  // status: success
    putU32(&out, kModeMemoryDebug);
    out.resize(kHelloBytes, '\0');
    return out;
}

std::string memoryRead(uint64_t address, uint64_t length, bool wide) {
    if (!wide) {
        std::string out = header(kMemoryRead, 0x10);
        putU32(&out, static_cast<uint32_t>(address));
        putU32(&out, static_cast<uint32_t>(length));
        return out;
    }
    std::string out = header(kMemoryRead64, 0x18);
    putU64(&out, address);
    putU64(&out, length);
    return out;
}

std::string reset() {
    return header(kReset, kHeaderBytes);
}

bool parseHello(const uint8_t* packet, size_t size, Hello* hello) {
    // The mode is the last field that counts; the reserved words after it may be missing.
    if (size < 0x18 || readU32(packet) != kHello || readU32(packet + 4) != size) {
        return false;
    }
    hello->version = readU32(packet + 8);
    hello->compatible = readU32(packet + 12);
    hello->maxPacket = readU32(packet + 16);
    hello->mode = readU32(packet + 20);
    return true;
}

bool tableLengthFits(uint64_t length, bool wide, std::string* reason) {
    const size_t entry = wide ? kEntry64Bytes : kEntry32Bytes;
    if (length == 0) {
        *reason = "the region table is empty";
    } else if (length > kMaxTableBytes) {
        *reason = "the region table of " + std::to_string(length) + " bytes is longer than " +
                  std::to_string(kMaxTableBytes);
    } else if (length % entry != 0) {
        *reason = "the region table of " + std::to_string(length) +
                  " bytes is no whole number of " + std::to_string(entry) + "-byte entries";
    } else {
        return true;
    }
    return false;
}

bool parseTable(const uint8_t* table, size_t size, bool wide, std::vector<Region>* regions,
                std::string* reason) {
    if (!tableLengthFits(size, wide, reason)) {
        return false;
    }
    const size_t entry = wide ? kEntry64Bytes : kEntry32Bytes;
    const size_t numbers = wide ? 24 : 12;  // save preference, address, length
    regions->clear();
    uint64_t sum = 0;
    for (size_t at = 0; at < size; at += entry) {
        const uint8_t* row = table + at;
        Region region;
        region.address = wide ? readU64(row + 8) : readU32(row + 4);
        region.length = wide ? readU64(row + 16) : readU32(row + 8);
        region.description = nameField(row + numbers);
        region.name = nameField(row + numbers + kNameBytes);
        const size_t number = regions->size();
        if (region.length > kMaxRegionBytes || region.address + region.length < region.address) {
            *reason = "region " + std::to_string(number) + " at " + hex(region.address) +
                      " has an impossible length of " + hex(region.length) + " bytes";
            regions->clear();
            return false;
        }
        sum += region.length;
        if (sum > kMaxDumpBytes) {
            *reason =
                "the regions add up to more than " + std::to_string(kMaxDumpBytes >> 30) + " GiB";
            regions->clear();
            return false;
        }
        regions->push_back(std::move(region));
    }
    assignFileNames(regions);
    return true;
}

void assignFileNames(std::vector<Region>* regions) {
    std::set<std::string> taken;
    for (size_t n = 0; n < regions->size(); ++n) {
        Region& region = (*regions)[n];
        std::string name = region.name;
        if (!nameIsSafe(name) || taken.count(name) != 0) {
            name = "region_" + std::to_string(n) + ".bin";
            for (int extra = 2; taken.count(name) != 0; ++extra) {
                name = "region_" + std::to_string(n) + "_" + std::to_string(extra) + ".bin";
            }
        }
        taken.insert(name);
        region.fileName = name;
    }
}

// ---- Session ----

Session::Session(Action what) : action(what) {}

bool Session::allComplete() const {
    return std::all_of(regionStates.begin(), regionStates.end(),
                       [](const RegionState& state) { return state.complete; });
}

void Session::emit(Event::Kind kind, size_t region, std::string text, uint64_t value) {
    Event event;
    event.kind = kind;
    event.region = region;
    event.text = std::move(text);
    event.value = value;
    events.push_back(std::move(event));
}

bool Session::readingRaw() const {
    return (current == Phase::Table || current == Phase::Regions) && pieceLeft > 0;
}

void Session::emitData(const uint8_t* data, size_t size) {
    pieceLeft -= size;
    if (regionRefused) {
        // The answer to a read asked for before the region was refused: passed over.
    } else if (current == Phase::Table) {
        offset += size;
        tableBytes.insert(tableBytes.end(), data, data + size);
    } else {
        offset += size;
        Event event;
        event.kind = Event::Kind::RegionData;
        event.region = regionIndex;
        event.data = data;
        event.size = size;
        events.push_back(event);
        regionStates[regionIndex].stored += size;
        storedSum += size;
    }
    if (pieceLeft == 0) {
        pieceDone();
    }
}

const std::vector<Session::Event>& Session::feed(const uint8_t* data, size_t size) {
    events.clear();
    handedOut.clear();
    // Moves input into `partial` until it holds `want` bytes; true once it does.
    const auto gather = [&](size_t want) {
        const size_t take = std::min(size, want - std::min(want, partial.size()));
        partial.insert(partial.end(), data, data + take);
        data += take;
        size -= take;
        return partial.size() >= want;
    };
    while (size > 0 && current != Phase::Finished) {
        if (current == Phase::Resetting) {
            // Whatever a read cut short may still come; the answer to RESET is looked for.
            static const std::string wanted = header(kResetResp, kResetRespBytes);
            while (size > 0 && partial.size() < kResetRespBytes) {
                const auto byte = *data++;
                --size;
                if (byte == static_cast<uint8_t>(wanted[partial.size()])) {
                    partial.push_back(byte);
                } else {
                    partial.clear();
                    if (byte == static_cast<uint8_t>(wanted[0])) {
                        partial.push_back(byte);
                    }
                }
            }
            if (partial.size() == kResetRespBytes) {
                partial.clear();
                finish(std::string());
            }
            continue;
        }
        if (readingRaw() && pieceRaw) {
            const size_t take = static_cast<size_t>(std::min<uint64_t>(size, pieceLeft));
            const uint8_t* at = data;
            data += take;
            size -= take;
            emitData(at, take);
            continue;
        }
        if (readingRaw()) {
            // The first bytes of an answer tell data from a refusal.
            const size_t decide = static_cast<size_t>(std::min<uint64_t>(kHeaderBytes, pieceLeft));
            if (!gather(decide)) {
                break;
            }
            if (decide == kHeaderBytes && readU32(partial.data()) == kEndImageTx &&
                readU32(partial.data() + 4) == kEndImageBytes) {
                pieceLeft = 0;  // a packet follows: END_IMAGE_TX
                continue;
            }
            pieceRaw = true;
            handedOut.push_back(std::move(partial));
            partial.clear();
            emitData(handedOut.back().data(), handedOut.back().size());
            continue;
        }
        // A packet: its header, then the rest of its length.
        if (!gather(kHeaderBytes)) {
            break;
        }
        const uint32_t length = readU32(partial.data() + 4);
        if (length < kHeaderBytes || length > kMaxPacketBytes) {
            protocolError("a packet of " + std::to_string(length) + " bytes");
            break;
        }
        if (!gather(length)) {
            break;
        }
        std::vector<uint8_t> packet;
        packet.swap(partial);
        handlePacket(packet.data(), packet.size());
    }
    return events;
}

void Session::handlePacket(const uint8_t* packet, size_t size) {
    const uint32_t command = readU32(packet);
    switch (current) {
        case Phase::Hello:
            onHello(packet, size);
            return;
        case Phase::Announce:
            onAnnounce(packet, size);
            return;
        case Phase::Table:
        case Phase::Regions:
            if (command == kEndImageTx && size == kEndImageBytes) {
                const uint32_t status = readU32(packet + 12);
                char state[64];
                snprintf(state, sizeof(state), "refused 0x%02x", status);
                if (current == Phase::Table) {
                    const std::string why = std::string("the module refused its region table (") +
                                            state + ", " + statusName(status) + ")";
                    emit(Event::Kind::TableRefused, 0, why);
                    sendReset(why);
                    return;
                }
                // The refusal answers the oldest read; one asked for after it is passed over.
                if (!inFlight.empty()) {
                    inFlight.pop_front();
                }
                if (!regionRefused) {
                    closeRegion(false, state);
                    regionRefused = true;
                }
                if (inFlight.empty()) {
                    nextRegion();
                } else {
                    startPiece();
                }
                return;
            }
            protocolError("command " + hex(command) + " in the middle of a read");
            return;
        default:
            return;
    }
}

void Session::onHello(const uint8_t* packet, size_t size) {
    Hello hello;
    if (!parseHello(packet, size, &hello)) {
        emit(Event::Kind::NotDump, 0, "no Sahara HELLO", UINT64_MAX);
        finish("no Sahara HELLO");
        return;
    }
    if (hello.mode != kModeMemoryDebug) {
        emit(Event::Kind::NotDump, 0, modeName(hello.mode), hello.mode);
        finish("the module is in " + modeName(hello.mode) + " mode");
        return;
    }
    emit(Event::Kind::InDumpMode);
    switch (action) {
        case Action::Leave:
            finish("left in dump mode");
            return;
        case Action::Reset:
            sendReset("reset without collecting");
            return;
        case Action::Collect:
            emit(Event::Kind::Send, 0, helloResponse());
            current = Phase::Announce;
            return;
    }
}

void Session::onAnnounce(const uint8_t* packet, size_t size) {
    const uint32_t command = readU32(packet);
    if (command == kMemoryDebug && size == kAnnounce32Bytes) {
        wideTable = false;
        tableAddress = readU32(packet + 8);
        tableLength = readU32(packet + 12);
    } else if (command == kMemoryDebug64 && size == kAnnounce64Bytes) {
        wideTable = true;
        tableAddress = readU64(packet + 8);
        tableLength = readU64(packet + 16);
    } else {
        protocolError("command " + hex(command) + " (" + std::to_string(size) +
                      " bytes) where the region table was due");
        return;
    }
    std::string reason;
    if (!tableLengthFits(tableLength, wideTable, &reason)) {
        emit(Event::Kind::TableRefused, 0, reason);
        sendReset(reason);
        return;
    }
    current = Phase::Table;
    startTarget();
    tableBytes.clear();
    askMore();
}

void Session::onTable() {
    std::string reason;
    std::vector<Region> parsed;
    if (!parseTable(tableBytes.data(), tableBytes.size(), wideTable, &parsed, &reason)) {
        emit(Event::Kind::TableRefused, 0, reason);
        sendReset(reason);
        return;
    }
    table = std::move(parsed);
    regionStates.assign(table.size(), RegionState());
    dumpBytes = 0;
    for (const Region& region : table) {
        dumpBytes += region.length;
    }
    emit(Event::Kind::TableRead);
    current = Phase::Regions;
    openRegionsFrom(0);
}

void Session::startTarget() {
    offset = 0;
    requested = 0;
    inFlight.clear();
    regionRefused = false;
    pieceLeft = 0;
}

void Session::startPiece() {
    pieceLeft = inFlight.empty() ? 0 : inFlight.front();
    pieceRaw = false;
}

void Session::askMore() {
    const uint64_t length = current == Phase::Table ? tableLength : table[regionIndex].length;
    const uint64_t base = current == Phase::Table ? tableAddress : table[regionIndex].address;
    // Two reads in flight: the module prepares the next answer while this one comes in.
    while (inFlight.size() < kReadsInFlight && requested < length && !stopAtPiece) {
        uint64_t piece = std::min(kPieceBytes, length - requested);
        if (piece == kAmbiguousPiece) {
            piece /= 2;
        }
        emit(Event::Kind::Send, 0, memoryRead(base + requested, piece, wideTable));
        inFlight.push_back(piece);
        requested += piece;
    }
    if (pieceLeft == 0) {
        startPiece();
    }
}

void Session::pieceDone() {
    if (!inFlight.empty()) {
        inFlight.pop_front();
    }
    if (current == Phase::Table) {
        if (offset < tableLength) {
            askMore();
        } else {
            onTable();
        }
        return;
    }
    if (regionRefused) {
        if (inFlight.empty()) {
            nextRegion();
        } else {
            startPiece();
        }
        return;
    }
    const bool regionEnds = offset >= table[regionIndex].length;
    if (regionEnds) {
        closeRegion(true, "complete");
    }
    if (stopAtPiece) {
        if (!inFlight.empty()) {
            startPiece();  // what was asked for comes in first
            return;
        }
        if (!regionEnds) {
            closeRegion(false, std::string("cut: ") + causeText(Cause::Stopped));
        }
        sendReset(causeText(Cause::Stopped));
        return;
    }
    if (regionEnds) {
        nextRegion();
    } else {
        askMore();
    }
}

void Session::nextRegion() {
    if (stopAtPiece) {
        ++regionIndex;  // the regions after the one that ended are not read
        sendReset(causeText(Cause::Stopped));
        return;
    }
    openRegionsFrom(regionIndex + 1);
}

void Session::openRegionsFrom(size_t first) {
    for (regionIndex = first; regionIndex < table.size(); ++regionIndex) {
        startTarget();
        emit(Event::Kind::RegionOpen, regionIndex);
        if (table[regionIndex].length != 0) {
            askMore();
            return;
        }
        closeRegion(true, "complete");
    }
    sendReset(std::string());
}

void Session::closeRegion(bool complete, const std::string& state) {
    RegionState& record = regionStates[regionIndex];
    record.complete = complete;
    record.state = state;
    pieceLeft = 0;
    emit(Event::Kind::RegionClosed, regionIndex);
}

void Session::sendReset(const std::string& why) {
    // Regions not reached say why they were not.
    for (size_t n = regionIndex; n < regionStates.size(); ++n) {
        if (regionStates[n].state == "not read" && !why.empty()) {
            regionStates[n].state = "not read: " + why;
        }
    }
    if (current == Phase::Regions && regionIndex < regionStates.size()) {
        regionIndex = regionStates.size();
    }
    if (!why.empty()) {
        outcome = "incomplete: " + why;
    } else {
        outcome = allComplete() ? "complete" : "incomplete: regions refused";
    }
    pieceLeft = 0;
    inFlight.clear();
    partial.clear();
    current = Phase::Resetting;
    emit(Event::Kind::Send, 0, reset());
}

void Session::finish(const std::string& text) {
    if (current != Phase::Resetting && outcome == "not finished") {
        outcome = text;
    }
    current = Phase::Finished;
    pieceLeft = 0;
    emit(Event::Kind::Finished, 0, text);
}

void Session::protocolError(const std::string& what) {
    const std::string why = "protocol error: " + what;
    if (current == Phase::Hello) {
        emit(Event::Kind::NotDump, 0, "no Sahara HELLO", UINT64_MAX);
        finish("no Sahara HELLO");
        return;
    }
    if (current == Phase::Regions && regionIndex < table.size()) {
        closeRegion(false, "cut: " + why);
    }
    sendReset(why);
}

void Session::notStored(size_t region, uint64_t bytes, Cause cause) {
    if (region >= regionStates.size()) {
        return;
    }
    RegionState& record = regionStates[region];
    const uint64_t lost = std::min(bytes, record.stored);
    record.stored -= lost;
    storedSum -= lost;
    if (record.complete) {
        record.complete = false;
        record.state = std::string("cut: ") + causeText(cause);
    }
}

const std::vector<Session::Event>& Session::abort(Cause cause) {
    events.clear();
    handedOut.clear();
    const std::string why = causeText(cause);
    if (current == Phase::Finished) {
        return events;
    }
    if (current == Phase::Resetting) {
        // A module that drops off the bus after RESET is resetting as asked.
        finish(cause == Cause::HungUp ? std::string() : "no answer to RESET");
        return events;
    }
    if (current == Phase::Hello) {
        finish(cause == Cause::Silent ? "no HELLO" : why);
        return events;
    }
    if (current == Phase::Regions && regionIndex < table.size()) {
        closeRegion(false, "cut: " + why);
    }
    if (cause == Cause::HungUp) {
        for (size_t n = regionIndex; n < regionStates.size(); ++n) {
            if (regionStates[n].state == "not read") {
                regionStates[n].state = "not read: " + why;
            }
        }
        outcome = "incomplete: " + why;
        finish(why);
        return events;
    }
    sendReset(why);
    return events;
}

const std::vector<Session::Event>& Session::stop() {
    events.clear();
    handedOut.clear();
    if (readingRaw() && current == Phase::Regions) {
        stopAtPiece = true;  // the piece under way comes in first
        return events;
    }
    return abort(Cause::Stopped);
}

std::string Session::indexText(const std::string& heading) const {
    std::string text = "# vrec memory dump " + heading + " table " + (wideTable ? "64" : "32") +
                       "-bit " + std::to_string(table.size()) + " regions\n";
    for (size_t n = 0; n < table.size(); ++n) {
        const Region& region = table[n];
        const RegionState& state = regionStates[n];
        text += std::to_string(n) + "\t" + escaped(region.description) + "\t" + region.fileName +
                "\t" + hex(region.address) + "\t" + hex(region.length) + "\t" +
                std::to_string(state.stored) + "\t" + state.state + "\n";
    }
    text += "# result " + outcome + "\n";
    return text;
}

}  // namespace sahara
