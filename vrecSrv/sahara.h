#ifndef VREC_SRV_SAHARA_H
#define VREC_SRV_SAHARA_H

// The Sahara protocol of a module in memory-debug (crash dump) mode, without any I/O: bytes
// from the port go in, bytes for the port and what to store come out. All numbers on the
// wire are little-endian; every packet starts with a command id and its own length.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace sahara {

enum Command : uint32_t {
    kHello = 0x01,
    kHelloResp = 0x02,
    kReadData = 0x03,
    kEndImageTx = 0x04,
    kReset = 0x07,
    kResetResp = 0x08,
    kMemoryDebug = 0x09,
    kMemoryRead = 0x0A,
    kMemoryDebug64 = 0x10,
    kMemoryRead64 = 0x11,
};

enum Mode : uint32_t {
    kModeImagePending = 0,
    kModeImageComplete = 1,
    kModeMemoryDebug = 2,
    kModeCommand = 3
};

constexpr size_t kHeaderBytes = 8;
constexpr size_t kHelloBytes = 0x30;
constexpr size_t kEntry32Bytes = 52;
constexpr size_t kEntry64Bytes = 64;
constexpr size_t kNameBytes = 20;
// A read asks for at most this much at once.
constexpr uint64_t kPieceBytes = 64 * 1024;
// Larger tables are refused: no module has that many regions.
constexpr uint64_t kMaxTableBytes = 1 << 20;
// A region longer than this, or a table adding up to more, is no module's memory.
constexpr uint64_t kMaxRegionBytes = uint64_t{1} << 36;
constexpr uint64_t kMaxDumpBytes = uint64_t{1} << 38;
// No packet from the module is longer; a longer length means the stream is not Sahara.
constexpr uint32_t kMaxPacketBytes = 4096;

// "memory debug", "image transfer pending"...; a number for modes without a name.
std::string modeName(uint32_t mode);
// The name of a status code of END_IMAGE_TX, or "unknown".
const char* statusName(uint32_t status);

uint32_t readU32(const uint8_t* at);
uint64_t readU64(const uint8_t* at);

// Packets the host sends.
std::string helloResponse();
std::string memoryRead(uint64_t address, uint64_t length, bool wide);
std::string reset();

struct Hello {
    uint32_t version = 0;
    uint32_t compatible = 0;
    uint32_t maxPacket = 0;
    uint32_t mode = 0;
};
// False unless `packet` is a whole HELLO of `size` bytes.
bool parseHello(const uint8_t* packet, size_t size, Hello* hello);

struct Region {
    uint64_t address = 0;
    uint64_t length = 0;
    std::string description;
    std::string name;      // as the table gives it
    std::string fileName;  // what it is stored as
};

// Whether a table announced with `length` bytes can be read; else the reason.
bool tableLengthFits(uint64_t length, bool wide, std::string* reason);
// The regions of a whole table, with the file names they are stored under; false with the
// reason when the table is refused.
bool parseTable(const uint8_t* table, size_t size, bool wide, std::vector<Region>* regions,
                std::string* reason);
// Gives every region a file name that is safe in one directory: the table's name, else
// "region_<n>.bin" where the name is empty, climbs out, holds a separator or a control
// byte, or repeats an earlier one.
void assignFileNames(std::vector<Region>* regions);

// Why a collection ends before its end.
enum class Cause { HungUp, Silent, StorageFull, Stopped };

// One exchange with a module in dump mode, from its HELLO to the answer to RESET.
class Session {
public:
    // What the caller does with a module in dump mode: read its memory, only reset it, or
    // leave it as it is.
    enum class Action { Collect, Reset, Leave };
    enum class Phase { Hello, Announce, Table, Regions, Resetting, Finished };

