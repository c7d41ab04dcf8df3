#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "dateTime.h"
#include "diagLog.h"
#include "testkit.h"

using testkit::readFile;
using testkit::TempDir;

namespace {

// "H:M:S:ms  LEVEL  body", numbers without leading zeros; gives LEVEL and body.
std::vector<std::pair<std::string, std::string>> parsedLines(const std::string& path) {
    std::vector<std::pair<std::string, std::string>> result;
    std::istringstream in(readFile(path));
    for (std::string line; std::getline(in, line);) {
        const std::string stamp = ":" + line.substr(0, line.find("  ")) + ":";
        bool wellFormed = std::count(stamp.begin(), stamp.end(), ':') == 5 &&
                          stamp.find_first_not_of("0123456789:") == std::string::npos &&
                          stamp.find("::") == std::string::npos &&
                          line.compare(stamp.size() + 4, 2, "  ") == 0;
        for (size_t at = stamp.find(":0"); at != std::string::npos; at = stamp.find(":0", at + 1)) {
            wellFormed = wellFormed && stamp[at + 2] == ':';
        }
        EXPECT_TRUE(wellFormed) << line;
        result.emplace_back(line.substr(stamp.size(), 4), line.substr(stamp.size() + 6));
    }
    return result;
}

// Writes one line onto filler chosen so that the file then holds exactly `target` bytes;
// tells whether that rotated the file. The width of the time stamp may change between the
// guess and the write; then it tries again.
bool rotatesAt(const TempDir& dir, long limit, long target) {
    const std::string backup = dir.file("vrec_backup_0.log");
    for (int attempt = 0; attempt < 20; ++attempt) {
        unlink(backup.c_str());
        const CDateTime now;
        const std::string line = std::to_string(now.Hour()) + ":" + std::to_string(now.Minute()) +
                                 ":" + std::to_string(now.Second()) + ":" +
                                 std::to_string(now.Millisecond()) + "  INFO  f.cpp 1 fn text\n";
        testkit::writeFile(dir.file("vrec.log"),
                           std::string(static_cast<size_t>(target) - line.size() - 1, 'x') + "\n");
        DiagLogFile(dir.file("vrec.log"), limit, /*append=*/true)
            .WriteLine(LOG_INFO, "f.cpp", "fn", 1, "text");
        const bool rotated = testkit::fileExists(backup);
        if (static_cast<long>(readFile(rotated ? backup : dir.file("vrec.log")).size()) == target) {
            return rotated;
        }
    }
    ADD_FAILURE() << "no write landed on " << target << " bytes";
    return false;
}

// The front of the log writes under the working directory it found when it started.
class DiagLogFront : public ::testing::Test {
protected:
    DiagLogFront() : inside(dir.path()) { DiagLog::destroyDiagLog(); }
    ~DiagLogFront() override { DiagLog::destroyDiagLog(); }

    TempDir dir;
    testkit::CurrentDir inside;
};

int tracedFunction() {
    DIAG_TRACE();
    DIAG_LOG(LOG_WARN, "inside %d", 42);
    return __LINE__ - 2;
}

}  // namespace

TEST(DiagLogFile, RotationBoundaryAndBackupNumbering) {
    TempDir dir;
    EXPECT_FALSE(rotatesAt(dir, 4096, 4095));
    EXPECT_TRUE(rotatesAt(dir, 4096, 4096));
    // The rotated content is gone from the log, which starts over with the next line.
    EXPECT_FALSE(testkit::fileExists(dir.file("vrec.log")));

    testkit::writeFile(dir.file("vrec_backup_0.log"), "zero");
    testkit::writeFile(dir.file("vrec_backup_1.log"), "one");
    testkit::writeFile(dir.file("vrec.log"), "from an earlier run\n");
    DiagLogFile log(dir.file("vrec.log"), 150);
    // The first line of a run empties the old log. Two lines stay below the limit and three
    // pass it, whatever the width of their time stamps.
    for (int i = 0; i < 7; ++i) {
        ASSERT_TRUE(log.WriteLine(LOG_INFO, "f.cpp", "fn", i, "a line of about sixty characters"));
    }
    EXPECT_EQ(readFile(dir.file("vrec_backup_0.log")), "zero");
    EXPECT_EQ(readFile(dir.file("vrec_backup_1.log")), "one");
    int index = 0;
    for (const auto& [name, count] :
         {std::make_pair("vrec_backup_2.log", 3u), std::make_pair("vrec_backup_3.log", 3u),
          std::make_pair("vrec.log", 1u)}) {
        const auto lines = parsedLines(dir.file(name));
        ASSERT_EQ(lines.size(), count) << name;
        for (const auto& line : lines) {
            EXPECT_EQ(line.second,
                      "f.cpp " + std::to_string(index++) + " fn a line of about sixty characters");
        }
    }
}

