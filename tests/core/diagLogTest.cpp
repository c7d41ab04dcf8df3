#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
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

std::vector<std::string> lines(const std::string& path) {
    std::vector<std::string> result;
    std::istringstream in(readFile(path));
    for (std::string line; std::getline(in, line);) {
        result.push_back(line);
    }
    return result;
}

// A number as the log prints it, without leading zeros.
bool plainNumber(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos &&
           (text == "0" || text[0] != '0');
}

struct Line {
    std::string level;
    std::string body;
};

// Splits "H:M:S:ms  LEVEL  body"; false when the line has another shape.
bool parse(const std::string& line, Line* out) {
    const size_t gap = line.find("  ");
    if (gap == std::string::npos || line.size() < gap + 8 || line.compare(gap + 6, 2, "  ") != 0) {
        return false;
    }
    std::istringstream time(line.substr(0, gap));
    int fields = 0;
    for (std::string part; std::getline(time, part, ':'); ++fields) {
        if (!plainNumber(part)) {
            return false;
        }
    }
    out->level = line.substr(gap + 2, 4);
    out->body = line.substr(gap + 8);
    return fields == 4;
}

// The front of the log writes under the working directory it found when it started, so
// each test gets a fresh directory and a fresh log.
class DiagLogFront : public ::testing::Test {
protected:
    DiagLogFront() : inside(dir.path()) { DiagLog::destroyDiagLog(); }
    ~DiagLogFront() override { DiagLog::destroyDiagLog(); }
    std::string logPath() const { return dir.file("vrec.log"); }

    TempDir dir;
    testkit::CurrentDir inside;
};

int tracedFunction() {
    const int line = __LINE__ + 1;
    DIAG_TRACE();
    DIAG_LOG(LOG_WARN, "inside %d", 42);
    return line;
}

enum class Landing { Missed, Kept, Rotated };

// Writes one line onto filler chosen so that the file then holds exactly `target` bytes.
// The width of the time stamp may change between the guess and the write; then it tries
// again.
Landing writeLineEndingAt(const TempDir& dir, long limit, long target) {
    const std::string path = dir.file("vrec.log");
    const std::string backup = dir.file("vrec_backup_0.log");
    for (int attempt = 0; attempt < 20; ++attempt) {
        unlink(backup.c_str());
        const CDateTime now;
        const std::string stamp = std::to_string(now.Hour()) + ":" + std::to_string(now.Minute()) +
                                  ":" + std::to_string(now.Second()) + ":" +
                                  std::to_string(now.Millisecond());
        const long length = static_cast<long>(stamp.size() + strlen("  INFO  f.cpp 1 fn text\n"));
        testkit::writeFile(path, std::string(static_cast<size_t>(target - length - 1), 'x') + "\n");
        {
            DiagLogFile log(path, limit, /*append=*/true);
            EXPECT_TRUE(log.WriteLine(LOG_INFO, "f.cpp", "fn", 1, "text"));
        }
        const bool rotated = testkit::fileExists(backup);
        if (static_cast<long>(readFile(rotated ? backup : path).size()) == target) {
            return rotated ? Landing::Rotated : Landing::Kept;
        }
    }
    return Landing::Missed;
}

}  // namespace

TEST(DiagLogFile, LineShapeLevelsAndRefusals) {
    TempDir dir;
    const std::string path = dir.file("vrec.log");
    DiagLogFile log(path);
    EXPECT_FALSE(log.WriteLine(LOG_INFO, nullptr, "fn", 1, "text"));
    EXPECT_FALSE(log.WriteLine(LOG_INFO, "f.cpp", nullptr, 1, "text"));
    EXPECT_FALSE(log.WriteLine(LOG_INFO, "f.cpp", "fn", 1, nullptr));
    EXPECT_FALSE(testkit::fileExists(path));

    const int levels[] = {LOG_CRIT, LOG_ERRO, LOG_WARN, LOG_INFO, 9};
    const char* names[] = {"CRIT", "ERRO", "WARN", "INFO", "????"};
    for (int level : levels) {
        EXPECT_TRUE(log.WriteLine(level, "src/a.cpp", "run", 7, "said: 100%"));
    }
    // Keep writing until a millisecond below 100 has come up, which a zero-padded
    // time stamp would print with a leading zero.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
    bool smallMillisecond = false;
    while (!smallMillisecond && std::chrono::steady_clock::now() < deadline) {
        smallMillisecond = CDateTime().Millisecond() < 100;
        log.WriteLine(LOG_INFO, "src/a.cpp", "run", 7, "said: 100%");
        usleep(500);
    }
    EXPECT_TRUE(smallMillisecond);

    const std::vector<std::string> written = lines(path);
    ASSERT_GE(written.size(), 5u);
    for (size_t i = 0; i < written.size(); ++i) {
        Line parsed;
        ASSERT_TRUE(parse(written[i], &parsed)) << written[i];
        EXPECT_EQ(parsed.level, i < 5 ? names[i] : "INFO");
        EXPECT_EQ(parsed.body, "src/a.cpp 7 run said: 100%");
    }

    DiagLogFile nowhere(dir.file("missing/vrec.log"));
    EXPECT_FALSE(nowhere.WriteLine(LOG_INFO, "f.cpp", "fn", 1, "text"));
}

