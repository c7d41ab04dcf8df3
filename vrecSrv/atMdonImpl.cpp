#include "atMdonImpl.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <sstream>

#include "atService.h"
#include "codec.h"
#include "console.h"
#include "diagLog.h"
#include "diagService.h"
#include "fileReading.h"
#include "fileSystem.h"
#include "logConfigDocument.h"
#include "portMgnt.h"
#include "textUtil.h"

namespace {

const char* const kMdonCommands[] = {"AT^MDON=0\r", "AT^MDON=1\r", "AT^MDON=2\r", "AT^MDON=3\r",
                                     "AT^MDON=4\r"};
const char* const kSaveLocationCommands[] = {"AT^MDSL=0\r", "AT^MDSL=1\r"};
const char* const kSaveModeCommands[] = {"AT^MDSF=0\r", "AT^MDSF=1\r"};
const char* const kClearCommands[] = {"AT^MDSTORAGE=0\r", "AT^MDSTORAGE=1\r"};
const char* const kConfigName = "logconfig.xml";
constexpr int kConfigFieldThree = 123;
// Room the upload command needs besides the Base64 of its piece.
constexpr int kUploadCommandOverhead = 60;

// A number as the module writes it: 0x for hexadecimal, a leading 0 for octal.
long long moduleNumber(const std::string& text) {
    return strtoll(text.c_str(), nullptr, 0);
}

}  // namespace

AtMdonImpl::AtMdonImpl() {
    DIAG_TRACE();
}

AtMdonImpl::~AtMdonImpl() {
    DIAG_TRACE();
    m_IsExportFile = false;
    m_thread.WaitOrKill();
    AtService::destroy();
}

void AtMdonImpl::setReport(bool enabled, unsigned step) {
    DIAG_TRACE();
    m_reportEnabled = enabled;
    m_reportStep = static_cast<int>(step);
    DiagService::getInstance()->setReport(enabled, step);
}

bool AtMdonImpl::ensurePcuiPort() {
    PortMgnt* ports = PortMgnt::getInstance();
    return ports->getPcuiHandle() != -1 || ports->openPcuiPort();
}

int AtMdonImpl::pcuiHandle() {
    return PortMgnt::getInstance()->getPcuiHandle();
}

bool AtMdonImpl::portGaveNoAnswer() {
    const AtService::Failure why = AtService::getInstance()->lastFailure();
    return why == AtService::Failure::WriteFailed || why == AtService::Failure::NoAnswer ||
           why == AtService::Failure::Garbled;
}

void AtMdonImpl::tellPortFailure() {
    std::string why = PortMgnt::getInstance()->pcuiFailure();
    consolePrint("%sERROR: can't open the PCUI port: %s.\n", kLineClear,
                 why.empty() ? "no PCUI port of a module was found" : why.c_str());
}

void AtMdonImpl::tellCommandFailure(const std::string& cmd, const std::string& answer) {
    std::string why = AtService::getInstance()->lastFailureText();
    if (why.empty()) {
        why = "the module answered \"" + escapeText(answer) + "\"";
    }
    const std::string shown = cmd.substr(0, cmd.find('\r'));
    consolePrint("%sERROR: %s on the PCUI port %s failed: %s.\n", kLineClear, shown.c_str(),
                 PortMgnt::getInstance()->pcuiName().c_str(), why.c_str());
}

bool AtMdonImpl::settingReached(bool done, const char* cmd) {
    // A refused setting is logged and forgotten; a port that answers nothing usable ends
    // the start, for the orders after it would fare no better.
    if (done) {
        return true;
    }
    if (!PortMgnt::getInstance()->pcuiFailure().empty()) {
        tellPortFailure();
        return false;
    }
    if (portGaveNoAnswer()) {
        tellCommandFailure(cmd, std::string());
        return false;
    }
    return true;
}

