// The simulated module's AT interpreter, driven directly.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "atModule.h"
#include "atText.h"
#include "testkit.h"

using Rows = std::vector<std::pair<std::string, std::string>>;  // command, answer

TEST(AtModule, CommandsOfTheFamily) {
    vtools::AtModuleConfig config;
    config.maxCommandLength = 60;
    vtools::AtModule module(config);
    const std::string ok = "\r\nOK\r\n";
    const std::string error = "\r\nERROR\r\n";
    // Settings first, then refusals, which must leave the settings alone, then queries.
    for (const char* command : {"AT", "AT^MDON=4", "AT^MDSL=1", "AT^MDSF=1", "AT^MDSTORAGE=1",
                                "AT+XSYSTRACE=0,\"bb_sw=1\"", "at+trace=1", "ATE0"}) {
        EXPECT_EQ(testkit::hex(module.handle(command)), testkit::hex(ok)) << command;
    }
    const std::string tooLong = "AT^MDON?" + std::string(52, ' ') + "x";  // above AT^CMDLEN
    for (const std::string& command :
         {std::string("AT^MDON=5"), std::string("AT^MDON="), std::string("AT^MDSL=2"),
          std::string("AT^MDSTORAGE=2"), std::string("AT^NOPE"), std::string("hello"), tooLong}) {
        EXPECT_EQ(module.handle(command), error) << command;
    }
    const Rows queries = {{"AT^MDON?", "^MDON: 4"},
                          {"AT^MDSL?", "^MDSL: 1"},
                          {"AT^MDSF?", "^MDSF: 1"},
                          {"AT^MDSTORAGE?", "^MDSTORAGE: 102400"},
                          {"AT^CMDLEN?", "^CMDLEN: 60"}};
    for (const auto& [command, answer] : queries) {
        EXPECT_EQ(testkit::hex(module.handle(command)), testkit::hex("\r\n" + answer + "\r\n" + ok))
            << command;
    }
    EXPECT_FALSE(module.echo);
    EXPECT_EQ(module.takeTrace(), vtools::AtModule::Trace::kStart);
    EXPECT_EQ(module.takeTrace(), vtools::AtModule::Trace::kNone);
    module.handle("at+trace=0");
    EXPECT_EQ(module.takeTrace(), vtools::AtModule::Trace::kStop);
    module.errorCommands.push_back("^mdsl");
    EXPECT_EQ(module.handle("AT^MDSL?"), error);
    EXPECT_EQ(module.handle("AT^MDSF?"), "\r\n^MDSF: 1\r\n" + ok);
}

TEST(AtModule, UploadIsCheckedAndReassembled) {
    testkit::TempDir dir;
    vtools::AtModuleConfig config;
    config.uploadDir = dir.path();
    vtools::AtModule module(config);
    std::vector<std::string> notes;
    module.note = [&](const std::string& words) { notes.push_back(words); };
    const auto piece = [](const char* name, int count, int number, const std::string& data) {
        return "AT^RSFW=\"" + std::string(name) + "\",\"\",123," + std::to_string(count) + "," +
               std::to_string(number) + "," + data;
    };
    // "<a>hello</a>" in three pieces.
    const char* pieces[] = {"\"PGE+aA==\"", "\"ZWxs\"", "\"bzwvYT4=\""};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(module.handle(piece("logconfig.xml", 3, i + 1, pieces[i])), "\r\nOK\r\n");
        EXPECT_EQ(testkit::fileExists(dir.file("logconfig.xml")), i == 2);
    }
    EXPECT_EQ(testkit::readFile(dir.file("logconfig.xml")), "<a>hello</a>");
    EXPECT_EQ(notes.back(), "upload logconfig.xml 12 bytes in 3 pieces");

    // A second piece first, NUMBER above COUNT, COUNT 0, no Base64, an unquoted piece, five
    // fields.
    for (const std::string& refused :
         {piece("u.xml", 2, 2, "\"QUJD\""), piece("u.xml", 3, 4, "\"QUJD\""),
          piece("u.xml", 0, 0, "\"QUJD\""), piece("u.xml", 1, 1, "\"QUJ\""),
          piece("u.xml", 1, 1, "QUJD"), std::string("AT^RSFW=\"u.xml\",123,1,1,\"QUJD\"")}) {
        EXPECT_EQ(module.handle(refused), "\r\nERROR\r\n") << refused;
    }
    // A piece out of turn ends the upload; it must start again from 1.
    EXPECT_EQ(module.handle(piece("u.xml", 3, 1, "\"QUJD\"")), "\r\nOK\r\n");
    EXPECT_EQ(module.handle(piece("u.xml", 3, 3, "\"QUJD\"")), "\r\nERROR\r\n");
    EXPECT_EQ(module.handle(piece("u.xml", 3, 2, "\"QUJD\"")), "\r\nERROR\r\n");
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
    for (const char* position : {"16", "32", "37"}) {
        const std::string answer = module.handle("AT^RSFR=\"logsave_1\",\"0\"");
        const std::string head = "\r\n^RSFR: \"logsave_1\",\"0\",123,37,";
        ASSERT_EQ(answer.compare(0, head.size(), head), 0) << answer;
        const vtools::AtArgs args =
            vtools::splitAtArgs(answer.substr(9, answer.find("\r\n\r\nOK") - 9));
        ASSERT_EQ(args.values.size(), 6u);
        EXPECT_EQ(args.values[4], position);
        std::string piece;
        ASSERT_TRUE(vtools::base64DecodeStrict(args.values[5], &piece));
        joined += piece;
    }
    EXPECT_EQ(joined, content);
    // Finished: the next request starts the file over.
    EXPECT_NE(module.handle("AT^RSFR=\"logsave_1\",\"0\"").find(",37,16,\"MDEyMzQ1"),
              std::string::npos);
    // An empty file is one answer with total and position 0.
    EXPECT_EQ(module.handle("AT^RSFR=\"dump_1\",\"0\""),
              "\r\n^RSFR: \"dump_1\",\"0\",123,0,0,\"\"\r\n\r\nOK\r\n");
    EXPECT_EQ(module.handle("AT^RSFR=\"nothere\",\"0\""), "\r\nERROR\r\n");

    vtools::AtModuleConfig unquoted = config;
    unquoted.listUnquoted = true;
    EXPECT_EQ(vtools::AtModule(unquoted).handle("AT^RSFR=?"),
              "\r\n^RSFR: LogSave_1 dump_1\r\n\r\nOK\r\n");
}
