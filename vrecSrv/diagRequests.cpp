#include "diagRequests.h"

#include <algorithm>
#include <cstdint>
#include <initializer_list>

#include "codec.h"
#include "diagCommands.h"

namespace diagreq {

namespace {

// DIAG command codes.
constexpr uint8_t kVersion = 0x00;
constexpr uint8_t kStatus = 0x0C;
constexpr uint8_t kDiagVersion = 0x1C;
constexpr uint8_t kTimeStamp = 0x1D;
constexpr uint8_t kSubsystem = 0x4B;
using diagcmd::kEventReport;
constexpr uint8_t kStatusSnapshot = 0x63;
using diagcmd::kLogConfig;
constexpr uint8_t kExtBuildId = 0x7C;
using diagcmd::kExtMsgConfig;
constexpr uint8_t kEventMaskGet = 0x81;
constexpr uint8_t kEventMaskSet = 0x82;

// Embedded file system subsystems and their commands.
constexpr uint8_t kEfs = 0x13;
constexpr uint8_t kEfsAlternate = 0x3E;
enum EfsCommand : uint16_t {
    EFS_HELLO = 0,
    EFS_QUERY = 1,
    EFS_OPEN = 2,
    EFS_CLOSE = 3,
    EFS_READ = 4,
    EFS_OPENDIR = 11,
    EFS_READDIR = 12,
    EFS_CLOSEDIR = 13,
    EFS_STAT = 15,
    EFS_FSTAT = 17,
    EFS_GET = 39,
};
constexpr uint32_t kEfsReadBlock = 512;
constexpr uint32_t kDirHandle = 1;
constexpr uint32_t kFileHandle = 0;

const char* const kRegConf = "nv/reg_files/conf";
const char* const kItemConf = "nv/item_files/conf";
const char* const kMsgHash = "/QSR/msg_hash.qzip";

// Events the module may report; the mask enables every one of them.
constexpr uint16_t kEventCount = 2466;

// Log masks: equipment and its last item number; every item is enabled.
struct LogEquipment {
    uint32_t id;
    uint32_t lastItem;
};
constexpr LogEquipment kLogEquipments[] = {{1, 2042}, {4, 2328}, {5, 1064}, {7, 2910},
                                           {10, 914}, {11, 521}, {13, 519}};

// Message masks, one per message ID, by subsystem ID range. Bits: 0x01 low, 0x02 medium,
// 0x04 high, 0x08 error, 0x10 fatal, 0x20 legacy; runs of IDs share a mask.
struct MaskRun {
    uint16_t count;
    uint32_t mask;
};
struct MessageRange {
    uint16_t first;
    uint16_t last;
    std::initializer_list<MaskRun> runs;
};
const MessageRange kMessageRanges[] = {
    {0, 94, {{60, 0x1F}, {35, 0x1E}}},
    {500, 506, {{7, 0x1E}}},
    {1000, 1007, {{8, 0x1C}}},
    {2000, 2008, {{9, 0x1F}}},
    {3000, 3014, {{15, 0x1E}}},
    {4000, 4010, {{11, 0x3F}}},
    {4500, 4526, {{27, 0x1F}}},
    {4600, 4613, {{14, 0x1C}}},
    {5000, 5029, {{30, 0x1E}}},
    {5500, 5516, {{17, 0x3E}}},
    {6000, 6080, {{50, 0x1F}, {31, 0x1E}}},
    {6500, 6521, {{22, 0x0F}}},
    {7000, 7003, {{4, 0x1C}}},
    {7100, 7111, {{12, 0x1F}}},
    {7200, 7201, {{2, 0x3F}}},
    {8000, 8000, {{1, 0x1C}}},
    {8500, 8523, {{24, 0x1E}}},
    {9000, 9008, {{9, 0x7F}}},
    {9500, 9509, {{9, 0x1C}, {1, 0x3F}}},
    {10200, 10210, {{11, 0x1F}}},
    {10251, 10255, {{5, 0x3F}}},
    {10300, 10300, {{1, 0x3F}}},
    {10350, 10374, {{24, 0x1F}, {1, 0x3F}}},
};

// Configuration files read one by one under nv/item_files/conf, with their sizes. A size
// of -1 marks a file that is fetched whole with a get request instead.
struct ConfFile {
    const char* name;
    int32_t size;
    uint32_t getLength;  // for a get: data length
    uint16_t getSequence;
};
constexpr int32_t kFetchWhole = -1;
const ConfFile kConfFiles[] = {
    {"cgps_me", 1034, 0, 0},
    {"cgps_pdcomms", 212, 0, 0},
    {"cgps_sm", 533, 0, 0},
    {"cgps_tle_tlm", 710, 0, 0},
    {"cgps_tle_xtm", 1124, 0, 0},
    {"data_config_info", 2869, 0, 0},
    {"diag", 52, 0, 0},
    {"ecall", 38, 0, 0},
    {"geran", 574, 0, 0},
    {"gstk", 407, 0, 0},
    {"hdrcp_config_info", 96, 0, 0},
    {"hdrsrch_config_info", 316, 0, 0},
    {"ims", 2199, 0, 0},
    {"jcdma", 36, 0, 0},
    {"lte_a2", 348, 0, 0},
    {"lte_cfm", 177, 0, 0},
    {"lte_mac", 116, 0, 0},
    {"lte_pdcp", 586, 0, 0},
    {"lte_rlc", 107, 0, 0},
    {"mc", 489, 0, 0},
    {"mcpm", 101, 0, 0},
    {"mcs_tcxomgr", 466, 0, 0},
    {"mmgsdi", 346, 0, 0},
    {"mmode", 585, 0, 0},
    {"nas_mm", 0, 0, 0},
    {"onex_mux", 47, 0, 0},
    {"onex_srch", 112, 0, 0},
    {"pbm", 195, 0, 0},
    {"ps_config_info", 259, 0, 0},
    {"qmi_cat", 182, 0, 0},
    {"qmi_data", 43, 0, 0},
    {"qmi_uim", 316, 0, 0},
    {"reg", 0, 0, 0},
    {"rrc_device_type_nv", 2, 0, 0},
    {"rrc_feature", 43, 0, 0},
    {"rrc_feature_cell_bar", 2, 0, 0},
    {"rrc_feature_do_not_forward_page", 2, 0, 0},
    {"rrc_feature_freq_lock", 2, 0, 0},
    {"rrc_feature_skip_sib11_opt", 2, 0, 0},
    {"rrc_feature_snow3g", 2, 0, 0},
    {"rrc_feature_srb2_act", 2, 0, 0},
    {"tdscdma_l1", 187, 0, 0},
    {"tdscdma_rrc", 1674, 0, 0},
    {"uimdrv", 282, 0, 0},
    {"w_idle_mode", kFetchWhole, 41, 7},
    {"wcdma_csg_efs_1", 3720, 0, 0},
    {"wcdma_csg_efs_2", 3720, 0, 0},
    {"wcdma_csg_efs_3", 3720, 0, 0},
    {"wcdma_csg_efs_4", 3720, 0, 0},
    {"wcdma_csg_efs_5", 3720, 0, 0},
    {"wcdma_csg_efs_db", 54, 0, 0},
    {"wcdma_rrc_external", 512, 0, 0},
    {"wcdma_rrc_fast_return_to_lte_after_csfb", kFetchWhole, 64, 8},
    {"wcdma_rrc_fast_return_to_lte_after_csfb_timer", kFetchWhole, 70, 9},
    {"wl1_cme", 131, 0, 0},
    {"wl1_dc_w2l_mode", kFetchWhole, 41, 10},
    {"wl1_dl_nv", 37, 0, 0},
    {"wl1_dsr_mode", kFetchWhole, 41, 11},
    {"wl1_fet", 41, 0, 0},
    {"wl1_rxd", 957, 0, 0},
    {"wl1_ul_cm", kFetchWhole, 40, 12},
    {"wms", 374, 0, 0},
};

// Directories listed one by one under nv/item_files/conf.
const char* const kListedDirs[] = {"rrc_device_type_nv.conf",
                                   "rrc_feature_cell_bar.conf",
                                   "rrc_feature_do_not_forward_page.conf",
                                   "rrc_feature_freq_lock.conf",
                                   "rrc_feature_skip_sib11_opt.conf",
                                   "rrc_feature_snow3g.conf",
                                   "rrc_feature_srb2_act.conf"};

// Little-endian request builder.
class Request {
public:
    explicit Request(uint8_t command) { bytes += static_cast<char>(command); }
    Request& u8(uint32_t v) {
        bytes += static_cast<char>(v & 0xFF);
        return *this;
    }
    Request& u16(uint32_t v) { return u8(v).u8(v >> 8); }
    Request& u32(uint32_t v) { return u16(v).u16(v >> 16); }
    Request& text(const std::string& s) {
        bytes += s;
        bytes += '\0';
        return *this;
    }
    operator std::string() const { return bytes; }

private:
    std::string bytes;
};

Request subsystem(uint8_t id, uint16_t command) {
    Request request(kSubsystem);
    request.u8(id).u16(command);
    return request;
}
Request efs(uint16_t command) {
    return subsystem(kEfs, command);
}

std::string openDir(const std::string& path, uint8_t system = kEfs) {
    return subsystem(system, EFS_OPENDIR).text(path);
}
std::string readDir(uint32_t sequence) {
    return efs(EFS_READDIR).u32(kDirHandle).u32(sequence);
}
std::string closeDir() {
    return efs(EFS_CLOSEDIR).u32(kDirHandle);
}
std::string stat(const std::string& path) {
    return efs(EFS_STAT).text(path);
}
std::string open(const std::string& path) {
    return efs(EFS_OPEN).u32(0).u32(0x124).text(path);
}

std::string logMask(const LogEquipment& equipment) {
    Request request(kLogConfig);
    request.u8(0).u8(0).u8(0).u32(3).u32(equipment.id).u32(equipment.lastItem);
    const uint32_t bytes = (equipment.lastItem + 7) / 8;
    for (uint32_t i = 0; i < bytes; ++i) {
        const uint32_t bitsHere = std::min<uint32_t>(8, equipment.lastItem - i * 8);
        request.u8((1u << bitsHere) - 1);
    }
    return request;
}

std::string messageMask(const MessageRange& range) {
    Request request(kExtMsgConfig);
    request.u8(4).u16(range.first).u16(range.last).u16(0);
    for (const MaskRun& run : range.runs) {
        for (uint16_t i = 0; i < run.count; ++i) {
            request.u32(run.mask);
        }
    }
    return request;
}

std::string eventMaskSet() {
    Request request(kEventMaskSet);
    request.u8(0).u8(0).u8(0).u16(kEventCount);
    for (uint32_t bit = 0; bit < kEventCount; bit += 8) {
        const uint32_t bitsHere = std::min<uint32_t>(8, kEventCount - bit);
        request.u8((1u << bitsHere) - 1);
    }
    return request;
}

void appendConfFile(std::vector<std::string>& rows, const ConfFile& file) {
    const std::string path = std::string(kItemConf) + "/" + file.name + ".conf";
    if (file.size == kFetchWhole) {
        rows.push_back(stat(path));
        rows.push_back(stat(path));
        rows.push_back(efs(EFS_GET)
                           .u32(file.getLength)
                           .u32(static_cast<uint32_t>(path.size() + 1))
                           .u16(file.getSequence)
                           .text(path));
        return;
    }
    rows.push_back(stat(path));
    rows.push_back(open(path));
    rows.push_back(efs(EFS_FSTAT).u32(kFileHandle));
    const uint32_t size = static_cast<uint32_t>(file.size);
    uint32_t offset = 0;
    do {
        const uint32_t count = std::min(kEfsReadBlock, size - offset);
        rows.push_back(efs(EFS_READ).u32(kFileHandle).u32(count).u32(offset));
        offset += count;
    } while (offset < size);
    rows.push_back(efs(EFS_CLOSE).u32(kFileHandle));
}

}  // namespace

std::vector<std::string> qualcommStartRequests() {
    std::vector<std::string> rows;
    for (uint8_t code : {kTimeStamp, kVersion, kExtBuildId, kDiagVersion, kStatusSnapshot}) {
        rows.push_back(Request(code));
    }
    const std::pair<uint8_t, uint16_t> probes[] = {{0x0F, 0}, {0x09, 0}, {0x08, 0},
                                                   {0x08, 1}, {0x04, 0}, {0x04, 15}};
    for (const auto& probe : probes) {
        rows.push_back(subsystem(probe.first, probe.second));
    }
    rows.push_back(Request(kLogConfig).u8(0).u8(0).u8(0).u32(1));  // retrieve the ranges
    rows.push_back(Request(kExtMsgConfig).u8(1));                  // retrieve the ID ranges
    rows.push_back(Request(kEventMaskGet).u8(0).u8(0).u8(0));
    rows.push_back(efs(EFS_QUERY));
    Request hello = efs(EFS_HELLO);
    for (int side = 0; side < 3; ++side) {  // target, host, iteration
        hello.u32(1).u32(kEfsReadBlock);
    }
    rows.push_back(hello.u32(1).u32(1).u32(1).u32(0));
    for (uint8_t n = 1; n <= 6; ++n) {
        rows.push_back(Request(kSubsystem).u8(0x4D).u8(0x04).u8(n).u32(0));
    }
    for (const MessageRange& range : kMessageRanges) {
        rows.push_back(Request(kExtMsgConfig).u8(2).u16(range.first).u16(range.last));
    }
    rows.push_back(openDir(kRegConf));
    rows.push_back(Request(kEventReport).u8(1));
    rows.push_back(stat(kMsgHash));
    rows.push_back(openDir(kItemConf));
    rows.push_back(eventMaskSet());
    rows.push_back(open(kMsgHash));

    // Directory listing, with the masks interleaved: one before each of sequence 2 to 31.
    std::vector<std::string> masks;
    for (const LogEquipment& equipment : kLogEquipments) {
        masks.push_back(logMask(equipment));
    }
    for (const MessageRange& range : kMessageRanges) {
        masks.push_back(messageMask(range));
    }
    for (uint32_t sequence = 1; sequence <= 63; ++sequence) {
        if (sequence >= 2 && sequence - 2 < masks.size()) {
            rows.push_back(masks[sequence - 2]);
        }
        rows.push_back(readDir(sequence));
    }
    rows.push_back(closeDir());

    for (const char* dir : kListedDirs) {
        rows.push_back(openDir(std::string(kItemConf) + "/" + dir));
        rows.push_back(readDir(1));
        rows.push_back(closeDir());
    }
    for (const ConfFile& file : kConfFiles) {
        appendConfFile(rows, file);
    }
    rows.push_back(openDir(kRegConf, kEfsAlternate));
    rows.push_back(openDir(kItemConf, kEfsAlternate));
    rows.push_back(stat(kMsgHash));
    rows.push_back(open(kMsgHash));
    rows.push_back(stat(kMsgHash));
    rows.push_back(open(kMsgHash));
    rows.push_back(Request(kStatus));
    return rows;
}

std::vector<std::string> qualcommStopRequests() {
    return {
        Request(kEventReport).u8(0),                      // event reports off
        Request(kLogConfig).u8(0).u8(0).u8(0).u32(0),     // logging off
        Request(kExtMsgConfig).u8(5).u8(0).u8(0).u32(0),  // all run-time masks to 0
    };
}

std::string frame(const std::string& request) {
    unsigned short fcs = 0;
    Crc16Fcs(reinterpret_cast<const unsigned char*>(request.data()),
             static_cast<int>(request.size()), &fcs);
    std::string wire = request;
    wire += static_cast<char>(fcs & 0xFF);
    wire += static_cast<char>(fcs >> 8);
    HdlcEscape(wire);
    wire += '\x7E';
    return wire;
}

}  // namespace diagreq
