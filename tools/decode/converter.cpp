#include "converter.h"

namespace vdecode {

Converter::Converter(Output& output)
    : output(output),
      decoder(tally),
      reader([this](const vtools::DeframeStep& step, bool first) { take(step, first); }) {}

bool Converter::feed(const char* data, size_t size) {
    if (!outputFailed) {
        reader.feed(data, size);
    }
    return !outputFailed;
}

void Converter::take(const vtools::DeframeStep& step, bool first) {
    using vtools::DeframeStep;
    switch (step.kind) {
        case DeframeStep::kFrame:
            if (!step.fcsOk) {
                // A capture that began in the middle of a frame starts with its tail.
                tally.skip(first ? "cut frame at the start" : "damaged frame (bad check sequence)");
                return;
            }
            break;
        case DeframeStep::kJunk:
            tally.skip(first ? "cut frame at the start" : "bytes outside frames (runs)");
            return;
        case DeframeStep::kIncomplete:
            tally.skip("cut frame at the end");
            return;
        case DeframeStep::kNeedMore:
            return;
    }
    ++tally.goodFrames;
    const std::string& packet = step.packet;
    if (output.wantsMessages() && !packet.empty() &&
        static_cast<unsigned char>(packet[0]) == 0x79) {
        std::string text;
        uint64_t micros = 0;
        if (extendedMessageText(packet, &text, &micros)) {
            outputFailed = output.writeMessage(micros, text) == Output::Result::kFailed;
        } else {
            tally.skip("extended message without its format and file name (0x79)");
        }
        return;
    }
    records.clear();
    decoder.decode(packet, records);
    for (const Record& record : records) {
        deliver(record);
    }
}

void Converter::deliver(const Record& record) {
    switch (output.write(record)) {
        case Output::Result::kWritten:
            ++tally.written[{record.technology, record.channel}];
            return;
        case Output::Result::kNotCarried:
            tally.skip(std::string(record.technology) +
                       " record: no GSMTAP version 2 form, not sent");
            return;
        case Output::Result::kFailed:
            outputFailed = true;
            return;
    }
}

void Converter::printSummary(FILE* to) const {
    const auto count = [](uint64_t n) { return static_cast<unsigned long long>(n); };
    fprintf(to, "vrec-decode: %llu bytes, %llu frames read, %llu records written, %llu skipped\n",
            count(reader.bytes()), count(tally.goodFrames), count(tally.records()),
            count(tally.skips()));
    for (const auto& entry : tally.writtenByName()) {
        fprintf(to, "  written %s: %llu\n", entry.first.c_str(), count(entry.second));
    }
    for (const auto& entry : tally.skipped) {
        fprintf(to, "  skipped %s: %llu\n", entry.first.c_str(), count(entry.second));
    }
    if (tally.otherPackets > 0) {
        fprintf(to, "  other packets (no signalling): %llu\n", count(tally.otherPackets));
    }
}

}  // namespace vdecode