bool AtMdonImpl::exchange(const std::string& cmd, std::string& text) {
    const bool ok =
        AtService::getInstance()->sendATcmdAndWaitResponse(pcuiHandle(), cmd, text, true, true);
    DIAG_LOG(LOG_INFO, "\nAT: %s\nResponse: %s", cmd.c_str(), text.c_str());
    return ok;
}

bool AtMdonImpl::setByCommand(const char* const* commands, int count, int value, bool ensurePort) {
    if (ensurePort && !ensurePcuiPort()) {
        return false;
    }
    // A value without a command leaves it empty, and the exchange refuses it.
    const std::string cmd = value >= 0 && value < count ? commands[value] : "";
    std::string text;
    if (exchange(cmd, text) && text == "OK") {
        return true;
    }
    DIAG_LOG(LOG_ERRO, "Execute %s failed.", cmd.c_str());
    return false;
}

bool AtMdonImpl::queryNumber(const char* cmd, int& value, bool ensurePort) {
    if (ensurePort && !ensurePcuiPort()) {
        return false;
    }
    std::string text;
    if (!exchange(cmd, text)) {
        DIAG_LOG(LOG_ERRO, "Execute %s failed.", cmd);
        return false;
    }
    std::istringstream in(text);
    int number = 0;
    in >> number;
    value = number;
    return true;
}

bool AtMdonImpl::setSaveLocation(int location) {
    DIAG_TRACE();
    return setByCommand(kSaveLocationCommands, 2, location, true);
}

bool AtMdonImpl::setSaveMode(int mode) {
    DIAG_TRACE();
    return setByCommand(kSaveModeCommands, 2, mode, true);
}

bool AtMdonImpl::clearSaveSpace(int which) {
    DIAG_TRACE();
    return setByCommand(kClearCommands, 2, which, false);
}

bool AtMdonImpl::queryFuntion(int& state) {
    DIAG_TRACE();
    return queryNumber("AT^MDON?\r", state, true);
}

bool AtMdonImpl::getSaveLocation(int& location) {
    DIAG_TRACE();
    return queryNumber("AT^MDSL?\r", location, false);
}

bool AtMdonImpl::getSaveMode(int& mode) {
    DIAG_TRACE();
    return queryNumber("AT^MDSF?\r", mode, false);
}

std::string AtMdonImpl::getRemainSize() {
    DIAG_TRACE();
    const char* const cmd = "AT^MDSTORAGE?\r";
    std::string text;
    if (!exchange(cmd, text)) {
        DIAG_LOG(LOG_ERRO, "Execute %s failed.", cmd);
        return std::string();
    }
    return text;
}

bool AtMdonImpl::startReadDiag() {
    DIAG_TRACE();
    PortMgnt* ports = PortMgnt::getInstance();
    if (!ports->startReadDiag()) {
        return false;
    }
    // On a port that carries the Diag stream, commands travel in tunnel frames and their
    // answers are left to the reader.
    AtService::getInstance()->setDiagTunnel(ports->isPcuiAsDiag(),
                                            AtService::kTunnelReaderOwnsPort);
    return true;
}

