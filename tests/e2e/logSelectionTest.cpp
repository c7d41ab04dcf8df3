// Choosing what the module logs: the start set on the wire, what a capture then holds, the
// values refused before anything reaches the module, and the set again after a regain. The
// expected requests are written out here from the DIAG layouts, not made by vrec's code.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "diagPacket.h"
#include "e2eKit.h"
#include "hdlc.h"
#include "testkit.h"

namespace {

const bool kFollowsBackgroundRuns = testkit::skipAllWithoutSubreaper();

using namespace e2e;
using testkit::waitFor;

using testkit::le32;
const auto packet = testkit::bytes;

const std::string kDisableAll = packet({0x73, 0, 0, 0, 0, 0, 0, 0});
const std::string kRanges = packet({0x73, 0, 0, 0, 1, 0, 0, 0});

// Log mask set for one equipment: `items` items, with the given mask bytes set.
std::string maskSet(uint32_t equipment, uint32_t items, const std::map<size_t, int>& set) {
    std::string mask((items + 7) / 8, '\0');
    for (const auto& byte : set) {
        mask[byte.first] = static_cast<char>(byte.second);
    }
    return packet({0x73, 0, 0, 0, 3, 0, 0, 0}) + le32(equipment) + le32(items) + mask;
}
std::string messages(uint32_t bits) {
    return packet({0x7D, 5, 0, 0}) + le32(bits);
}
std::string events(bool on) {
    return packet({0x60, on ? 1 : 0});
}

// The module's ranges, with equipment 11 (LTE/NR) ending after item 0x1C1.
const Args kSmallLteRanges = {"--log-ranges", "0,2042,0,0,2328,1064,0,2910,0,0,914,450,0,519,0,0"};

// The set each choice makes, frame by frame and 10 ms apart, with what vrec says about it;
// then the stop file's frame, unchanged.
TEST(LogSelection, StartSetOnTheWire) {
    testkit::isolateNetwork();
    const struct {
        Args simArgs;
        Args vrecArgs;
        Args requests;
        Args lines;
    } kCases[] = {
        // lte-rrc: B0C0-B0C2, items 0xC0-0xC2; nr-rrc: B821-B823, B825, B826 in byte 0x104.
        {{},
         {"--logs", "lte-rrc,nr-rrc"},
         {kDisableAll, kRanges, maskSet(11, 2464, {{0x18, 0x07}, {0x104, 0x6E}}), messages(0),
          events(false)},
         {"WARNING: startcmd.txt is not sent: what the module logs comes from --logs.\n",
          "INFO: the module logs lte-rrc,nr-rrc (8 log codes), messages off, events off.\n"}},
        {{},
         {"--logs", "0xB0C0-0xB0C2", "--msgs", "error", "--events", "on"},
         {kDisableAll, kRanges, maskSet(11, 2464, {{0x18, 0x07}}), messages(0x18), events(true)},
         {"INFO: the module logs 0xB0C0-0xB0C2 (3 log codes), messages error, events on.\n"}},
        // Messages alone: no log mask is set.
        {{},
         {"--msgs", "low"},
         {kDisableAll, kRanges, messages(0x1F), events(false)},
         {"INFO: the module logs no log codes, messages low, events off.\n"}},
        // A code beyond the module's range is not asked for.
        {kSmallLteRanges,
         {"--logs", "lte-rrc,0xB200,ip"},
         {kDisableAll, kRanges, maskSet(1, 2042, {{0x3D, 0x08}}), maskSet(11, 450, {{0x18, 0x07}}),
          messages(0), events(false)},
         {"WARNING: log codes beyond what the module declares are not asked for: 0xB200.\n",
          "INFO: the module logs lte-rrc,0xB200,ip (4 log codes), messages off, events off.\n"}},
        // Without the ranges each mask ends at the highest item wanted, and the module
        // refuses the one that goes beyond its own.
        {withHead({"--no-ranges-answer"}, kSmallLteRanges),
         {"--logs", "lte-rrc,0xB200"},
         {kDisableAll, kRanges, maskSet(11, 0x201, {{0x18, 0x07}, {0x40, 0x01}}), messages(0),
          events(false)},
         {"WARNING: the module did not tell its log ranges within 2 s; each log mask ends at the "
          "highest item wanted.\n",
          "WARNING: the module refused the log mask of equipment 11 (LTE/NR): status 2.\n"}},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(testing::PrintToString(c.vrecArgs) + testing::PrintToString(c.simArgs));
        Sim sim(c.simArgs);
        Vrec vrec(sim.path(), withHead({"-d", "./diag"}, c.vrecArgs));
        ASSERT_TRUE(vrec.up) << vrec.run.output();
        const Args expected = arrivals(c.requests);
        EXPECT_TRUE(waitFor([&] { return sim.arrived("diag").size() >= expected.size(); }, 8000));
        std::vector<long> times;
        EXPECT_EQ(expected, sim.arrived("diag", &times));
        expectPaced(times);
        EXPECT_EQ(1, vrec.stop());
        EXPECT_EQ(withHead(expected, {kFileArrivals.back()}), sim.arrived("diag"));
        const std::string out = vrec.run.output();
        for (const std::string& line : c.lines) {
            EXPECT_NE(std::string::npos, out.find(line)) << line << "\n" << out;
        }
    }
}

// A phone's stream, replayed by a module that streams only what its masks enable: the
// capture holds exactly the phone's packets of the chosen codes, in order, and the answers.
TEST(LogSelection, ReplayedPhoneStreamKeepsOnlyTheChosenCodes) {
    testkit::isolateNetwork();
    const std::string replay = std::string(VREC_SOURCE_DIR) + "/examples/real-diag-lte-gsm.bin";
    const std::set<unsigned> kChosen = {0xB0C0, 0xB0C1, 0xB0C2, 0xB821,
                                        0xB822, 0xB823, 0xB825, 0xB826};
    const auto packets = [](const std::string& stream) {
        std::vector<std::string> all;
        vtools::Deframer deframer;
        deframer.feed(stream.data(), stream.size());
        vtools::DeframeStep step;
        while (deframer.next(step)) {
            if (step.kind == vtools::DeframeStep::kFrame && step.fcsOk) {
                all.push_back(step.packet);
            }
        }
        return all;
    };
    std::vector<std::string> wanted;
    size_t otherLogs = 0;
    for (const std::string& p : packets(testkit::readFile(replay))) {
        unsigned code = 0;
        if (vtools::logCode(p, &code)) {
            kChosen.count(code) != 0 ? wanted.push_back(p) : static_cast<void>(++otherLogs);
        }
    }
    ASSERT_GT(wanted.size(), 100u);
    ASSERT_GT(otherLogs, 100u);

    Sim sim({"--replay", replay});
    Vrec vrec(sim.path(), {"-d", "./diag", "--logs", "lte-rrc,nr-rrc"});
    ASSERT_TRUE(vrec.up) << vrec.run.output();
    EXPECT_TRUE(waitFor(
        [&] { return sim.record().find("stream stop replay end") != std::string::npos; }, 15000));
    EXPECT_TRUE(sim.settled("diag").valid);
    EXPECT_EQ(1, vrec.stop());

    std::vector<std::string> logs;
    size_t rangesAnswers = 0;
    size_t setAnswers = 0;
    for (const std::string& p : packets(testkit::readFile(sim.file("real_log.bin")))) {
        unsigned code = 0;
        if (vtools::logCode(p, &code)) {
            logs.push_back(p);
        } else {
            EXPECT_NE(vtools::PacketKind::kMessage, vtools::classify(p));
            rangesAnswers += p.compare(0, 12, kRanges + le32(0)) == 0 ? 1 : 0;
            setAnswers +=
                p.compare(0, 20,
                          maskSet(11, 2464, {}).substr(0, 8) + le32(0) + le32(11) + le32(2464)) == 0
                    ? 1
                    : 0;
        }
    }
    EXPECT_TRUE(logs == wanted) << logs.size() << " log packets stored, " << wanted.size()
                                << " of the chosen codes sent by the phone";
    EXPECT_EQ(1u, rangesAnswers);
    EXPECT_EQ(1u, setAnswers);
}

// A mask file's frames go out as they stand, one by one, 10 ms apart.
TEST(LogSelection, MaskFileFramesAreTheStartSet) {
    testkit::isolateNetwork();
    Sim sim({});
    const Args requests = {kDisableAll, maskSet(11, 2464, {{0x18, 0x01}}), messages(0x1F),
                           events(true)};
    std::string file = "\x7E";  // an opening flag, as some files have
    for (const std::string& request : requests) {
        file += vtools::frame(request);
    }
    testkit::writeFile(sim.file("masks.cfg"), file);
    Vrec vrec(sim.path(), {"-d", "./diag", "--mask-file", "masks.cfg"});
    ASSERT_TRUE(vrec.up) << vrec.run.output();
    EXPECT_TRUE(waitFor([&] { return sim.arrived("diag").size() >= requests.size(); }, 5000));
    std::vector<long> times;
    EXPECT_EQ(arrivals(requests), sim.arrived("diag", &times));
    expectPaced(times);
    EXPECT_EQ(1, vrec.stop());
    EXPECT_NE(std::string::npos,
              vrec.run.output().find(
                  "INFO: the module logs what the 4 requests of the mask file ask for.\n"))
        << vrec.run.output();
}

// Each value out of its rules ends the run with status 1 and an ERROR line that names the
// option, and not one byte reaches the module. Which lists and mask files are bad is the
// parser's own test; here one of each kind stands for the rest.
TEST(LogSelection, BadValuesAreRefusedBeforeAnyByte) {
    testkit::isolateNetwork();
    Sim sim({});
    testkit::writeFile(sim.file("good.cfg"), vtools::frame(kDisableAll));
    const struct {
        Args args;
        std::string says;
    } kCases[] = {
        {{"--logs", "lte-foo"}, "ERROR: invalid value \"lte-foo\" for --logs: give layer names"},
        {{"--msgs", "loud"},
         "ERROR: invalid value \"loud\" for --msgs: give off, fatal, error, high, medium or low."},
        {{"--events", "yes"}, "ERROR: invalid value \"yes\" for --events: give on or off."},
        {{"--mask-file", "missing.cfg"},
         "ERROR: --mask-file \"missing.cfg\" cannot be used: No such file or directory"},
        {{"--mask-file", "good.cfg", "--logs", "lte-rrc"},
         "ERROR: --mask-file excludes --logs, --msgs and --events"},
        {{"--events", "on", "-i"}, "ERROR: -i (IMC) cannot take --events"},
        {{"-i", "--logs", "lte-rrc"}, "ERROR: -i (IMC) cannot take --logs"},
        {{"--msgs", "high", "-m", "1"}, "ERROR: -m (logging inside the module) cannot take --msgs"},
        {{"-f", "logsave", "--logs", "ip"},
         "ERROR: -f (export of the module's files) cannot take --logs"},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        std::string out;
        EXPECT_EQ(1,
                  testkit::runToEnd(withHead({kVrec, "-d", "./diag"}, c.args), sim.path(), &out));
        EXPECT_NE(std::string::npos, out.find(c.says)) << out;
        EXPECT_TRUE(testkit::endsWith(out, "\nUse vrec -h to see the options.\n")) << out;
    }
    EXPECT_TRUE(sim.arrived("diag").empty());
    EXPECT_FALSE(testkit::fileExists(sim.file("real_log.bin")));
}

// The module forgets its masks when it drops off the bus; the set goes out again.
TEST(LogSelection, RegainResendsTheSelection) {
    testkit::isolateNetwork();
    Sim sim({"--rate", "1000", "--log-codes", "0xB0C0-0xB0C2,0x1F5A"});
    Vrec vrec(sim.path(), {"-d", "./diag", "--logs", "0xB0C1", "--events", "on"});
    ASSERT_TRUE(vrec.up) << vrec.run.output();
    const Args set = arrivals(
        {kDisableAll, kRanges, maskSet(11, 2464, {{0x18, 0x02}}), messages(0), events(true)});
    const auto arrived = [&] { return sim.arrived("diag").size(); };
    ASSERT_TRUE(waitFor([&] { return arrived() == set.size(); }, 5000));
    sim.control("hangup=diag:300");
    EXPECT_TRUE(waitFor([&] { return arrived() == 2 * set.size(); }, 8000));
    EXPECT_TRUE(waitFor([&] { return fileSize(sim.file("real_log.bin")) > 20000; }, 8000));
    EXPECT_EQ(1, vrec.stop());
    EXPECT_EQ(withHead(withHead(set, set), {kFileArrivals.back()}), sim.arrived("diag"));
    // The made-up stream drew only the enabled code.
    std::set<unsigned> codes;
    const std::string log = testkit::readFile(sim.file("real_log.bin"));
    vtools::Deframer deframer;
    deframer.feed(log.data(), log.size());
    vtools::DeframeStep step;
    while (deframer.next(step)) {
        unsigned code = 0;
        if (step.kind == vtools::DeframeStep::kFrame && vtools::logCode(step.packet, &code)) {
            codes.insert(code);
        }
    }
    EXPECT_EQ(std::set<unsigned>{0xB0C1}, codes);
}

}  // namespace
