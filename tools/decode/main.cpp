// vrec-decode: the signalling messages of a Diag capture for Wireshark, from files or live.

#include <signal.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "captureCheck.h"
#include "converter.h"
#include "follow.h"
#include "outputs.h"

namespace {

const char* const kUsage =
    "Usage: vrec-decode [--strict] (-o OUT.pcapng | --text | --udp HOST[:PORT]) CAPTURE...\n"
    "       vrec-decode [--strict] --follow DIR [--from-start] (--udp HOST[:PORT] | --text)\n"
    "Turns the RRC and NAS messages of a Diag capture (LTE, NR, 5GS, WCDMA, GSM, GPRS) into\n"
    "records that Wireshark reads: GSMTAP in UDP to port 4729, NR and 5GS as exported PDUs.\n"
    "The files of a capture are read as one stream, its items in the order they were written.\n"
    "  -o FILE           write a pcapng file\n"
    "  --text            one line per record on standard output, with the extended messages\n"
    "  --udp HOST[:PORT] send each GSMTAP record as a datagram (port 4729 unless given)\n"
    "  --follow DIR      follow the capture running in DIR (real_log.bin and its items)\n"
    "                    from its current end, until interrupted\n"
    "  --from-start      with --follow: read what DIR already holds first\n"
    "  --strict          exit 1 when anything was skipped\n"
    "  --version         the version\n"
    "A summary of what was written and skipped goes to standard error.\n"
    "Exit status: 0 done, 1 something skipped with --strict, 2 bad usage or a failure.\n";

volatile sig_atomic_t g_stop = 0;

void onStop(int) {
    g_stop = 1;
}

struct Options {
    std::string pcapng;
    bool text = false;
    std::string udp;
    std::string follow;
    bool fromStart = false;
    bool strict = false;
    bool version = false;
    std::vector<std::string> files;
};

int usageError(const std::string& text) {
    fprintf(stderr, "vrec-decode: %s\n%s", text.c_str(), kUsage);
    return 2;
}

// 0 when the options hold together, else the exit status (after the message).
int parse(int argc, char** argv, Options* options, bool* help) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](std::string* to) {
            if (i + 1 >= argc) {
                return false;
            }
            *to = argv[++i];
            return true;
        };
        if (arg == "-h" || arg == "--help") {
            *help = true;
            return 0;
        } else if (arg == "--version") {
            options->version = true;
            return 0;
        } else if (arg == "-o" || arg == "--output") {
            if (!value(&options->pcapng)) {
                return usageError(arg + " needs the name of the pcapng file to write");
            }
        } else if (arg == "--udp") {
            if (!value(&options->udp)) {
                return usageError("--udp needs HOST or HOST:PORT, for example 192.168.1.10:4729");
            }
        } else if (arg == "--follow") {
            if (!value(&options->follow)) {
                return usageError("--follow needs the directory of a running capture");
            }
        } else if (arg == "--text") {
            options->text = true;
        } else if (arg == "--from-start") {
            options->fromStart = true;
        } else if (arg == "--strict") {
            options->strict = true;
        } else if (arg.size() > 1 && arg[0] == '-') {
            return usageError("unknown option " + arg);
        } else {
            options->files.push_back(arg);
        }
    }
    const int outputs = (options->pcapng.empty() ? 0 : 1) + (options->text ? 1 : 0) +
                        (options->udp.empty() ? 0 : 1);
    if (outputs != 1) {
        return usageError(outputs == 0
                              ? "no output: give -o OUT.pcapng, --text or --udp HOST[:PORT]"
                              : "one output at a time: -o, --text or --udp");
    }
    if (!options->follow.empty()) {
        if (!options->pcapng.empty()) {
            return usageError(
                "--follow sends records with --udp or prints them with --text, "
                "not to a file");
        }
        if (!options->files.empty()) {
            return usageError("--follow reads its directory; no CAPTURE files go with it (got " +
                              options->files.front() + ")");
        }
        struct stat info {};
        if (stat(options->follow.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
            return usageError("--follow " + options->follow +
                              ": not a directory; give the "
                              "directory the capture writes real_log.bin in");
        }
    } else if (options->fromStart) {
        return usageError("--from-start goes with --follow DIR");
    } else if (options->files.empty()) {
        return usageError("no CAPTURE file given");
    }
    return 0;
}

bool convertFiles(const std::vector<std::string>& files, vdecode::Converter& converter) {
    std::vector<char> buffer(256 * 1024);
    for (const std::string& path : vtools::captureOrder(files)) {
        FILE* file = fopen(path.c_str(), "rbe");
        if (file == nullptr) {
            fprintf(stderr, "vrec-decode: cannot open %s: %s\n", path.c_str(), strerror(errno));
            return false;
        }
        size_t n = 0;
        while ((n = fread(buffer.data(), 1, buffer.size(), file)) > 0 &&
               converter.feed(buffer.data(), n)) {
        }
        const bool readFailed = ferror(file) != 0;
        fclose(file);
        if (readFailed) {
            fprintf(stderr, "vrec-decode: reading %s failed\n", path.c_str());
            return false;
        }
        if (converter.failed()) {
            return false;
        }
    }
    converter.finish();
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    bool help = false;
    if (const int status = parse(argc, argv, &options, &help); status != 0) {
        return status;
    }
    if (help) {
        fputs(kUsage, stdout);
        return 0;
    }
    if (options.version) {
        printf("vrec-decode %s\n", VREC_VERSION);
        return 0;
    }

    std::unique_ptr<vdecode::Output> output;
    bool opened = true;
    if (!options.pcapng.empty()) {
        auto pcapng = std::make_unique<vdecode::PcapngOutput>();
        opened = pcapng->open(options.pcapng);
        output = std::move(pcapng);
    } else if (!options.udp.empty()) {
        auto udp = std::make_unique<vdecode::UdpOutput>();
        opened = udp->open(options.udp);
        output = std::move(udp);
    } else {
        output = std::make_unique<vdecode::TextOutput>(stdout);
    }
    if (!opened) {
        fprintf(stderr, "vrec-decode: %s\n", output->error().c_str());
        return 2;
    }

    vdecode::Converter converter(*output);
    bool ok = true;
    if (!options.follow.empty()) {
        struct sigaction action {};
        action.sa_handler = onStop;
        sigaction(SIGINT, &action, nullptr);
        sigaction(SIGTERM, &action, nullptr);
        signal(SIGPIPE, SIG_IGN);
        vdecode::Follower follower(options.follow, options.fromStart, converter);
        std::string error;
        ok = follower.run(g_stop, &error);
        if (!ok) {
            fprintf(stderr, "vrec-decode: %s\n", error.c_str());
        }
    } else {
        ok = convertFiles(options.files, converter);
    }
    const bool closed = output->close();
    if (converter.failed() || !closed) {
        fprintf(stderr, "vrec-decode: %s\n", output->error().c_str());
        ok = false;
    }
    converter.printSummary(stderr);
    if (!ok) {
        return 2;
    }
    return options.strict && converter.counts().skips() > 0 ? 1 : 0;
}
