// The module logging by itself: the real vrec, run as a user runs it, against the module
// simulator, whose record tells what reached the module's PCUI port.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "diagLog.h"
#include "logConfigDocument.h"
#include "portMgnt.h"
#include "testkit.h"
#include "vrecSevice.h"

namespace {

const bool kFollowsBackgroundRuns = testkit::skipAllWithoutSubreaper();

using testkit::BackgroundRun;
using testkit::TempDir;
using Lines = std::vector<std::string>;

const std::string kVrec = testkit::builtProgram("vrecCmd/vrec");
const std::string kDone = "INFO: Wait for settings to take effect.\nDone.\n";
const char* const kExported = "Exporting done, press Ctrl+C to quit.";
const char* const kNothing = "WARNING: No files were exported. Please check the item name.";

// "a b c" as {"a", "b", "c"}.
Lines words(const std::string& text) {
    std::istringstream in(text);
    Lines list;
    for (std::string word; in >> word;) {
        list.push_back(word);
    }
    return list;
}

using testkit::has;

// The module: vrec-modemsim with its ports "pcui" and "diag" in `dir`.
struct Module : testkit::ModemSim {
    Module(const std::string& dir, const std::string& options)
        : ModemSim(dir, words("--pcui pcui --diag diag " + options)) {}
    // The AT lines that reached the PCUI port, in order.
    Lines commands() const {
        Lines lines;
        for (const std::string& line : arrived("pcui")) {
            if (line.rfind("at ", 0) == 0) {
                lines.push_back(line.substr(3));
            }
        }
        return lines;
    }
};

// `vrec -s` in `cwd`: the exit status of `run`, a capture or an export that stayed up.
// Standard error, where a sanitizer would speak, stays empty.
int stopVrec(BackgroundRun& run, const std::string& cwd) {
    std::string out;
    testkit::runToEnd({kVrec, "-s"}, cwd, &out);
    const int status = run.childStatus(15000);
    EXPECT_EQ("", run.errors());
    return status;
}

struct ModeCase {
    const char* args;    // behind "-p ./pcui"
    const char* module;  // options of the module
    const char* sent;    // what reaches the module until the start is over
    bool staysUp;        // else the run ends on "Done." at once
    bool closesPort;     // the PCUI port is closed once the start is over
    const char* logged;  // a text of vrec.log
    bool fails = false;  // the start fails, and the run's status says so
};

TEST(Mdon, EachStateSendsItsCommandsInOrderAndEndsItsWay) {
    testkit::isolateNetwork();
    const ModeCase cases[] = {
        {"-m 0", "", "AT^MDON=0", false, true, ""},
        {"-m 2", "", "AT^MDSL=1 AT^MDSF=0 AT^MDON=2", false, true, ""},
        {"-m 2 -l flash -c 0", "", "AT^MDSL=0 AT^MDSF=1 AT^MDON=2", false, true, ""},
        // A refused order fails the start, which ends the run on the same path.
        {"-m 2", "--fault error=^MDON", "AT^MDSL=1 AT^MDSF=0 AT^MDON=2", false, false,
         "Execute AT AT^MDON=2\r failed.", true},
        // A place on the host is none of the module's: no AT^MDSL goes out.
        // A real-time log too lets the port go; the stop opens it again by its -p name, for
        // there is no module to discover.
        {"-m 3 -d ./diag -l logs", "", "AT^MDSF=0 AT^MDON=3", true, true, ""},
        {"-m 4 -d ./diag", "", "AT^MDSL=1 AT^MDSF=0 AT^MDON=4", true, true, ""},
    };
    for (const ModeCase& c : cases) {
        SCOPED_TRACE(std::string(c.args) + " " + c.module);
        TempDir dir;
        const Module module(dir.path(), c.module);
        ASSERT_TRUE(module.ready);
        BackgroundRun vrec(words(kVrec + " -p ./pcui " + c.args), dir.path());
        if (c.staysUp) {
            ASSERT_TRUE(vrec.waitForOutput("vrec now is running in the background."));
        } else {
            EXPECT_EQ(c.fails ? 1 : 0, vrec.childStatus());
            EXPECT_TRUE(has(vrec.output(), kDone)) << vrec.output();
            EXPECT_EQ("", vrec.errors());
        }
        EXPECT_EQ(words(c.sent), module.commands());
        // Closed after the answer to the last order.
        const std::string log = testkit::readFile(dir.file("vrec.log"));
        EXPECT_EQ(c.closesPort, has(log.substr(log.rfind("\nAT: ")), "Pcui port close succeed."));
        EXPECT_TRUE(has(log, c.logged)) << c.logged;
        if (c.staysUp) {
            EXPECT_EQ(1, stopVrec(vrec, dir.path()));
            EXPECT_TRUE(has(vrec.output(), "INFO: Stop capturing log.")) << vrec.output();
            EXPECT_EQ(words(c.sent + std::string(" AT^MDON=0")), module.commands());
            const std::string stopLog = testkit::readFile(dir.file("vrec.log")).substr(log.size());
            EXPECT_TRUE(has(stopLog, "Regain Pcui port success")) << stopLog;
        }
    }
}

// An upload command as "NUMBER/COUNT:BYTES" of its piece; other lines as they are.
Lines uploadView(Lines lines) {
    for (std::string& line : lines) {
        int count = 0;
        int number = 0;
        int at = 0;
        if (sscanf(line.c_str(), "AT^RSFW=\"logconfig.xml\",\"\",123,%d,%d,\"%n", &count, &number,
                   &at) == 2 &&
            at > 0 && line.back() == '"') {
            const std::string base64 = line.substr(at, line.size() - at - 1);
            const size_t padding = base64.size() - base64.find_last_not_of('=') - 1;
            line = std::to_string(number) + "/" + std::to_string(count) + ":" +
                   std::to_string(base64.size() / 4 * 3 - padding);
        }
    }
    return lines;
}

struct UploadCase {
    const char* what;
    std::optional<std::string> local;   // logconfig.xml in the working directory
    const char* module;                 // options of the module
    const char* sent;                   // the pieces that went out, "NUMBER/COUNT:BYTES"
    std::optional<std::string> stored;  // what the module put together
    bool done;                          // the upload, as vrec.log tells
};

TEST(Mdon, ConfigurationGoesUpInPiecesBeforeLoggingStarts) {
    testkit::isolateNetwork();
    std::string binary;
    for (int i = 0; i < 1500; ++i) {
        binary += static_cast<char>(i * 37);  // zero bytes among the others
    }
    const std::string& builtIn = builtInLogConfig();
    const UploadCase cases[] = {
        {"no file", std::nullopt, "", "1/4:723 2/4:723 3/4:723 4/4:205", builtIn, true},
        {"empty file", "", "", "1/4:723 2/4:723 3/4:723 4/4:205", builtIn, true},
        {"binary file", binary, "", "1/3:723 2/3:723 3/3:54", binary, true},
        {"refused piece", std::nullopt, "--fault error=^RSFW", "1/4:723", std::nullopt, false},
        {"no room for a piece", std::nullopt, "--cmdlen 60", "", std::nullopt, false},
    };
    for (const UploadCase& c : cases) {
        SCOPED_TRACE(c.what);
        TempDir dir;
        ASSERT_EQ(0, mkdir(dir.file("module").c_str(), 0755));
        if (c.local) {
            testkit::writeFile(dir.file("logconfig.xml"), *c.local);
        }
        const Module module(dir.path(), std::string("--upload-dir module ") + c.module);
        ASSERT_TRUE(module.ready);
        std::string out;
        std::string err;
        EXPECT_EQ(0, testkit::runToEnd({kVrec, "-p", "./pcui", "-m", "1"}, dir.path(), &out, &err));
        EXPECT_TRUE(has(out, kDone)) << out;
        EXPECT_EQ("", err);

        // AT^MDON=1 goes out whatever became of the upload.
        EXPECT_EQ(words(std::string("AT^MDSL=1 AT^MDSF=0 AT^CMDLEN? ") + c.sent + " AT^MDON=1"),
                  uploadView(module.commands()));
        const std::string stored = dir.file("module/logconfig.xml");
        ASSERT_EQ(c.stored.has_value(), testkit::fileExists(stored));
        EXPECT_TRUE(!c.stored || testkit::readFile(stored) == *c.stored);
        // Of the upload's exchanges only AT^CMDLEN? stands in the log with its answer.
        const std::string log = testkit::readFile(dir.file("vrec.log"));
        EXPECT_TRUE(has(log, c.done ? "Send config file succee!." : "Send config file error!."));
        EXPECT_TRUE(has(log, "\nAT: AT^CMDLEN?\r"));
        EXPECT_FALSE(has(log, "\nAT: AT^RSFW"));
    }
}

// The exported files under `dir` by name: content, and whether each lies in a vrec_files_
// directory of its own.
std::map<std::string, std::pair<std::string, bool>> exportedFiles(const std::string& dir) {
    std::map<std::string, std::pair<std::string, bool>> files;
    for (const std::string& name : testkit::listDir(dir)) {
        const std::string path = dir + "/" + name;
        if (name.rfind("vrec_files_", 0) == 0) {
            const Lines inside = testkit::listDir(path);
            for (const std::string& file : inside) {
                files[file] = {testkit::readFile(path + "/" + file), inside.size() == 1};
            }
        } else if (name.rfind("logsave", 0) == 0 || name.rfind("dump", 0) == 0) {
            files[name] = {testkit::readFile(path), false};
        }
    }
    return files;
}

struct ExportCase {
    const char* args;    // behind "-p ./pcui"
    const char* module;  // options of the module besides its files
    const char* files;   // "NAME=MODULE'S FILE[:BYTES]", blank-separated
    bool ownDirectories;
    const char* printed;
};

TEST(Mdon, ExportsBringTheModulesFilesWholeAndStayUp) {
    testkit::isolateNetwork();
    TempDir files;
    std::mt19937 random(7);
    std::string big(3 << 20, '\0');
    for (char& byte : big) {
        byte = static_cast<char>(random());
    }
    testkit::writeFile(files.file("LogSave_1"), big);
    testkit::writeFile(files.file("logsave_2"), "");
    testkit::writeFile(files.file("dump_1"), big.substr(1000, 50000));
    testkit::writeFile(files.file("xdump_1"), "not a dump");
    const ExportCase cases[] = {
        {"-f logsave -u 0", "", "logsave_10=LogSave_1 logsave_20=logsave_2", false,
         "Exporting... 3145728 of 3145728 \r"},
        {"-f dump -u 3 -o 0", "", "dump_13=dump_1", true, kExported},
        {"-f * -o 0", "", "logsave_10=LogSave_1 logsave_20=logsave_2 dump_10=dump_1", true,
         kExported},
        {"-f LOGSAVE_2", "--list-unquoted", "logsave_20=logsave_2", false, kExported},
        // A transfer that breaks off leaves what came; the next file is still fetched.
        {"-f logsave", "--fault rsfr-stop=2", "logsave_10=LogSave_1:8192 logsave_20=logsave_2",
         false, "ERROR: Exporting log file logsave_1 fail.\n"},
        // A name the list does not hold; a list refused ends the run instead (see the failures).
        {"-f dump_9", "", "", false, kNothing},
    };
    for (const ExportCase& c : cases) {
        SCOPED_TRACE(std::string(c.args) + " " + c.module);
        TempDir dir;
        const Module module(dir.path(),
                            "--piece-size 4096 --files " + files.path() + " " + c.module);
        ASSERT_TRUE(module.ready);
        BackgroundRun vrec(words(kVrec + " -p ./pcui " + c.args), dir.path());
        EXPECT_TRUE(testkit::waitFor(
            [&] { return has(vrec.output(), kExported) || has(vrec.output(), kNothing); }, 20000));
        EXPECT_TRUE(has(vrec.output(), c.printed)) << c.printed;
        EXPECT_EQ(*c.files == '\0', has(vrec.output(), kNothing));
        const auto got = exportedFiles(dir.path());
        EXPECT_EQ(words(c.files).size(), got.size());
        for (const std::string& item : words(c.files)) {
            const size_t from = item.find('=') + 1;
            const size_t bytes = item.find(':');
            const std::string name = item.substr(0, from - 1);
            const std::string want =
                testkit::readFile(files.file(item.substr(from, bytes - from)))
                    .substr(0, bytes == std::string::npos ? bytes : stoul(item.substr(bytes + 1)));
            const auto it = got.find(name);
            ASSERT_NE(got.end(), it) << name;
            EXPECT_TRUE(it->second.first == want) << name << ": " << it->second.first.size()
                                                  << " bytes, " << want.size() << " expected";
            EXPECT_EQ(c.ownDirectories, it->second.second) << name;
        }
        EXPECT_EQ(1, stopVrec(vrec, dir.path()));
        EXPECT_EQ("AT^MDON=0", module.commands().back());
    }
}

TEST(Mdon, FacadeFetchesTheConfigurationAndKeepsTheLocalOneOnFailure) {
    TempDir dir;
    ASSERT_EQ(0, mkdir(dir.file("files").c_str(), 0755));
    const std::string modules = "<?xml version=\"1.0\" ?> <Configuration> </Configuration>";
    testkit::writeFile(dir.file("files/logconfig.xml"), modules);
    testkit::writeFile(dir.file("logconfig.xml"), "<local/>");
    Module module(dir.path(), "--files files");
    ASSERT_TRUE(module.ready);
    DiagLog::destroyDiagLog();  // its file opens anew in the working directory below
    testkit::CurrentDir cwd(dir.path());

    vrecSevice* service = vrecSevice::getInstance();
    service->switchMode(CAPTURE_MDON);
    ASSERT_TRUE(PortMgnt::getInstance()->openPcuiPortByName(dir.file("pcui").c_str()));
    const auto download = [&] {
        int result = -1;
        if (service->getConfigFile(dir.path())) {
            testkit::waitFor([&] { return (result = service->getTransferResult()) != -1; }, 10000);
        }
        return result;
    };
    EXPECT_EQ(1, download());
    EXPECT_EQ(modules, testkit::readFile(dir.file("logconfig.xml0")));
    EXPECT_EQ("<local/>", testkit::readFile(dir.file("logconfig.xml")));

    EXPECT_TRUE(module.fault("error=^RSFR"));
    EXPECT_EQ(0, download());
    EXPECT_EQ("<local/>", testkit::readFile(dir.file("logconfig.xml")));
    EXPECT_EQ(Lines(2, "AT^RSFR=\"logconfig.xml\",\"0\""), module.commands());

    vrecSevice::destroy();
    PortMgnt::getInstance()->closePcuiPort();
    DiagLog::destroyDiagLog();
}

}  // namespace
