#include <gtest/gtest.h>

#include <list>
#include <string>
#include <vector>

#include "atMdonImpl.h"
#include "logConfigDocument.h"
#include "srvTestSupport.h"
#include "vrecSevice.h"

using Tokens = std::vector<std::string>;

TEST(MdonText, ListsFieldsAndSplitting) {
    const auto list = [](const std::string& answer) {
        const std::list<std::string> names = AtMdonImpl::parseFileList(answer);
        return Tokens(names.begin(), names.end());
    };
    EXPECT_EQ(list(" (\"logsave_1\",\"logsave_2\",\"dump_1\")"),
              (Tokens{"logsave_1", "logsave_2", "dump_1"}));
    EXPECT_EQ(list(" one two"), (Tokens{"one", "two"}));
    EXPECT_EQ(list("single"), (Tokens{"single"}));
    // A separator character among the last characters must not read past the end.
    EXPECT_EQ(list("\"a\",\",\""), (Tokens{"a"}));
    EXPECT_EQ(AtMdonImpl::splitText("a", "\",\""), (Tokens{"a"}));
    EXPECT_EQ(AtMdonImpl::splitText("a,\"", "\",\""), (Tokens{"a"}));

    const std::string answer = " \"n\",\"0\",123, 0x10 ,2,\"QUJD\"";
    EXPECT_EQ(AtMdonImpl::getResponseField(answer, 1), "n");
    EXPECT_EQ(AtMdonImpl::getResponseField(answer, 3), "123");
    EXPECT_EQ(AtMdonImpl::getResponseField(answer, 4), "0x10");
    EXPECT_EQ(AtMdonImpl::getResponseField(answer, 6), "QUJD");
    EXPECT_EQ(AtMdonImpl::getResponseField(answer, 7), "");
    EXPECT_EQ(AtMdonImpl::getResponseField(" 1024", 1), "1024");
    EXPECT_EQ(AtMdonImpl::getResponseField("a,,\"\"", 3), "");
}

TEST(MdonText, ConfigurationPieces) {
    const std::string& doc = builtInLogConfig();
    ASSERT_EQ(doc.size(), 2374u);
    EXPECT_EQ(doc.rfind("<?xml version=\"1.0\" ?> <Configuration> <Message type=\"Label\" id=\"0\" "
                        "name=\"Message\" range=\"0x0000,0x0054;",
                        0),
              0u);
    EXPECT_NE(doc.find("<LogOTA type=\"Label\" id=\"1\" name=\"Log(OTA)\" range=\"0x0000,0x0000;"),
              std::string::npos);
    EXPECT_NE(
        doc.find("<item type=\"Item\" id=\"0\" name=\"Known Events\" option=\"1\" /> </Event> "
                 "</Configuration>"),
        std::string::npos);
    EXPECT_EQ(doc.find_first_of("\r\n"), std::string::npos);
    EXPECT_EQ(doc.find("  "), std::string::npos);
    EXPECT_EQ(doc.find("><"), std::string::npos);

    EXPECT_EQ(AtMdonImpl::configPieceSize(1024), 723);
    EXPECT_LE(AtMdonImpl::configPieceSize(60), 0);
    std::vector<size_t> sizes;
    for (const std::string& piece : AtMdonImpl::cutPieces(doc, 723)) {
        sizes.push_back(piece.size());
    }
    EXPECT_EQ(sizes, (std::vector<size_t>{723, 723, 723, 205}));
    EXPECT_EQ(AtMdonImpl::cutPieces(std::string(10, 'x'), 10).size(), 1u);
    EXPECT_EQ(AtMdonImpl::cutPieces(std::string(11, 'x'), 10).size(), 2u);
    EXPECT_EQ(AtMdonImpl::cutPieces(std::string(20, 'x'), 10).size(), 2u);
}

TEST_F(SrvTest, FacadeForwardsOnlyInModuleMode) {
    vrecSevice* service = vrecSevice::getInstance();
    int value = 7;
    // A new object serves the Qualcomm mode: nothing reaches the module.
    EXPECT_EQ(service->getMode(), CAPTURE_QUALCOMM);
    EXPECT_TRUE(service->hasImplementation());
    EXPECT_FALSE(service->queryFuntion(value));
    EXPECT_FALSE(service->exportUEFiles(1));
    EXPECT_EQ(service->getRemainSize(), "");
    EXPECT_EQ(service->getTransferResult(), 0);
    EXPECT_EQ(value, 7);
    EXPECT_EQ(logCount("AT send"), 0);

    EXPECT_EQ(service->switchMode(CAPTURE_MDON), 0);
    EXPECT_EQ(service->getTransferResult(), -1);
    EXPECT_EQ(service->switchMode(3), 0);
    EXPECT_EQ(service->getMode(), 3);
    EXPECT_FALSE(service->hasImplementation());
    vrecSevice::destroy();
}
