#ifndef VREC_SRV_DUMPCOLLECTION_H
#define VREC_SRV_DUMPCOLLECTION_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "fileSystem.h"
#include "sahara.h"

// One exchange with a port that may speak Sahara: the module's HELLO, then, as the session's
// action says, its memory into a dump directory and the RESET. The port work of a
// sahara::Session: reads in large pieces, region bytes straight into their files.
class DumpCollection {
public:
    // How long a module in dump mode may stay silent before it is reset and given up.
    static constexpr int kSilenceMs = 5000;
    // A port counts only when its first packet comes this soon after it is opened.
    static constexpr int kHelloWaitMs = 3000;

    using StopCheck = std::function<bool()>;
    // Called once the HELLO says memory debug, before anything is sent.
    using DumpModeSeen = std::function<void()>;

    DumpCollection(int port, std::string portPath, sahara::Session::Action action,
                   StopCheck stopped);
    ~DumpCollection();
    DumpCollection(const DumpCollection&) = delete;
    DumpCollection& operator=(const DumpCollection&) = delete;

    // Runs until the session ends. Region files go into a new dump directory under
    // `logDir`.
    void run(const std::string& logDir, const DumpModeSeen& onDumpMode);

    bool dumpMode() const { return inDumpMode; }
    // The mode a HELLO named when it was not memory debug, or why the port is no dump port.
    const std::string& otherMode() const { return notDumpText; }
    bool resetAnswered() const { return resetDone; }
    const sahara::Session& session() const { return saharaSession; }
    const std::string& directory() const { return dumpDir; }
    double seconds() const;

private:
    void handle(const std::vector<sahara::Session::Event>& events);
    bool sendAll(const std::string& bytes);
    bool makeDirectory(const std::string& logDir);
    void openRegion(size_t region);
    void storeData(size_t region, const uint8_t* data, size_t size);
    // Writes what was gathered; false, with the collection failed, when storage refuses.
    bool flushData();
    void writeIndex();
    void reportProgress(bool force);
    void fail(sahara::Cause cause);

    const int port;
    const std::string portPath;
    sahara::Session saharaSession;
    StopCheck stopped;
    DumpModeSeen dumpModeSeen;
    std::string logDir;
    std::string dumpDir;
    std::string heading;
    CRawFile regionFile;
    int indexFd = -1;
    bool inDumpMode = false;
    bool resetDone = false;
    bool stopSeen = false;
    std::string notDumpText;
    // A failure met while events were handled, acted on once they are all through.
    bool failed = false;
    sahara::Cause failure = sahara::Cause::HungUp;
    std::string storageError;
    uint64_t startMs = 0;
    uint64_t collectStartMs = 0;
    uint64_t endMs = 0;
    uint64_t lastProgressMs = 0;
    bool progressShown = false;
    std::vector<uint8_t> buffer;
    std::vector<uint8_t> pending;  // region bytes not yet written, all of one region
    size_t pendingRegion = 0;
};

#endif