TEST_F(DiagLogFront, LevelsCallSitesLongTextAndRestart) {
    for (int level : {int{LOG_CRIT}, int{LOG_ERRO}, int{LOG_WARN}, 9}) {
        DiagLog::write(level, "src/a.cpp", "run", 7, "said: %d%%", 100);
    }
    EXPECT_NE(DIAG_LOG(LOG_ERRO, "%s", std::string(2000, 'x').c_str()), 0);
    const int line = tracedFunction();
    // Until a millisecond below 100 came up, which padding would show.
    for (int i = 0; i < 3000 && CDateTime().Millisecond() >= 100; ++i) {
        usleep(500);
    }
    DiagLog::destroyDiagLog();
    DIAG_LOG(LOG_INFO, "after the restart");  // appends: the process's own lines stay

    const auto written = parsedLines(dir.file("vrec.log"));
    ASSERT_EQ(written.size(), 9u);
    const char* levels[] = {"CRIT", "ERRO", "WARN", "????"};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(written[i], std::make_pair(std::string(levels[i]),
                                             std::string("src/a.cpp 7 run said: 100%")));
    }
    EXPECT_EQ(written[4].second.substr(written[4].second.size() - 1023),
              " " + std::string(1022, 'x'));
    // Source paths stand relative to the project, not to the build machine.
    const std::string site = std::string(__FILE__) + " " + std::to_string(line);
    EXPECT_NE(site[0], '/');
    EXPECT_EQ(written[5], std::make_pair(std::string("INFO"), site + " tracedFunction enter"));
    EXPECT_EQ(written[6].second,
              std::string(__FILE__) + " " + std::to_string(line + 1) + " tracedFunction inside 42");
    EXPECT_EQ(written[7], std::make_pair(std::string("INFO"), site + " tracedFunction exit"));
    EXPECT_NE(written[8].second.find("after the restart"), std::string::npos);
}

TEST_F(DiagLogFront, LinesOfManyThreadsStayWhole) {
    const int threads = 8;
    const int perThread = 200;
    // Each thread has its own call site and line length.
    const auto body = [](int t, int i) {
        return "src/w" + std::to_string(t) + ".cpp " + std::to_string(100 + t) + " work line " +
               std::to_string(i) + " " + std::string(t * 40, '#');
    };
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([t] {
            const std::string file = "src/w" + std::to_string(t) + ".cpp";
            for (int i = 0; i < perThread; ++i) {
                DiagLog::write(LOG_INFO, file.c_str(), "work", 100 + t, "line %d %s", i,
                               std::string(t * 40, '#').c_str());
            }
        });
    }
    for (std::thread& w : workers) {
        w.join();
    }
    const auto written = parsedLines(dir.file("vrec.log"));
    ASSERT_EQ(written.size(), static_cast<size_t>(threads * perThread));
    std::vector<int> next(threads, 0);
    for (const auto& line : written) {
        const int t = line.second.size() > 6 ? line.second[5] - '0' : -1;
        ASSERT_TRUE(t >= 0 && t < threads) << line.second;
        EXPECT_EQ(line.second, body(t, next[t]++));
    }
}

// However many rotations and whatever earlier runs left, a rotation leaves at most
// kMaxBackups backups: the oldest by time go first, the newest content always stays.
TEST(DiagLogFile, BackupsAreBoundedAndTheOldestGoFirst) {
    namespace fs = std::filesystem;
    TempDir dir;
    const auto now = fs::file_time_type::clock::now();
    // Six backups of an earlier run; number 5 is the oldest of them, number 0 the newest.
    for (int n = 0; n < 6; ++n) {
        const std::string name = dir.file("vrec_backup_" + std::to_string(n) + ".log");
        testkit::writeFile(name, "old " + std::to_string(n));
        fs::last_write_time(name, now - std::chrono::hours(n + 1));
    }
    testkit::writeFile(dir.file("vrec_backup_x.log"), "not a backup");
    const auto backups = [&] {
        std::vector<std::string> names;
        for (const std::string& name : testkit::listDir(dir.path())) {
            if (name.rfind("vrec_backup_", 0) == 0 && name != "vrec_backup_x.log") {
                names.push_back(readFile(dir.file(name)).substr(0, 3) == "old"
                                    ? readFile(dir.file(name))
                                    : name);
            }
        }
        std::sort(names.begin(), names.end());
        return names;
    };
    DiagLogFile log(dir.file("vrec.log"), 100);
    ASSERT_TRUE(log.WriteLine(LOG_INFO, "f.cpp", "fn", 1, "a line of about sixty characters!!"));
    ASSERT_TRUE(log.WriteLine(LOG_INFO, "f.cpp", "fn", 2, "a line of about sixty characters!!"));
    // The first rotation made room by deleting the three oldest, and took a free number.
    std::vector<std::string> kept = backups();
    ASSERT_EQ(DiagLogFile::kMaxBackups, kept.size());
    EXPECT_EQ((std::vector<std::string>{"old 0", "old 1", "old 2", "vrec_backup_3.log"}), kept);
    for (int line = 3; line < 40; ++line) {
        ASSERT_TRUE(log.WriteLine(LOG_INFO, "f.cpp", "fn", line, "a line of about sixty chars"));
        ASSERT_GE(DiagLogFile::kMaxBackups, backups().size());
    }
    // Only rotations of this run are left.
    kept = backups();
    EXPECT_EQ(DiagLogFile::kMaxBackups, kept.size());
    for (const std::string& name : kept) {
        EXPECT_EQ(std::string::npos, name.find("old")) << name;
    }
    EXPECT_EQ("not a backup", readFile(dir.file("vrec_backup_x.log")));
}
