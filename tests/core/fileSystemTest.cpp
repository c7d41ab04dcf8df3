#include <gtest/gtest.h>

#include <unistd.h>

#include <ctime>

#include "dateTime.h"
#include "fileSystem.h"
#include "testkit.h"

using testkit::TempDir;

TEST(CFile, LifecycleAndClosedObject) {
    TempDir dir;
    CFile file(dir.file("item.bin"));
    EXPECT_FALSE(file.Close());
    EXPECT_EQ(file.Write("abc", 3), 0u);
    EXPECT_EQ(file.Flush(), 0);
    EXPECT_FALSE(file.Exists());

    ASSERT_TRUE(file.Open("wb"));
    EXPECT_EQ(file.Write("abc\0def", 7), 7u);
    EXPECT_EQ(file.Flush(), 0);
    EXPECT_TRUE(file.Close());
    EXPECT_FALSE(file.Close());
    EXPECT_EQ(testkit::readFile(dir.file("item.bin")), std::string("abc\0def", 7));

    // Rename leaves the object's own path as it was.
    EXPECT_TRUE(file.Rename(dir.file("moved.bin")));
    EXPECT_FALSE(file.Exists());
    EXPECT_FALSE(file.Remove());
    file.SetPath(dir.file("moved.bin"));
    EXPECT_TRUE(file.Remove());
    EXPECT_FALSE(CFile::Exists(dir.file("moved.bin")));

    CFile orphan(dir.file("missing/item.bin"));
    EXPECT_FALSE(orphan.Open("wb"));
    EXPECT_FALSE(orphan.IsOpen());
}

TEST(CFile, FullMediumShowsInFlushAndClose) {
    CFile full("/dev/full");
    ASSERT_TRUE(full.Open("wb"));
    EXPECT_EQ(full.Write("data", 4), 4u);  // buffered
    EXPECT_NE(full.Flush(), 0);

    // A failed close still gives the stream up: the object must not use it again.
    ASSERT_TRUE(full.Open("wb"));
    EXPECT_EQ(full.Write("data", 4), 4u);
    EXPECT_FALSE(full.Close());
    EXPECT_FALSE(full.IsOpen());
    EXPECT_EQ(full.Write("data", 4), 0u);
    EXPECT_FALSE(full.Close());
}

TEST(CDirectory, PathsRelativeToWorkingDirectory) {
    TempDir dir;
    ASSERT_TRUE(CDirectory::Create(dir.file("present")));
    testkit::CurrentDir inside(dir.path());
    const std::string cwd = CDirectory::GetCurrentDir();
    ASSERT_FALSE(cwd.empty());

    EXPECT_EQ(CDirectory().GetPath(), cwd);
    EXPECT_EQ(CDirectory(".\\present").GetPath(), cwd + "/./present");
    EXPECT_EQ(CDirectory("").GetPath(), cwd + "/");
    EXPECT_EQ(CDirectory("/abs\\olute").GetPath(), "/abs\\olute");
    EXPECT_TRUE(CDirectory("./present").Exists());
    EXPECT_FALSE(CDirectory("./absent").Exists());

    EXPECT_TRUE(CDirectory::Exists(""));
    EXPECT_TRUE(CDirectory::Exists(".\\present"));
    EXPECT_TRUE(CDirectory::Exists("..\\" + dir.path().substr(dir.path().rfind('/') + 1)));
    EXPECT_TRUE(CDirectory::Exists(dir.path() + "\\present"));
    EXPECT_FALSE(CDirectory::Exists("./absent"));
    EXPECT_EQ(CDirectory::NormalisePath("a\\b\\\\c/d"), "a/b//c/d");
}

TEST(CDirectory, CreateAndLostWorkingDirectory) {
    TempDir dir;
    EXPECT_FALSE(CDirectory::Create(dir.file("no/parent")));
    EXPECT_TRUE(CDirectory::Create(dir.file("one")));
    EXPECT_FALSE(CDirectory::Create(dir.file("one")));
    EXPECT_TRUE(CDirectory::Create(dir.file("one/two")));
    EXPECT_TRUE(CDirectory::Exists(dir.file("one/two")));

    testkit::CurrentDir inside(dir.file("one/two"));
    ASSERT_EQ(rmdir(dir.file("one/two").c_str()), 0);
    EXPECT_EQ(CDirectory::GetCurrentDir(), "");
}

TEST(Clock, WallClockAndLocalSnapshot) {
    timespec before{};
    clock_gettime(CLOCK_REALTIME, &before);
    const uint64_t tick = GetTickMs();
    const CDateTime now;
    EXPECT_GE(tick, static_cast<uint64_t>(before.tv_sec) * 1000);
    EXPECT_LT(tick, static_cast<uint64_t>(before.tv_sec + 2) * 1000);

    tm local{};
    localtime_r(&before.tv_sec, &local);
    if (now.Second() == local.tm_sec) {
        EXPECT_EQ(now.Year(), local.tm_year + 1900);
        EXPECT_EQ(now.Month(), local.tm_mon + 1);
        EXPECT_EQ(now.Day(), local.tm_mday);
        EXPECT_EQ(now.Hour(), local.tm_hour);
        EXPECT_EQ(now.Minute(), local.tm_min);
    }
    EXPECT_TRUE(now.Millisecond() >= 0 && now.Millisecond() <= 999);
}
