// vrec-inspect: a one-command check that a capture is whole.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "captureCheck.h"
#include "dumpCheck.h"

namespace {

const char* const kUsage =
    "Usage: vrec-inspect [--strict] [--allow-cut-end] [--each] FILE...\n"
    "       vrec-inspect --dump DIR [--sim-memory]\n"
    "Reads Diag captures (real_log.bin and its items) and reports bytes, HDLC frames,\n"
    "frames with a bad check sequence, bytes outside frames, DIAG packets by kind and log\n"
    "code (packets in a multi-SIM wrapper by their own), and the gaps in the sequence\n"
    "numbers of a vrec-modemsim stream.\n"
    "The files are read as one stream, the items of a capture in the order they were\n"
    "written, so a frame cut at an item boundary counts once.\n"
    "  --each           check every file on its own\n"
    "  --strict         count a cut frame where the stream begins as corruption\n"
    "  --allow-cut-end  accept a stream that ends inside a frame\n"
    "  --dump DIR       check the memory dump in DIR against its dump_index.txt: files\n"
    "                   there, sizes as stored, complete regions whole, no stray file\n"
    "  --sim-memory     with --dump: every stored byte against vrec-modemsim's memory\n"
    "  --version        the version\n"
    "Verdicts:\n"
    "  whole            every frame closed with a good check sequence, nothing lost\n"
    "  CUT AT THE END   the stream ends inside a frame: what a capture stopped or killed\n"
    "                   mid-frame leaves, and every item but the last checked on its own\n"
    "  CORRUPT          bad check sequences, bytes outside frames, lost or damaged packets\n"
    "  complete         (--dump) every region complete and every check passed\n"
    "  INCOMPLETE       (--dump) regions the index does not call complete\n"
    "Exit status: 0 whole, 1 cut at the end, corruption or a gap, 2 bad usage or an\n"
    "unreadable file (with --dump: 0 complete, 1 incomplete or corrupt, 2 no index).\n";

struct Rules {
    bool strict = false;
    bool allowCutEnd = false;
};

bool feedFile(const std::string& path, vtools::CaptureCheck& check, uint64_t* size) {
    FILE* file = fopen(path.c_str(), "rb");
    if (file == nullptr) {
        fprintf(stderr, "vrec-inspect: open(%s) failed: %s\n", path.c_str(), strerror(errno));
        return false;
    }
    char buffer[65536];
    size_t n = 0;
    *size = 0;
    while ((n = fread(buffer, 1, sizeof(buffer), file)) > 0) {
        check.feed(buffer, n);
        *size += n;
    }
    const bool ok = ferror(file) == 0;
    if (!ok) {
        fprintf(stderr, "vrec-inspect: read(%s) failed\n", path.c_str());
    }
    fclose(file);
    return ok;
}

void verdict(const vtools::CaptureCheck& check, const Rules& rules) {
    const std::vector<std::string> problems = check.problems(rules.strict);
    const unsigned long long cut = check.incompleteBytes;
    if (check.cutAtEnd() && !rules.allowCutEnd) {
        printf(
            "verdict: CUT AT THE END: the last %llu bytes are a frame that never closed, as a "
            "capture stopped or killed mid-frame leaves it (--allow-cut-end accepts it)\n",
            cut);
    }
    for (const std::string& problem : problems) {
        printf("verdict: CORRUPT: %s\n", problem.c_str());
    }
    if (check.clean(rules.strict, rules.allowCutEnd)) {
        if (check.cutAtEnd()) {
            printf("verdict: whole up to a cut at the end of %llu bytes\n", cut);
        } else {
            printf("verdict: whole\n");
        }
    }
}

void report(const vtools::CaptureCheck& check, const Rules& rules) {
    printf("bytes: %llu\n", static_cast<unsigned long long>(check.bytes));
    printf("frames: %llu good, %llu bad check sequence\n",
           static_cast<unsigned long long>(check.goodFrames),
           static_cast<unsigned long long>(check.badFrames));
    printf("bytes outside frames: %llu\n", static_cast<unsigned long long>(check.junkBytes));
    if (check.emptyFrames > 0) {
        printf("empty frames (back-to-back flags): %llu\n",
               static_cast<unsigned long long>(check.emptyFrames));
    }
    if (check.headBytes > 0) {
        printf("cut frame at the start: %llu bytes\n",
               static_cast<unsigned long long>(check.headBytes));
    }
    if (check.incompleteBytes > 0) {
        printf("cut frame at the end: %llu bytes\n",
               static_cast<unsigned long long>(check.incompleteBytes));
    }
    auto kindCount = [&](vtools::PacketKind kind) {
        const auto it = check.kinds.find(kind);
        return static_cast<unsigned long long>(it == check.kinds.end() ? 0 : it->second);
    };
    printf("packets: log %llu, event %llu, message %llu, response %llu\n",
           kindCount(vtools::PacketKind::kLog), kindCount(vtools::PacketKind::kEvent),
           kindCount(vtools::PacketKind::kMessage), kindCount(vtools::PacketKind::kResponse));
    for (const auto& entry : check.logCodes) {
        printf("  log 0x%04X: %llu\n", entry.first, static_cast<unsigned long long>(entry.second));
    }
    const vtools::SeqStats& seq = check.sequence();
    if (seq.packets > 0) {
        printf(
            "sequence: %llu packets, first %u, last %u, missing %llu in %llu gaps, "
            "out of order %llu, damaged %llu\n",
            static_cast<unsigned long long>(seq.packets), seq.first, seq.last,
            static_cast<unsigned long long>(seq.missing), static_cast<unsigned long long>(seq.gaps),
            static_cast<unsigned long long>(seq.outOfOrder),
            static_cast<unsigned long long>(seq.corrupt));
    }
    verdict(check, rules);
}
}  // namespace

