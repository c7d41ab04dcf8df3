#include "atProtocol.h"

#include "codec.h"

namespace atproto {

namespace {
const char kOk[] = "\r\nOK";
const char kError[] = "\r\nERROR";
constexpr size_t kTunnelHeader = 7;
}  // namespace

bool answerEnded(const std::string& text) {
    return text.find(kOk) != std::string::npos || text.find(kError) != std::string::npos;
}

std::string shortCmd(const std::string& cmd) {
    std::string text = cmd.size() > 2 ? cmd.substr(2) : std::string();
    for (const char* stop : {"=", "?", "\r"}) {
        const size_t at = text.find(stop);
        if (at != std::string::npos) {
            text.erase(at);
            break;
        }
    }
    return text + ":";
}

std::string parseResponse(const std::string& raw, const std::string& cmd) {
    std::string text = raw;
    const size_t ok = text.find(kOk);
    if (ok == std::string::npos) {
        return std::string();
    }
    text.erase(ok);
    // Whatever stands before the module's echo of the command is not part of the answer.
    const size_t echo = cmd.empty() ? std::string::npos : text.find(cmd);
    if (echo != std::string::npos) {
        text.erase(0, echo + cmd.size());
    }
    const std::string prefix = shortCmd(cmd);
    const size_t at = text.find(prefix);
    if (at == std::string::npos) {
        return "OK";
    }
    text.erase(0, at + prefix.size());
    return text.substr(0, text.find_first_of("\r\n"));
}

const std::map<uint32_t, std::string>& tunnelCommandIds() {
    static const std::map<uint32_t, std::string> ids = {
        {0, "^MDON"}, {1, "^MDSL"}, {2, "^MDSTORAGE"}, {3, "^MDSF"},
        {4, "^RSFR"}, {5, "^RSFW"}, {6, "^CMDLEN"}};
    return ids;
}

bool packTunnelFrame(std::string& cmd, const std::map<uint32_t, std::string>& ids) {
    if (cmd.empty()) {
        return false;
    }
    uint32_t id = 0;  // commands outside the list travel under the first id
    for (const auto& entry : ids) {
        if (cmd.find(entry.second) != std::string::npos) {
            id = entry.first;
            break;
        }
    }
    const size_t length = cmd.size();
    std::string frame;
    frame.reserve(kTunnelHeader + length + 8);
    frame += {'\x4B', '\xC9', '\xE8', '\xFF'};
    frame += static_cast<char>(id & 0xFF);
    frame += static_cast<char>(length & 0xFF);
    frame += static_cast<char>((length >> 8) & 0xFF);
    frame += cmd;
    unsigned short fcs = 0;
    Crc16Fcs(reinterpret_cast<const unsigned char*>(frame.data()), static_cast<int>(frame.size()),
             &fcs);
    frame += static_cast<char>(fcs & 0xFF);
    frame += static_cast<char>(fcs >> 8);
    HdlcEscape(frame);
    frame += '\x7E';
    cmd.swap(frame);
    return true;
}

}  // namespace atproto
