// The simulated module's AT interpreter, driven directly.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "atModule.h"
#include "atText.h"
#include "testkit.h"

namespace {

struct Row {
    const char* command;
    const char* answer;
};

}  // namespace

TEST(AtModule, CommandsOfTheFamily) {
    vtools::AtModuleConfig config;
    config.maxCommandLength = 60;
    vtools::AtModule module(config);
    const std::vector<Row> rows = {
        {"AT", "\r\nOK\r\n"},
        {"AT^MDON?", "\r\n^MDON: 0\r\n\r\nOK\r\n"},
        {"AT^MDON=4", "\r\nOK\r\n"},
        {"AT^MDON?", "\r\n^MDON: 4\r\n\r\nOK\r\n"},
        {"AT^MDON=5", "\r\nERROR\r\n"},
        {"AT^MDON=", "\r\nERROR\r\n"},
        {"AT^MDSL=1", "\r\nOK\r\n"},
        {"AT^MDSL?", "\r\n^MDSL: 1\r\n\r\nOK\r\n"},
        {"AT^MDSL=2", "\r\nERROR\r\n"},
        {"AT^MDSF=1", "\r\nOK\r\n"},
        {"AT^MDSF?", "\r\n^MDSF: 1\r\n\r\nOK\r\n"},
        {"AT^MDSTORAGE=0", "\r\nOK\r\n"},
        {"AT^MDSTORAGE=1", "\r\nOK\r\n"},
        {"AT^MDSTORAGE=2", "\r\nERROR\r\n"},
        {"AT^MDSTORAGE?", "\r\n^MDSTORAGE: 102400\r\n\r\nOK\r\n"},
        {"AT^CMDLEN?", "\r\n^CMDLEN: 60\r\n\r\nOK\r\n"},
        {"AT+XSYSTRACE=0,\"bb_sw=1\"", "\r\nOK\r\n"},
        {"at+trace=1", "\r\nOK\r\n"},
        {"AT^NOPE", "\r\nERROR\r\n"},
        {"hello", "\r\nERROR\r\n"},
        {"AT^MDON?                                                    x", "\r\nERROR\r\n"},
        {"ATE0", "\r\nOK\r\n"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(testkit::hex(module.handle(row.command)), testkit::hex(row.answer))
            << row.command;
    }
    EXPECT_FALSE(module.echo);
    EXPECT_EQ(module.takeTrace(), vtools::AtModule::Trace::kStart);
    EXPECT_EQ(module.takeTrace(), vtools::AtModule::Trace::kNone);
    module.handle("at+trace=0");
    EXPECT_EQ(module.takeTrace(), vtools::AtModule::Trace::kStop);

    module.errorCommands.push_back("^mdsl");
    EXPECT_EQ(module.handle("AT^MDSL?"), "\r\nERROR\r\n");
    EXPECT_EQ(module.handle("AT^MDSF?"), "\r\n^MDSF: 1\r\n\r\nOK\r\n");
}

TEST(AtModule, UploadIsCheckedAndReassembled) {
    testkit::TempDir dir;
    vtools::AtModuleConfig config;
    config.uploadDir = dir.path();
    vtools::AtModule module(config);
    std::vector<std::string> notes;
    module.note = [&](const std::string& words) { notes.push_back(words); };

    // "<a>hello</a>" in three pieces: "<a>h" "ell" "o</a>".
    const char* pieces[] = {"PGE+aA==", "ZWxs", "bzwvYT4="};
    for (int i = 0; i < 3; ++i) {
        const std::string command = "AT^RSFW=\"logconfig.xml\",\"\",123,3," +
                                    std::to_string(i + 1) + ",\"" + pieces[i] + "\"";
        EXPECT_EQ(module.handle(command), "\r\nOK\r\n") << command;
        EXPECT_EQ(testkit::fileExists(dir.file("logconfig.xml")), i == 2);
    }
    EXPECT_EQ(testkit::readFile(dir.file("logconfig.xml")), "<a>hello</a>");
    EXPECT_EQ(notes.back(), "upload logconfig.xml 12 bytes in 3 pieces");

    const std::vector<Row> refused = {
        {"AT^RSFW=\"u.xml\",\"\",123,2,2,\"QUJD\"", "a second piece first"},
        {"AT^RSFW=\"u.xml\",\"\",123,3,4,\"QUJD\"", "NUMBER above COUNT"},
        {"AT^RSFW=\"u.xml\",\"\",123,0,0,\"QUJD\"", "COUNT 0"},
        {"AT^RSFW=\"u.xml\",\"\",123,1,1,\"QUJ\"", "no Base64"},
        {"AT^RSFW=\"u.xml\",\"\",123,1,1,QUJD", "unquoted piece"},
        {"AT^RSFW=\"u.xml\",123,1,1,\"QUJD\"", "five fields"},
    };
    for (const Row& row : refused) {
        EXPECT_EQ(module.handle(row.command), "\r\nERROR\r\n") << row.answer;
    }
    // A piece out of turn ends the upload; it must start again from 1.
    EXPECT_EQ(module.handle("AT^RSFW=\"u.xml\",\"\",123,3,1,\"QUJD\""), "\r\nOK\r\n");
    EXPECT_EQ(module.handle("AT^RSFW=\"u.xml\",\"\",123,3,3,\"QUJD\""), "\r\nERROR\r\n");
    EXPECT_EQ(module.handle("AT^RSFW=\"u.xml\",\"\",123,3,2,\"QUJD\""), "\r\nERROR\r\n");
    EXPECT_EQ(notes.back(), "refused ^RSFW piece 2/3, expected 1/3");
    EXPECT_FALSE(testkit::fileExists(dir.file("u.xml")));
}

TEST(AtModule, FilesAreListedAndServedInPieces) {
    testkit::TempDir dir;
    const std::string content = "0123456789abcdefghijklmnopqrstuvwxyz!";  // 37 bytes
    testkit::writeFile(dir.file("LogSave_1"), content);
    testkit::writeFile(dir.file("dump_1"), "");
    vtools::AtModuleConfig config;
    config.filesDir = dir.path();
    config.pieceSize = 16;
    vtools::AtModule module(config);

    EXPECT_EQ(module.handle("AT^RSFR=?"), "\r\n^RSFR: (\"LogSave_1\",\"dump_1\")\r\n\r\nOK\r\n");

    // The host repeats one command; the module keeps the position. Asked in lower case.
    std::string joined;
    std::vector<std::string> positions;
    for (int pass = 0; pass < 3; ++pass) {
        const std::string answer = module.handle("AT^RSFR=\"logsave_1\",\"0\"");
        const std::string head = "\r\n^RSFR: \"logsave_1\",\"0\",123,37,";
        ASSERT_EQ(answer.compare(0, head.size(), head), 0) << answer;
        const std::string fields = answer.substr(9, answer.find("\r\n\r\nOK") - 9);
        const vtools::AtArgs args = vtools::splitAtArgs(fields);
        ASSERT_EQ(args.values.size(), 6u);
        positions.push_back(args.values[4]);
        std::string piece;
        ASSERT_TRUE(vtools::base64DecodeStrict(args.values[5], &piece));
        joined += piece;
    }
    EXPECT_EQ(positions, (std::vector<std::string>{"16", "32", "37"}));
    EXPECT_EQ(joined, content);
    // Finished: the next request starts the file over.
    EXPECT_NE(module.handle("AT^RSFR=\"logsave_1\",\"0\"").find(",37,16,\"MDEyMzQ1"),
              std::string::npos);

    // An empty file is one answer with total and position 0.
    EXPECT_EQ(module.handle("AT^RSFR=\"dump_1\",\"0\""),
              "\r\n^RSFR: \"dump_1\",\"0\",123,0,0,\"\"\r\n\r\nOK\r\n");
    EXPECT_EQ(module.handle("AT^RSFR=\"nothere\",\"0\""), "\r\nERROR\r\n");

    // A transfer that stops midway, then starts over when asked again.
    module.stopTransferAfter = 1;
    EXPECT_NE(module.handle("AT^RSFR=\"dump_1\",\"1\"").find("OK"), std::string::npos);
    EXPECT_NE(module.handle("AT^RSFR=\"logsave_1\",\"1\"").find(",37,16,"), std::string::npos);
    EXPECT_EQ(module.handle("AT^RSFR=\"logsave_1\",\"1\""), "\r\nERROR\r\n");
    EXPECT_NE(module.handle("AT^RSFR=\"logsave_1\",\"1\"").find(",37,16,"), std::string::npos);

    vtools::AtModuleConfig unquoted = config;
    unquoted.listUnquoted = true;
    EXPECT_EQ(vtools::AtModule(unquoted).handle("AT^RSFR=?"),
              "\r\n^RSFR: LogSave_1 dump_1\r\n\r\nOK\r\n");
}