bool AtMdonImpl::startLog(const CaptureOptions& options) {
    DIAG_TRACE();
    const std::string workDir = CDirectory::GetCurrentDir();
    setReport(options.reportStep != 0, static_cast<unsigned>(m_reportStep));
    m_overwrite = options.overwrite;
    const int state = options.state;

    if (state == 0) {
        // Refused or not, the order went out; a port that could not be had says so.
        return settingReached(stopLog(), kMdonCommands[0]);
    }
    if (state >= 5 && state <= 7) {
        if (!listBeforeExport()) {
            return false;
        }
        const std::string lowerName = toLowerCase(options.fileName);
        m_subUnit = options.subUnit;
        if (state == 5) {
            m_fileName = options.fileName;
            if (lowerName == "logsave") {
                consolePrint(
                    "%sINFO: you are going to export all the log files while using -f "
                    "logsave\n",
                    kLineClear);
                exportUEFiles(EXPORT_LOGS);
            } else {
                exportUEFiles(EXPORT_NAMED);
            }
            consolePrint("INFO: Begin to request log file...\n");
        } else if (state == 6) {
            m_fileName = options.fileName;
            if (lowerName == "dump") {
                exportUEFiles(EXPORT_DUMPS);
                consolePrint(
                    "%sINFO: you are going to export all the dump files while using -f "
                    "dump\n",
                    kLineClear);
            } else {
                exportUEFiles(EXPORT_NAMED);
            }
            consolePrint("INFO: Begin to request dump file...%s\n", options.fileName.c_str());
        } else {
            exportUEFiles(EXPORT_LOGS | EXPORT_DUMPS | EXPORT_NAMED);
            consolePrint("INFO: Begin to request log and dump files...\n");
        }
        return true;
    }
    if (state == 1 && !configFileFits(workDir)) {
        return false;
    }
    if (state >= 1 && state <= 4) {
        // Failures of these two are logged and forgotten: the module keeps its setting.
        if (!settingReached(setSaveLocation(options.saveLocation), "AT^MDSL") ||
            !settingReached(setSaveMode(options.saveMode), "AT^MDSF")) {
            return false;
        }
    }
    if (!ensurePcuiPort()) {
        tellPortFailure();
        return false;
    }
    std::string cmd;
    if (state == 3 || state == 4) {
        // The real-time log honours -o as a Diag capture does.
        DiagService::getInstance()->setOverwrite(options.overwrite);
        if (!startReadDiag()) {
            DIAG_LOG(LOG_ERRO, state == 3 ? "start RealLog thread failed."
                                          : "start read real log thread failed.");
            return false;
        }
    }
    if (state >= 1 && state <= 4) {
        cmd = kMdonCommands[state];
    }
    if (state == 1 && sendConfigFile(workDir)) {
        for (int look = 0; look < 100 && m_thread.IsRunning(); ++look) {
            usleep(100000);
        }
    }
    std::string text;
    const bool ok = exchange(cmd, text);
    PortMgnt* ports = PortMgnt::getInstance();
    if (ports->isPcuiAsDiag() && ports->isReading()) {
        return true;  // the reader owns the port's input; no answer was read
    }
    if (!ok || text != "OK") {
        DIAG_LOG(LOG_ERRO, "Execute AT %s failed.", cmd.c_str());
        if (!cmd.empty()) {
            tellCommandFailure(cmd, ok ? text : std::string());
        }
        return false;
    }
    // Also after AT^MDON=3 and 4: the stop opens the port again, by the name given with -p
    // or by discovery.
    ports->closePcuiPort();
    return true;
}

bool AtMdonImpl::listBeforeExport() {
    // The list comes first, on this thread: a port that cannot be had or gives no list ends
    // the run with the reason, instead of a run that stays up with nothing to do.
    if (!ensurePcuiPort()) {
        tellPortFailure();
        return false;
    }
    std::list<std::string> files;
    if (!queryUEFiles(files)) {
        std::string why = AtService::getInstance()->lastFailureText();
        consolePrint("%sERROR: the module on the PCUI port %s gave no list of its files: %s.\n",
                     kLineClear, PortMgnt::getInstance()->pcuiName().c_str(),
                     why.empty() ? "the answer was empty" : why.c_str());
        return false;
    }
    m_listedFiles = std::move(files);
    m_haveList = true;
    return true;
}

bool AtMdonImpl::configFileFits(const std::string& directory) {
    const std::string path = directory + CDirectory::Separator() + kConfigName;
    struct stat info {};
    if (stat(path.c_str(), &info) == 0 && info.st_size > kConfigLimitBytes) {
        consolePrint(
            "%sERROR: can't upload the logging configuration %s: it is %lld bytes; at most %ld "
            "bytes (16 MiB) are accepted.\n",
            kLineClear, path.c_str(), static_cast<long long>(info.st_size), kConfigLimitBytes);
        DIAG_LOG(LOG_ERRO, "%s is too large to upload: %lld bytes", path.c_str(),
                 static_cast<long long>(info.st_size));
        return false;
    }
    return true;
}

