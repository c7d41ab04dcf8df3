#ifndef VREC_SRV_ATPROTOCOL_H
#define VREC_SRV_ATPROTOCOL_H

#include <cstdint>
#include <map>
#include <string>

// Pure helpers of the AT exchange: no port, no clock.
namespace atproto {

// The end of an answer: "\r\nOK" or "\r\nERROR" anywhere in what came so far.
bool answerEnded(const std::string& text);

// The prefix the module puts in front of its answer: "AT^MDON=3\r" -> "^MDON:".
std::string shortCmd(const std::string& cmd);

// The useful text of an answer to `cmd`: what follows the command's prefix up to the line
// end; "OK" for a bare OK; empty when the answer did not end in OK.
std::string parseResponse(const std::string& raw, const std::string& cmd);

// Commands known to the Diag tunnel, by id.
const std::map<uint32_t, std::string>& tunnelCommandIds();

// Wraps an AT command in the Diag tunnel frame: 4B C9 E8 FF, id, length (16 bits, little
// endian), the text, the frame check sequence, all escaped, then the closing flag.
// False (and `cmd` untouched) for an empty command.
bool packTunnelFrame(std::string& cmd, const std::map<uint32_t, std::string>& ids);

}  // namespace atproto

#endif
