#ifndef VREC_TOOLS_MASKSTATE_H
#define VREC_TOOLS_MASKSTATE_H

#include <array>
#include <bitset>
#include <cstdint>
#include <string>
#include <vector>

namespace vtools {

// The log, message and event masks that the host sets, as a module keeps them, and what
// they let into the stream.
//
// A module that was never told to disable all logs streams everything once any mask is
// set, as it always did for the built-in table and the command files. Once the host has
// disabled all logs (log configuration operation 0), the module is selective: it streams a
// log packet only if its code is enabled, a message only at an enabled level, an event only
// with event reports on.
class MaskState {
public:
    using Ranges = std::array<uint32_t, 16>;  // number of log items per equipment
    // Covers every code of vrec's layer table.
    static const Ranges kDefaultRanges;

    // `answerRanges` false: the request for the ranges goes unanswered.
    explicit MaskState(const Ranges& ranges = kDefaultRanges, bool answerRanges = true)
        : ranges(ranges), answersRanges(answerRanges) {}

    // Takes a request the host sent. For a mask request, `answer` becomes the module's
    // answer (empty: none) and `note` says what changed; false for any other request.
    bool take(const std::string& request, std::string* answer, std::string* note);
    // Forgets everything, as a module that dropped off the bus does.
    void reset();

    bool selective() const { return isSelective; }
    // Whether anything at all is enabled: a log code, a message level or events.
    bool anyEnabled() const;
    // Whether a packet the module has may go into the stream.
    bool passes(const std::string& packet) const;
    bool logEnabled(unsigned code) const;
    // The next code of `codes` that may go into the stream, round robin; false if none.
    bool nextCode(const std::vector<unsigned>& codes, unsigned* code);

private:
    std::string setLogMask(const std::string& request, uint32_t* status);

    Ranges ranges;
    bool answersRanges = true;
    bool isSelective = false;
    std::array<std::bitset<4096>, 16> logs{};
    uint32_t messageLevels = 0;
    bool events = false;
    size_t nextIndex = 0;
};

// "0xB0C0,0xB0E0-0xB0E3": codes and ranges in hexadecimal.
bool parseLogCodes(const std::string& text, std::vector<unsigned>* codes);
// 16 numbers, decimal or 0x hexadecimal, separated by commas.
bool parseLogRanges(const std::string& text, MaskState::Ranges* ranges);

}  // namespace vtools

#endif