bool AtMdonImpl::stopLog() {
    DIAG_TRACE();
    PortMgnt* ports = PortMgnt::getInstance();
    if (!ports->stopReadDiag() || !ensurePcuiPort()) {
        return false;
    }
    const char* const cmd = kMdonCommands[0];
    std::string text;
    if (!exchange(cmd, text) || text != "OK") {
        DIAG_LOG(LOG_ERRO, "Execute %s failed.", cmd);
        return false;
    }
    ports->closePcuiPort();
    return true;
}

std::vector<std::string> AtMdonImpl::splitText(const std::string& text,
                                               const std::string& separator) {
    if (text.empty()) {
        return {};
    }
    if (text.size() < separator.size() || separator.empty()) {
        return {text};
    }
    std::vector<std::string> tokens;
    size_t position = 0;
    // Any one character of the separator is a hit; the next token starts a whole separator
    // later, which may lie past the end of a text that ends in a separator character.
    while (position < text.size()) {
        const size_t hit = text.find_first_of(separator, position);
        if (hit == std::string::npos) {
            break;
        }
        if (hit > position) {
            tokens.push_back(text.substr(position, hit - position));
        }
        position = hit + separator.size();
    }
    if (position < text.size()) {
        tokens.push_back(text.substr(position));
    }
    return tokens;
}

std::list<std::string> AtMdonImpl::parseFileList(const std::string& answer) {
    std::string text = answer;
    std::string separator;
    const size_t quote = text.find('"');
    if (quote != std::string::npos) {
        // ("a","b"): the closing quote and the character behind it go too.
        text.erase(0, quote + 1);
        text.erase(text.size() >= 2 ? text.size() - 2 : 0);
        separator = "\",\"";
    } else {
        const size_t blank = text.find(' ');
        if (blank != std::string::npos) {
            text.erase(0, blank + 1);
        }
        separator = " ";
    }
    const std::vector<std::string> tokens = splitText(text, separator);
    return std::list<std::string>(tokens.begin(), tokens.end());
}

std::string AtMdonImpl::getResponseField(const std::string& response, int number) {
    if (number < 1) {
        return std::string();
    }
    const std::string text = "," + response;
    size_t comma = std::string::npos;
    int seen = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == ',' && ++seen == number) {
            comma = i;
            break;
        }
    }
    if (comma == std::string::npos) {
        return std::string();
    }
    const size_t end = text.find(',', comma + 1);
    std::string field = text.substr(comma + 1, end == std::string::npos ? end : end - comma - 1);
    const size_t first = field.find_first_not_of(' ');
    if (first == std::string::npos) {
        return std::string();
    }
    field = field.substr(first, field.find_last_not_of(' ') - first + 1);
    field.erase(0, field.find_first_not_of('"'));
    if (!field.empty() && field.back() == '"') {
        field.pop_back();
    }
    return field;
}

bool AtMdonImpl::queryUEFiles(std::list<std::string>& files) {
    DIAG_TRACE();
    if (!ensurePcuiPort()) {
        return false;
    }
    const char* const cmd = "AT^RSFR=?\r";
    std::string text;
    if (!exchange(cmd, text)) {
        DIAG_LOG(LOG_ERRO, "Execute %s failed.", cmd);
        return false;
    }
    if (text.empty()) {
        DIAG_LOG(LOG_INFO, "No file");
        return false;
    }
    files = parseFileList(text);
    return true;
}

bool AtMdonImpl::startThread(void (AtMdonImpl::*body)()) {
    // A body that has given its result is only on its way out: let it end rather than
    // refuse the next transfer as if one were under way.
    for (int look = 0; look < 100 && m_resultExportFiles != -1 && m_thread.IsRunning(); ++look) {
        usleep(1000);
    }
    if (!m_thread.IsRunning()) {
        m_thread.Bind(body, this);
        // Under way from here, so that a caller polling the result never reads the last one's.
        m_resultExportFiles = -1;
    }
    return m_thread.Start() == 0;
}

