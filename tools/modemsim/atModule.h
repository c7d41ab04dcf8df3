#ifndef VREC_TOOLS_ATMODULE_H
#define VREC_TOOLS_ATMODULE_H

#include <functional>
#include <string>
#include <vector>

namespace vtools {

struct AtModuleConfig {
    int maxCommandLength = 1024;         // answered to AT^CMDLEN?, and longer commands are refused
    size_t pieceSize = 512;              // file bytes per AT^RSFR answer
    std::string filesDir;                // what AT^RSFR lists and serves; empty: no files
    std::string uploadDir = ".";         // where a finished AT^RSFW upload is stored
    bool listUnquoted = false;           // AT^RSFR=? as `^RSFR: a b` instead of `^RSFR: ("a","b")`
    std::string storageText = "102400";  // answer to AT^MDSTORAGE?
};

// The module's AT command interpreter: one command line in, the answer's bytes out. It
// knows nothing of ports; echo, unsolicited lines and split writes are the port's business.
class AtModule {
public:
    explicit AtModule(AtModuleConfig config);

    // `line` is the command without its closing carriage return.
    std::string handle(const std::string& line);

    enum class Trace { kNone, kStart, kStop };
    // What the last command asked of the Diag stream ("at+trace=1", "at+trace=0").
    Trace takeTrace();

    // Called with a short note for each thing worth a line in the record: a stored upload,
    // the reason a command was refused.
    std::function<void(const std::string&)> note;

    // Faults: commands starting with "AT" and one of these (any case) get ERROR.
    std::vector<std::string> errorCommands;
    // Fault: a file transfer stops with ERROR after this many pieces (0: never).
    int stopTransferAfter = 0;

    bool echo = true;
    int mdon = 0;
    int mdsl = 0;
    int mdsf = 0;

    // The files AT^RSFR offers, in listing order.
    std::vector<std::string> listFiles() const;

private:
    std::string refuse(const std::string& why);
    std::string answer(const std::string& line) const;  // "\r\nLINE\r\n\r\nOK\r\n"
    std::string setOrQuery(const std::string& args, int* value, int highest,
                           const std::string& name);
    std::string uploadPiece(const std::string& args);
    std::string serveFile(const std::string& args);
    std::string listAnswer() const;

    AtModuleConfig cfg;
    Trace trace = Trace::kNone;

    // Upload in progress.
    std::string uploadName;
    int uploadCount = 0;
    int uploadNext = 1;  // the NUMBER the next piece must carry
    std::string uploadData;

    // Transfer in progress: the module keeps the position, the host repeats the command.
    std::string transferKey;
    size_t transferPosition = 0;
    int transferPieces = 0;
};

}  // namespace vtools

#endif
