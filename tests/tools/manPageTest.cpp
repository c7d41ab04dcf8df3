// Every option a tool's --help names is in its manual page. The options are read from the
// texts themselves, so a tool that gains an option fails here until its page tells of it.
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>

#include "testkit.h"

namespace {

// Options as they stand in a text: "-x" or "--long-name" after a blank, a bracket, a bar or
// a comma, so that hyphenated words and negative numbers are not taken for options.
std::set<std::string> optionsIn(const std::string& text) {
    static const std::regex kOption(
        R"((?:^|[\s,\[(|])(--[A-Za-z][A-Za-z0-9-]*|-[A-Za-z])(?![A-Za-z0-9]))");
    std::set<std::string> found;
    for (std::sregex_iterator it(text.begin(), text.end(), kOption), end; it != end; ++it) {
        std::string name = (*it)[1].str();
        while (name.back() == '-') {
            name.pop_back();
        }
        found.insert(name);
    }
    return found;
}

// The words of a manual page with the roff escapes for a minus and for fonts taken out.
std::string plainRoff(std::string text) {
    static const std::regex kFont(R"(\\f[BIRP])");
    text = std::regex_replace(text, kFont, "");
    for (size_t at = 0; (at = text.find("\\-", at)) != std::string::npos;) {
        text.erase(at, 1);
    }
    return text;
}

TEST(ManPages, OptionsAreReadFromBothTexts) {
    EXPECT_EQ(
        optionsIn("  -p, --pcuiport  x\n  --host-buffer N[K|M]  the\n[--each] (-o x|--udp y)"),
        (std::set<std::string>{"-p", "--pcuiport", "--host-buffer", "--each", "-o", "--udp"}));
    EXPECT_TRUE(optionsIn("pseudo-terminals, nice -10, multi-SIM, a -- b").empty());
    EXPECT_EQ(optionsIn(plainRoff(".BR \\-q \", \" \\-\\-qualcomm\n.BI \\-\\-drop\\-when\\-full\n"
                                  "\\fB\\-o\\fR")),
              (std::set<std::string>{"-q", "--qualcomm", "--drop-when-full", "-o"}));
}

TEST(ManPages, EveryOptionOfEveryToolIsInItsPage) {
    const struct {
        const char* program;
        const char* page;
    } kTools[] = {{"vrecCmd/vrec", "vrec.1"},
                  {"tools/vrec-modemsim", "vrec-modemsim.1"},
                  {"tools/vrec-inspect", "vrec-inspect.1"},
                  {"tools/vrec-decode", "vrec-decode.1"},
                  {"tools/vrec-stallfs", "vrec-stallfs.1"}};
    int checked = 0;
    for (const auto& tool : kTools) {
        const std::string program = testkit::builtProgram(tool.program);
        if (!testkit::fileExists(program)) {
            // vrec-stallfs needs libfuse3 to be built.
            std::printf("%s is not built: its page is not compared\n", tool.program);
            continue;
        }
        testkit::TempDir dir;
        std::string help;
        ASSERT_EQ(testkit::runToEnd({program, "--help"}, dir.path(), &help), 0) << program;
        const std::set<std::string> told = optionsIn(help);
        EXPECT_FALSE(told.empty()) << program << " --help names no option:\n" << help;
        const std::string pagePath = std::string(VREC_SOURCE_DIR) + "/man/" + tool.page;
        ASSERT_TRUE(testkit::fileExists(pagePath)) << pagePath;
        const std::set<std::string> documented = optionsIn(plainRoff(testkit::readFile(pagePath)));
        for (const std::string& option : told) {
            EXPECT_EQ(documented.count(option), 1u)
                << option << " of " << tool.program << " --help is not in man/" << tool.page;
        }
        ++checked;
    }
    EXPECT_GE(checked, 4);
}

}  // namespace