bool AtMdonImpl::exportUEFiles(int mask) {
    DIAG_TRACE();
    if (!ensurePcuiPort()) {
        return false;
    }
    m_IsExportFile = true;
    m_exportMask = mask;
    if (startThread(&AtMdonImpl::threadExportFiles)) {
        DIAG_LOG(LOG_INFO, "Start thread succeed.");
        return true;
    }
    DIAG_LOG(LOG_INFO, "Start thread failed.");
    return false;
}

void AtMdonImpl::threadExportFiles() {
    DIAG_TRACE();
    m_resultExportFiles = -1;
    std::list<std::string> files;
    bool listed = m_haveList;
    if (m_haveList) {
        files.swap(m_listedFiles);  // asked for by the start already
        m_haveList = false;
    } else {
        listed = queryUEFiles(files);
    }
    bool tried = false;
    const std::string wanted = toLowerCase(m_fileName);
    for (const std::string& name : listed ? files : std::list<std::string>()) {
        DIAG_LOG(LOG_INFO, "Checking... %s", name.c_str());
        const std::string lower = toLowerCase(name);
        const bool named = (m_exportMask & EXPORT_NAMED) && lower == wanted;
        const char* kind = nullptr;
        if ((startsWith(lower, "logsave") && (m_exportMask & EXPORT_LOGS)) || named) {
            kind = "log";
        } else if ((startsWith(lower, "dump") && (m_exportMask & EXPORT_DUMPS)) || named) {
            kind = "dump";
        } else {
            continue;
        }
        tried = true;
        consolePrint("%sINFO: Start to export %s file %s.\n", kLineClear, kind, lower.c_str());
        if (!exportSingleFile(PortMgnt::getInstance()->getSavePath(), lower, m_subUnit)) {
            DIAG_LOG(LOG_ERRO, "ERROR: Exporting %s fail.", lower.c_str());
            consolePrint("ERROR: Exporting %s file %s fail.\n", kind, lower.c_str());
        }
    }
    consolePrint("%s%s\n", kLineClear,
                 tried ? "Exporting done, press Ctrl+C to quit."
                       : "WARNING: No files were exported. Please check the item name.");
    m_resultExportFiles = listed ? 1 : 0;
    DIAG_LOG(LOG_INFO, "m_resultExportFiles is %d.", m_resultExportFiles.load());
}

std::string AtMdonImpl::exportDirectory(const std::string& path) {
    if (m_overwrite) {
        return path;
    }
    std::string dir;
    do {
        dir = path + "/vrec_files" + logTimeSuffix();
    } while (CDirectory::Exists(dir));
    if (!CDirectory::Create(dir)) {
        consolePrint("ERROR: can't create directory for log output!\n");
        DIAG_LOG(LOG_ERRO, "can't create directory for log output!");
        return std::string();
    }
    return dir;
}

