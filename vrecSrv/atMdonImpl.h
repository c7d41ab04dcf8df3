#ifndef VREC_SRV_ATMDONIMPL_H
#define VREC_SRV_ATMDONIMPL_H

#include <atomic>
#include <list>
#include <string>
#include <vector>

#include "jthread.h"
#include "logInterface.h"

// Capture in which the module logs by itself: the host orders it over the AT^MDON command
// family on the PCUI port, uploads its logging configuration, and brings the files it saved
// to the host in Base64 pieces.
class AtMdonImpl : public LogInterface {
public:
    // What an export takes: logsave* files, dump* files, the one file named.
    enum ExportMask { EXPORT_LOGS = 1, EXPORT_DUMPS = 2, EXPORT_NAMED = 4 };
    static constexpr int kDefaultReportStep = 1024000;
    // The largest logging configuration accepted for upload; the document is cargo held in
    // memory whole, with its Base64 beside it.
    static constexpr long kConfigLimitBytes = 16L << 20;

    AtMdonImpl();
    ~AtMdonImpl() override;

    bool startLog(const CaptureOptions& options) override;
    bool stopLog() override;
    void setReport(bool enabled, unsigned step) override;

    // Settings and queries of the module.
    bool setSaveLocation(int location);
    bool setSaveMode(int mode);
    bool clearSaveSpace(int which);
    bool queryFuntion(int& state);
    bool getSaveLocation(int& location);
    bool getSaveMode(int& mode);
    std::string getRemainSize();
    bool startReadDiag();

    // Export of the module's files.
    bool queryUEFiles(std::list<std::string>& files);
    bool exportUEFiles(int mask);
    void threadExportFiles();
    bool exportSingleFile(const std::string& path, const std::string& name,
                          const std::string& unit);
    void stopExportFiles() { m_IsExportFile = false; }
    static std::string getResponseField(const std::string& response, int number);

    // The logging configuration, up to the module and back.
    bool sendConfigFile(const std::string& directory);
    void threadSendConfigFile();
    bool getConfigFile(const std::string& directory);
    void threadGetConfigFile();
    // The whole file; false when missing, empty or not read whole.
    static bool readFile(const std::string& path, std::string& bytes);

    // -1 none yet or under way, 0 failed, 1 done: the last export, download or upload.
    int transferResult() const { return m_resultExportFiles; }

    // Pure helpers, reachable for tests.
    static std::vector<std::string> splitText(const std::string& text,
                                              const std::string& separator);
    static std::list<std::string> parseFileList(const std::string& answer);
    // Bytes of the document per upload piece for a maximum command length; <= 0: none fit.
    static int configPieceSize(int maxCommandLength);
    static std::vector<std::string> cutPieces(const std::string& document, int pieceSize);

private:
    bool ensurePcuiPort();
    // The user's lines for a start that cannot go on, with the reason.
    void tellPortFailure();
    void tellCommandFailure(const std::string& cmd, const std::string& answer);
    static bool portGaveNoAnswer();
    // After a setting of the start: false, said why, when the port is not to be had or
    // gives no usable answer.
    bool settingReached(bool done, const char* cmd);
    bool listBeforeExport();
    // False, said why, when "logconfig.xml" in `directory` is too large to upload.
    static bool configFileFits(const std::string& directory);
    int pcuiHandle();
    // One exchange with both log flags on, and its "AT:/Response:" log line.
    bool exchange(const std::string& cmd, std::string& text);
    bool setByCommand(const char* const* commands, int count, int value, bool ensurePort);
    bool queryNumber(const char* cmd, int& value, bool ensurePort);
    bool startThread(void (AtMdonImpl::*body)());
    std::string exportDirectory(const std::string& path);

    std::string m_configDir;
    int m_reportStep = kDefaultReportStep;
    bool m_reportEnabled = true;
    bool m_overwrite = true;  // the command line's default, also for the facade
    std::string m_subUnit = "0";
    std::string m_fileName;
    int m_exportMask = 0;
    std::atomic<int> m_resultExportFiles{-1};
    std::atomic<bool> m_IsExportFile{false};
    // The module's list, read by the start before the export thread begins.
    std::list<std::string> m_listedFiles;
    bool m_haveList = false;
    // Last, so that it is stopped before the fields it uses go away.
    JThreadT<AtMdonImpl, void> m_thread;
};

#endif
