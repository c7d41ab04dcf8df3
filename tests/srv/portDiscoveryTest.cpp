#include <gtest/gtest.h>

#include <map>
#include <string>

#include "portDiscovery.h"
#include "serialport.h"
#include "srvTestSupport.h"

namespace {

using PortDiscoveryTest = SrvTest;

// Device path -> interface type of every record one walk of `dir` gives.
std::map<std::string, int> walk(const std::string& dir) {
    PortRecordList list{};
    discovery::EnumAllPortsByDir(&list, dir);
    std::map<std::string, int> found;
    for (int i = 0; i < list.count; ++i) {
        found[list.records[i].name] = list.records[i].type;
    }
    return found;
}

TEST_F(PortDiscoveryTest, ProtocolRouteAndProductTableRoute) {
    const FakeSysfs sysfs;
    const UsbInterface interfaces[] = {
        // The protocol states the role.
        {"1-1:1.0", "02", "ttyUSB0"},
        {"1-1:1.1", "03", "ttyACM1"},  // ttyACM only counts on the table route
        {"1-1:1.2", "00", "ttyUSB2"},
        {"1-1:1.3", "1E", "ttyUSB3"},                // a protocol the table refuses
        {"1-1:1.4", "ff", "ttyUSB4", "F006", "02"},  // lower case is the number 255
        // An upper-case F: the product table decides by interface number.
        {"1-2:1.0", "FF", "ttyUSB5", "F006", "02"},
        {"1-2:1.1", "FF", "ttyUSB6", "F006", "01"},  // F006 has no interface 01
        {"1-2:1.2", "FF", "ttyACM7", "F006", "00"},
        {"1-2:1.3", "0F", "ttyUSB8", "F001", "00"},   // the F may stand second
        {"1-2:1.4", "FF", "ttyUSB9", "F004", "00"},   // no MODEM role: 00 is its DIAG
        {"1-2:1.5", "FF", "ttyUSB10", "ABCD", "00"},  // a product the table lacks
        {"1-2:1.6", "02", ""},                        // no tty under the interface
    };
    for (const UsbInterface& usb : interfaces) {
        sysfs.add(usb);
    }
    const std::map<std::string, int> expected = {{"/dev/ttyUSB0", IF_PCUI},
                                                 {"/dev/ttyUSB5", IF_DIAG},
                                                 {"/dev/ttyACM7", IF_PCUI},
                                                 {"/dev/ttyUSB8", IF_MODEM},
                                                 {"/dev/ttyUSB9", IF_DIAG}};
    EXPECT_EQ(expected, walk(sysfs.optionDir()));

    EXPECT_EQ(1, logCount("Enum port in Dir: " + sysfs.optionDir()));
    EXPECT_EQ(1, logCount("Get PID: 1-2:1.0"));
    EXPECT_EQ(2, logCount("Get VID: usb:v7C5ApF006d0318dc00dsc00dp00icFFiscFFipFFin02"));
    EXPECT_LE(1, logCount("Get bInterfaceProtocol: FF"));
    EXPECT_LE(1, logCount("Get bInterfaceNumber: 02"));
}

TEST_F(PortDiscoveryTest, WalkSkipsOtherVendorsAndEntriesThatAreNoInterfaces) {
    const FakeSysfs sysfs;
    // readdir gives no order, so supported and foreign interfaces are interleaved: a walk
    // that stopped at the first foreign one would lose some of ours whatever the order.
    for (int i = 0; i < 8; ++i) {
        UsbInterface usb{"2-1:1." + std::to_string(i), "02", "ttyUSB" + std::to_string(i)};
        usb.vendor = i % 2 == 0 ? (i % 4 == 0 ? "7C5A" : "03F0") : "12D1";
        sysfs.add(usb);
    }
    sysfs.add({"usb2", "02", "ttyUSB20"});  // a device, not an interface: no colon
    testkit::writeFile(sysfs.optionDir() + "/bind", "");
    const std::map<std::string, int> expected = {{"/dev/ttyUSB0", IF_PCUI},
                                                 {"/dev/ttyUSB2", IF_PCUI},
                                                 {"/dev/ttyUSB4", IF_PCUI},
                                                 {"/dev/ttyUSB6", IF_PCUI}};
    EXPECT_EQ(expected, walk(sysfs.optionDir()));
}

TEST_F(PortDiscoveryTest, DevicesDirectoryOnlyWhenTheDriverDirectoryGivesNothing) {
    {
        const FakeSysfs noDriverDir;
        noDriverDir.add(noDriverDir.devicesDir(), {"1-1:1.3", "03", "ttyUSB3"});
        EXPECT_EQ((std::map<std::string, int>{{"/dev/ttyUSB3", PORT_TYPE_DIAG}}),
                  enumeratedPorts());
    }
    {
        const FakeSysfs onlyForeign;
        UsbInterface foreign{"1-1:1.0", "02", "ttyUSB0"};
        foreign.vendor = "12D1";
        onlyForeign.add(foreign);
        onlyForeign.add(onlyForeign.devicesDir(), {"1-1:1.3", "03", "ttyUSB3"});
        EXPECT_EQ((std::map<std::string, int>{{"/dev/ttyUSB3", PORT_TYPE_DIAG}}),
                  enumeratedPorts());
    }
    {
        const FakeSysfs both;
        both.add({"1-1:1.2", "02", "ttyUSB2"});
        both.add(both.devicesDir(), {"1-1:1.3", "03", "ttyUSB3"});
        EXPECT_EQ((std::map<std::string, int>{{"/dev/ttyUSB2", PORT_TYPE_PCUI}}),
                  enumeratedPorts());
    }
}

TEST_F(PortDiscoveryTest, WalkStopsAtSixteenRecords) {
    const FakeSysfs sysfs;
    for (int i = 0; i < 20; ++i) {
        sysfs.add({"1-1:1." + std::to_string(i), "02", "ttyUSB" + std::to_string(i)});
    }
    PortRecordList list{};
    discovery::EnumAllPortsByDir(&list, sysfs.optionDir());
    EXPECT_EQ(kMaxPortRecords, list.count);
    EXPECT_EQ(16u, walk(sysfs.optionDir()).size());  // sixteen different ports
    EXPECT_EQ(16u, enumeratedPorts().size());
}

TEST_F(PortDiscoveryTest, InterfaceTypesBecomePortTypes) {
    const FakeSysfs sysfs;
    const std::pair<const char*, int> rows[] = {
        {"01", PORT_TYPE_MODEM}, {"02", PORT_TYPE_PCUI}, {"03", PORT_TYPE_DIAG},
        {"32", PORT_TYPE_PCUI},  {"62", PORT_TYPE_PCUI}, {"04", PORT_TYPE_PCUI_AND_DIAG}};
    std::map<std::string, int> expected;
    for (const auto& row : rows) {
        const std::string tty = std::string("ttyUSB") + row.first;
        sysfs.add({"1-1:1." + std::string(row.first), row.first, tty});
        expected["/dev/" + tty] = row.second;
    }
    EXPECT_EQ(expected, enumeratedPorts());

    const FakeSysfs empty;
    auto info = std::make_unique<DevicePortInfo>();
    EXPECT_EQ(OS_ADAPT_SUCCESS, OS_ADAPT_EnumPorts(0, info.get()));
    EXPECT_EQ(0, info->deviceCount);
}

TEST_F(PortDiscoveryTest, ProtocolTableFollowsItsRanges) {
    const std::pair<unsigned, int> rows[] = {
        {0x00, 0},  {0x01, 1},  {0x03, 3},  {0x1D, 29}, {0x1E, 0}, {0x30, 0},  {0x31, 1},
        {0x3F, 15}, {0x40, 0},  {0x45, 0},  {0x46, 22}, {0x47, 0}, {0x48, 24}, {0x4D, 29},
        {0x4E, 0},  {0x60, 0},  {0x61, 1},  {0x6F, 15}, {0x70, 0}, {0x75, 0},  {0x76, 22},
        {0x77, 0},  {0x78, 24}, {0x7D, 29}, {0x7E, 0},  {0x7F, 0}, {0x80, 0},  {0xFF, 0}};
    for (const auto& row : rows) {
        EXPECT_EQ(row.second, discovery::protocolToInterfaceType(row.first))
            << "protocol 0x" << std::hex << row.first;
    }
    int accepted = 0;
    for (unsigned p = 0; p < 128; ++p) {
        accepted += discovery::protocolToInterfaceType(p) != 0 ? 1 : 0;
    }
    EXPECT_EQ(29 + 2 * (15 + 1 + 6), accepted);
}

TEST_F(PortDiscoveryTest, DeviceNameKeptToFortySixCharacters) {
    const std::string entry = "ttyUSB" + std::string(60, '7');
    makeDirs(work.file("1-1:1.0/" + entry));
    char name[256];
    ASSERT_TRUE(discovery::FindTtyName(work.file("1-1:1.0"), name, sizeof(name), false));
    EXPECT_EQ(("/dev/" + entry).substr(0, 46), name);
}

}  // namespace