bool AtMdonImpl::exportSingleFile(const std::string& path, const std::string& name,
                                  const std::string& unit) {
    DIAG_TRACE();
    if (!ensurePcuiPort()) {
        return false;
    }
    DIAG_LOG(LOG_INFO, "export file: %s, unit %s", (name + unit).c_str(), unit.c_str());
    // Both go into the command between quotes and into a file name: a quote or a line end
    // would end the command early, a slash would lead out of the save path.
    const std::string fileName = toLowerCase(name) + unit;
    if (!isPlainField(name) || !isPlainField(unit) || fileName.find('/') != std::string::npos ||
        fileName == "." || fileName == "..") {
        DIAG_LOG(LOG_ERRO, "refused to export %s: the name or unit cannot go into a command.",
                 fileName.c_str());
        return false;
    }
    const std::string dir = exportDirectory(path);
    if (dir.empty()) {
        return false;
    }
    const std::string filePath = dir + "/" + fileName;
    DIAG_LOG(LOG_INFO, "create file %s.", filePath.c_str());
    CFile file(filePath);
    if (!file.Open("wb")) {
        DIAG_LOG(LOG_INFO, "create file %s failed.", filePath.c_str());
        return false;
    }
    const std::string cmd = "AT^RSFR=\"" + name + "\",\"" + unit + "\"\r";
    AtService* at = AtService::getInstance();
    if (PortMgnt::getInstance()->isPcuiAsDiag()) {
        std::string scratch;
        for (int i = 0; i < AtService::kDrainReads; ++i) {
            at->atRead(scratch, AtService::kDrainReadSize, 0);
        }
    }
    // The module keeps the position: the same command is sent until the piece it answers
    // reaches the total.
    bool done = false;
    while (m_IsExportFile) {
        std::string text;
        if (!at->sendATcmdAndWaitResponse(pcuiHandle(), cmd, text, false, false)) {
            DIAG_LOG(LOG_ERRO, "Execute AT failed.");
            break;
        }
        const std::string piece = getResponseField(text, 6);
        int count = 0;
        const std::string bytes =
            Base64Decode(piece.data(), static_cast<int>(piece.size()), &count);
        if (file.Write(bytes.data(), bytes.size()) != bytes.size()) {
            DIAG_LOG(LOG_ERRO, "write %s failed.", filePath.c_str());
            break;
        }
        const std::string total = getResponseField(text, 4);
        const std::string position = getResponseField(text, 5);
        if (total.empty() || position.empty()) {
            break;
        }
        if (m_reportEnabled) {
            consolePrint("Exporting... %s of %s \r", position.c_str(), total.c_str());
        }
        if (moduleNumber(position) >= moduleNumber(total)) {
            done = true;
            break;
        }
    }
    DIAG_LOG(LOG_INFO, "End while. m_IsExportFile is %d", m_IsExportFile ? 1 : 0);
    // A file that cannot be closed whole is not a good export either.
    return file.Close() && done;
}

int AtMdonImpl::configPieceSize(int maxCommandLength) {
    // The Base64 of a piece fills the command but for the room of its other fields.
    const long long size =
        (static_cast<long long>(maxCommandLength) * 3 - 3 * kUploadCommandOverhead) / 4;
    return size > INT32_MAX ? INT32_MAX : static_cast<int>(size < 0 ? 0 : size);
}

std::vector<std::string> AtMdonImpl::cutPieces(const std::string& document, int pieceSize) {
    std::vector<std::string> pieces;
    if (pieceSize <= 0) {
        return pieces;
    }
    const size_t size = static_cast<size_t>(pieceSize);
    size_t offset = 0;
    while (offset + size < document.size()) {
        pieces.push_back(document.substr(offset, size));
        offset += size;
    }
    if (offset < document.size()) {
        pieces.push_back(document.substr(offset));
    }
    return pieces;
}

bool AtMdonImpl::readFile(const std::string& path, std::string& bytes) {
    return readSuppliedFile(path, bytes, kConfigLimitBytes);
}

bool AtMdonImpl::sendConfigFile(const std::string& directory) {
    DIAG_TRACE();
    if (directory.empty() || !ensurePcuiPort()) {
        return false;
    }
    m_configDir = CDirectory::NormalisePath(directory);
    threadSendConfigFile();
    if (m_resultExportFiles == 1) {
        DIAG_LOG(LOG_INFO, "Send config file succee!.");
        return true;
    }
    DIAG_LOG(LOG_ERRO, "Send config file error!.");
    return false;
}

