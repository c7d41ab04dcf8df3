// What the host's masks let into the stream, and the requests that set them.

#include "seqStream.h"
#include "simulator.h"

namespace vtools {

namespace {

constexpr size_t kLogCodeAt = 6;  // of a log packet: command, more, length, length, code

}  // namespace

void Simulator::takeMaskRequest(const std::string& request, std::string* answer) {
    std::string note;
    masks.take(request, answer, &note);
    if (!note.empty()) {
        event("masks " + note);
    }
    // A selective module streams as soon as anything is enabled, messages and events too.
    if (masks.selective() && masks.anyEnabled()) {
        startStream();
    }
}

bool Simulator::nextStreamFrame(std::string* bytes, size_t* size) {
    if (!opts.replayPath.empty()) {
        if (replayNext >= replayFrames.size()) {
            return false;
        }
        const std::string& wire = replayFrames[replayNext++];
        *size = wire.size();
        bytes->clear();
        if (masks.selective()) {
            // A damaged or cut frame is no packet the module has; only whole ones pass.
            const DeframeStep step = deframe(wire.data(), wire.size(), true);
            if (step.kind != DeframeStep::kFrame || !step.fcsOk || !masks.passes(step.packet)) {
                return true;
            }
        }
        *bytes = wire;
        return true;
    }
    std::string packet = simLogPacket(nextSeq);
    if (!opts.logCodes.empty()) {
        unsigned code = 0;
        if (!masks.nextCode(opts.logCodes, &code)) {
            return false;
        }
        packet[kLogCodeAt] = static_cast<char>(code & 0xFF);
        packet[kLogCodeAt + 1] = static_cast<char>(code >> 8);
    } else if (!masks.passes(packet)) {
        return false;
    }
    ++nextSeq;
    *bytes = frame(packet);
    *size = bytes->size();
    return true;
}

}  // namespace vtools