TEST(DiagLogFile, RotatesOnReachingTheLimitExactly) {
    EXPECT_EQ(DiagLogFile::kRotateBytes, 10L * 1024 * 1024);
    TempDir dir;
    const long limit = 4096;
    ASSERT_EQ(writeLineEndingAt(dir, limit, limit - 1), Landing::Kept);
    ASSERT_EQ(writeLineEndingAt(dir, limit, limit), Landing::Rotated);
    // The rotated content is gone from the log, which starts over with the next line.
    EXPECT_FALSE(testkit::fileExists(dir.file("vrec.log")));
}

TEST(DiagLogFile, BackupsNumberOnAndNothingIsDeleted) {
    TempDir dir;
    testkit::writeFile(dir.file("vrec_backup_0.log"), "zero");
    testkit::writeFile(dir.file("vrec_backup_1.log"), "one");
    testkit::writeFile(dir.file("vrec.log"), "from an earlier run\n");
    DiagLogFile log(dir.file("vrec.log"), 150);
    EXPECT_EQ(log.NextBackupName(), dir.file("vrec_backup_2.log"));

    // The first line of a run empties the old log. Two lines stay below the limit and
    // three pass it, whatever the width of their time stamps.
    for (int i = 0; i < 7; ++i) {
        ASSERT_TRUE(log.WriteLine(LOG_INFO, "f.cpp", "fn", i, "a line of about sixty characters"));
    }
    EXPECT_EQ(readFile(dir.file("vrec_backup_0.log")), "zero");
    EXPECT_EQ(readFile(dir.file("vrec_backup_1.log")), "one");
    const std::vector<std::vector<std::string>> files = {lines(dir.file("vrec_backup_2.log")),
                                                         lines(dir.file("vrec_backup_3.log")),
                                                         lines(dir.file("vrec.log"))};
    const std::vector<size_t> sizes = {3, 3, 1};
    int index = 0;
    for (size_t f = 0; f < files.size(); ++f) {
        ASSERT_EQ(files[f].size(), sizes[f]) << "file " << f;
        for (const std::string& line : files[f]) {
            EXPECT_NE(line.find("f.cpp " + std::to_string(index++) + " fn"), std::string::npos)
                << line;
        }
    }
}

TEST_F(DiagLogFront, CutsLongTextAndTracesEnterAndExit) {
    EXPECT_NE(DIAG_LOG(LOG_ERRO, "%s", std::string(2000, 'x').c_str()), 0);
    const int line = tracedFunction();

    const std::vector<std::string> written = lines(logPath());
    ASSERT_EQ(written.size(), 4u);
    Line parsed;
    ASSERT_TRUE(parse(written[0], &parsed));
    const std::string& text = parsed.body;
    EXPECT_EQ(text.substr(text.size() - 1023), " " + std::string(1022, 'x'));

    // Source paths stand relative to the project, not to the build machine.
    const std::string site = std::string(__FILE__) + " " + std::to_string(line) + " tracedFunction";
    EXPECT_NE(site[0], '/');
    const char* expected[][2] = {{"INFO", " enter"}, {"WARN", "inside 42"}, {"INFO", " exit"}};
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(parse(written[i + 1], &parsed)) << written[i + 1];
        EXPECT_EQ(parsed.level, expected[i][0]);
        if (i == 1) {
            EXPECT_EQ(parsed.body, std::string(__FILE__) + " " + std::to_string(line + 1) +
                                       " tracedFunction inside 42");
        } else {
            EXPECT_EQ(parsed.body, site + expected[i][1]);
        }
    }
}

TEST_F(DiagLogFront, RestartInTheSameProcessAppends) {
    DIAG_LOG(LOG_INFO, "before the stop");
    DiagLog::destroyDiagLog();
    DIAG_LOG(LOG_INFO, "after the restart");
    const std::string content = readFile(logPath());
    const size_t before = content.find("before the stop");
    ASSERT_NE(before, std::string::npos);
    EXPECT_NE(content.find("after the restart", before), std::string::npos);

    // A log that is not restarted within its process empties what an earlier run left.
    testkit::writeFile(dir.file("other.log"), "old\n");
    DiagLogFile fresh(dir.file("other.log"));
    fresh.WriteLine(LOG_INFO, "f.cpp", "fn", 1, "new");
    EXPECT_EQ(readFile(dir.file("other.log")).find("old"), std::string::npos);
}

TEST_F(DiagLogFront, LinesOfManyThreadsStayWhole) {
    const int threads = 8;
    const int perThread = 200;
    auto body = [](int t, int i) {
        return "src/worker" + std::to_string(t) + ".cpp " + std::to_string(100 + t) + " work" +
               std::to_string(t) + " line " + std::to_string(i) + " " + std::string(t * 40, '#');
    };
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([t] {
            const std::string file = "src/worker" + std::to_string(t) + ".cpp";
            const std::string function = "work" + std::to_string(t);
            for (int i = 0; i < perThread; ++i) {
                DiagLog::write(LOG_INFO, file.c_str(), function.c_str(), 100 + t, "line %d %s", i,
                               std::string(t * 40, '#').c_str());
            }
        });
    }
    for (std::thread& w : workers) {
        w.join();
    }

    const std::vector<std::string> written = lines(logPath());
    ASSERT_EQ(written.size(), static_cast<size_t>(threads * perThread));
    std::vector<int> next(threads, 0);
    for (const std::string& line : written) {
        Line parsed;
        int t = -1;
        ASSERT_TRUE(parse(line, &parsed)) << line;
        ASSERT_EQ(sscanf(parsed.body.c_str(), "src/worker%d", &t), 1) << line;
        ASSERT_TRUE(t >= 0 && t < threads) << line;
        EXPECT_EQ(parsed.body, body(t, next[t]++));
    }
}