int main(int argc, char** argv) {
    Rules rules;
    bool each = false;
    std::vector<std::string> files;
    std::string dumpDir;
    bool simMemory = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--dump" && i + 1 < argc) {
            dumpDir = argv[++i];
        } else if (arg == "--sim-memory") {
            simMemory = true;
        } else if (arg == "--strict") {
            rules.strict = true;
        } else if (arg == "--allow-cut-end") {
            rules.allowCutEnd = true;
        } else if (arg == "--each") {
            each = true;
        } else if (arg == "-h" || arg == "--help") {
            fputs(kUsage, stdout);
            return 0;
        } else if (arg == "--version") {
            printf("vrec-inspect %s\n", VREC_VERSION);
            return 0;
        } else if (arg.size() > 1 && arg[0] == '-') {
            fprintf(stderr, "vrec-inspect: unknown option %s\n%s", arg.c_str(), kUsage);
            return 2;
        } else {
            files.push_back(arg);
        }
    }
    if (!dumpDir.empty() && files.empty()) {
        return checkDumpDirectory(dumpDir, simMemory);
    }
    if (files.empty() || !dumpDir.empty() || simMemory) {
        fputs(kUsage, stderr);
        return 2;
    }

    bool clean = true;
    bool readable = true;
    if (each) {
        for (const std::string& path : files) {
            vtools::CaptureCheck check;
            uint64_t size = 0;
            printf("== %s\n", path.c_str());
            if (!feedFile(path, check, &size)) {
                readable = false;
                continue;
            }
            check.finish();
            report(check, rules);
            clean = clean && check.clean(rules.strict, rules.allowCutEnd);
        }
    } else {
        vtools::CaptureCheck check;
        for (const std::string& path : vtools::captureOrder(files)) {
            uint64_t size = 0;
            if (!feedFile(path, check, &size)) {
                readable = false;
                break;
            }
            printf("file %s: %llu bytes\n", path.c_str(), static_cast<unsigned long long>(size));
        }
        if (readable) {
            check.finish();
            report(check, rules);
            clean = check.clean(rules.strict, rules.allowCutEnd);
        }
    }
    if (!readable) {
        return 2;
    }
    return clean ? 0 : 1;
}