void AtMdonImpl::threadSendConfigFile() {
    DIAG_TRACE();
    m_resultExportFiles = -1;
    if (!configFileFits(m_configDir)) {
        m_resultExportFiles = 0;  // not the built-in one in its place: the user named this file
        return;
    }
    std::string document;
    if (!readFile(m_configDir + CDirectory::Separator() + kConfigName, document) ||
        document.empty()) {
        document = builtInLogConfig();
    }
    const char* const lengthQuery = "AT^CMDLEN?\r";
    std::string text;
    if (!exchange(lengthQuery, text)) {
        DIAG_LOG(LOG_ERRO, "Execute %s failed.", lengthQuery);
        m_resultExportFiles = 0;
        return;
    }
    std::istringstream in(getResponseField(text, 1));
    int maxLength = 0;
    if (!(in >> maxLength)) {
        DIAG_LOG(LOG_ERRO, "no command length in the answer to %s: %s", lengthQuery, text.c_str());
        m_resultExportFiles = 0;
        return;
    }
    DIAG_LOG(LOG_INFO, "MAX AT Len is: %d", maxLength);
    std::vector<std::string> pieces = cutPieces(document, configPieceSize(maxLength));
    const size_t documentBytes = document.size();
    document = std::string();
    if (pieces.empty()) {
        DIAG_LOG(LOG_ERRO, "a command length of %d leaves no room for the configuration.",
                 maxLength);
        m_resultExportFiles = 0;
        return;
    }
    std::vector<std::string> commands;
    for (size_t i = 0; i < pieces.size(); ++i) {
        commands.push_back(std::string("AT^RSFW=\"") + kConfigName + "\",\"\"," +
                           std::to_string(kConfigFieldThree) + "," + std::to_string(pieces.size()) +
                           "," + std::to_string(i + 1) + ",\"" +
                           Base64Encode(reinterpret_cast<const unsigned char*>(pieces[i].data()),
                                        static_cast<int>(pieces[i].size())) +
                           "\"\r");
        pieces[i] = std::string();
    }
    AtService* at = AtService::getInstance();
    size_t sent = 0;
    for (const std::string& cmd : commands) {
        // Only AT^CMDLEN? has its exchange in the log; the pieces would flood it, so they
        // are told by their count, size and result.
        if (!at->sendATcmdAndWaitResponse(pcuiHandle(), cmd, text, true, false)) {
            DIAG_LOG(LOG_ERRO, "Execute %s failed.", cmd.substr(0, cmd.find(',')).c_str());
            DIAG_LOG(LOG_ERRO, "AT^RSFW piece %zu of %zu failed: %s", sent + 1, commands.size(),
                     at->lastFailureText().c_str());
            m_resultExportFiles = 0;
            break;
        }
        ++sent;
    }
    DIAG_LOG(LOG_INFO, "AT^RSFW: %zu of %zu pieces sent, %zu bytes of configuration", sent,
             commands.size(), documentBytes);
    if (m_resultExportFiles == -1) {
        m_resultExportFiles = 1;  // all went out
    }
    DIAG_LOG(LOG_INFO, "m_resultSendConfig is %d", m_resultExportFiles.load());
}

bool AtMdonImpl::getConfigFile(const std::string& directory) {
    DIAG_TRACE();
    if (directory.empty()) {
        return false;
    }
    m_IsExportFile = true;
    m_configDir = CDirectory::NormalisePath(directory);
    if (startThread(&AtMdonImpl::threadGetConfigFile)) {
        DIAG_LOG(LOG_INFO, "Start thread succeed.");
        return true;
    }
    return false;
}

void AtMdonImpl::threadGetConfigFile() {
    DIAG_TRACE();
    m_resultExportFiles = -1;
    const std::string localPath = m_configDir + CDirectory::Separator() + kConfigName;
    // The local copy is what the file goes back to if the download fails, byte for byte.
    std::string local;
    if (!readFile(localPath, local) || local.empty()) {
        DIAG_LOG(LOG_ERRO, "Read config file failed.");
    }
    if (exportSingleFile(m_configDir, kConfigName, "0")) {
        m_resultExportFiles = 1;
    } else {
        if (!local.empty()) {
            CFile file(localPath);
            if (file.Open("wb")) {
                file.Write(local.data(), local.size());
                file.Close();
            }
        }
        m_resultExportFiles = 0;
    }
    DIAG_LOG(LOG_INFO, "m_resultExportFiles is %d.", m_resultExportFiles.load());
}