    struct Event {
        enum class Kind {
            Send,          // write `bytes` to the port
            NotDump,       // the first packet says another mode (`value`); nothing is sent
            InDumpMode,    // a HELLO in memory-debug mode came
            TableRead,     // the regions are known (regions())
            TableRefused,  // `text` says why; a RESET follows
            RegionOpen,    // `region` is about to get its bytes
            RegionData,    // `bytes` of `region`, valid until the next feed()
            RegionClosed,  // `region` has ended, complete or not (state in regions)
            Finished,      // nothing more: `text` empty when the module answered the RESET
                           // or went away after it
        };
        Kind kind = Kind::Send;
        size_t region = 0;
        const uint8_t* data = nullptr;
        size_t size = 0;
        uint64_t value = 0;
        std::string text;
    };

    struct RegionState {
        uint64_t stored = 0;
        bool complete = false;
        std::string state = "not read";
    };

    explicit Session(Action action);

    // Takes bytes from the port; the events are valid until the next call.
    const std::vector<Event>& feed(const uint8_t* data, size_t size);
    // Ends the collection for `cause`. Events: the current region closed, the RESET to send
    // (unless the port hung up), Finished where nothing more is to come.
    const std::vector<Event>& abort(Cause cause);
    // Bytes of `region` that were handed out but could not be stored: the region is cut
    // there, for `cause`.
    void notStored(size_t region, uint64_t bytes, Cause cause);
    // A stop: the collection ends once the piece under way is in, with a RESET.
    const std::vector<Event>& stop();

    Phase phase() const { return current; }
    bool wide() const { return wideTable; }
    const std::vector<Region>& regions() const { return table; }
    const std::vector<RegionState>& states() const { return regionStates; }
    uint64_t totalBytes() const { return dumpBytes; }
    uint64_t storedBytes() const { return storedSum; }
    bool allComplete() const;
    // The text of dump_index.txt; `heading` goes into its first line.
    std::string indexText(const std::string& heading) const;
    // "complete", or why not.
    const std::string& result() const { return outcome; }

private:
    void handlePacket(const uint8_t* packet, size_t size);
    void onHello(const uint8_t* packet, size_t size);
    void onAnnounce(const uint8_t* packet, size_t size);
    void onTable();
    // Starts the table or a region: nothing of it asked for yet.
    void startTarget();
    // Asks for the next pieces of the table or region, up to the reads kept in flight.
    void askMore();
    // The oldest read in flight is the one whose answer comes next.
    void startPiece();
    void pieceDone();
    void nextRegion();
    void openRegionsFrom(size_t first);
    void closeRegion(bool complete, const std::string& state);
    void sendReset(const std::string& why);
    void finish(const std::string& text);
    void protocolError(const std::string& what);
    void emit(Event::Kind kind, size_t region = 0, std::string text = std::string(),
              uint64_t value = 0);
    void emitData(const uint8_t* data, size_t size);
    bool readingRaw() const;

    const Action action;
    Phase current = Phase::Hello;
    std::vector<Event> events;
    // Bytes of a packet not yet whole, or the first bytes of a read's answer while it is
    // not yet known whether they are data or a refusal.
    std::vector<uint8_t> partial;
    // The held bytes handed out as data in this feed (each buffer stays where it is while
    // the list grows).
    std::vector<std::vector<uint8_t>> handedOut;
    bool wideTable = false;
    uint64_t tableAddress = 0;
    std::vector<uint8_t> tableBytes;
    uint64_t tableLength = 0;
    std::vector<Region> table;
    std::vector<RegionState> regionStates;
    uint64_t dumpBytes = 0;
    uint64_t storedSum = 0;
    size_t regionIndex = 0;
    uint64_t offset = 0;            // of the target (table or region) already in
    uint64_t requested = 0;         // of the target asked for
    std::deque<uint64_t> inFlight;  // lengths of the reads asked for and not yet answered
    bool regionRefused = false;     // answers still in flight for it are passed over
    uint64_t pieceLeft = 0;         // bytes of the piece under way still to come
    bool pieceRaw = false;          // the answer to the piece under way is known to be data
    bool stopAtPiece = false;
    std::string outcome = "not finished";
};

}  // namespace sahara

#endif
