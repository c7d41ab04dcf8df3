#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>

#include "portDiscovery.h"
#include "srvTestSupport.h"

namespace {

using PortDiscoveryTest = SrvTest;
using Ports = std::map<std::string, int>;

// Device path -> interface type of every record one walk of `dir` gives.
Ports walk(const std::string& dir) {
    PortRecordList list{};
    discovery::EnumAllPortsByDir(&list, dir);
    Ports found;
    for (int i = 0; i < list.count; ++i) {
        found[list.records[i].name] = list.records[i].type;
    }
    return found;
}

TEST_F(PortDiscoveryTest, ProtocolRouteTableRouteAndVendors) {
    const FakeSysfs sysfs;
    const std::string longTty = "ttyUSB" + std::string(60, '7');
    const UsbInterface interfaces[] = {
        // The protocol states the role.
        {"1-1:1.0", "02", "ttyUSB0"},
        {"1-1:1.1", "03", "ttyACM1"},  // ttyACM only counts on the table route
        {"1-1:1.2", "00", "ttyUSB2"},
        {"1-1:1.3", "1E", "ttyUSB3"},                // a protocol the table refuses
        {"1-1:1.4", "ff", "ttyUSB4", "F006", "02"},  // lower case is the number 255
        {"1-1:1.6", "02", ""},                       // no tty under the interface
        {"1-1:1.7", "03", longTty},                  // device paths keep 46 characters
        // An upper-case F: the product table decides by interface number.
        {"1-2:1.0", "FF", "ttyUSB5", "F006", "02"},
        {"1-2:1.1", "FF", "ttyUSB6", "F006", "01"},  // F006 has no interface 01
        {"1-2:1.2", "FF", "ttyACM7", "F006", "00"},
        {"1-2:1.3", "0F", "ttyUSB8", "F001", "00"},   // the F may stand second
        {"1-2:1.4", "FF", "ttyUSB9", "F004", "00"},   // no MODEM role: 00 is its DIAG
        {"1-2:1.5", "FF", "ttyUSB10", "ABCD", "00"},  // a product the table lacks
        // Other vendors are skipped, whatever their place in the walk; 03F0 is ours too.
        {"2-1:1.0", "02", "ttyUSB20", "1001", "00", "12D1"},
        {"2-1:1.1", "02", "ttyUSB21"},
        {"2-1:1.2", "02", "ttyUSB22", "1001", "00", "03F0"},
        {"2-1:1.3", "02", "ttyUSB23"},
        {"usb2", "02", "ttyUSB24"},  // a device, not an interface: no colon
    };
    for (const UsbInterface& usb : interfaces) {
        sysfs.add(usb);
    }
    testkit::writeFile(sysfs.optionDir() + "/bind", "");
    const Ports expected = {{"/dev/ttyUSB0", IF_PCUI},
                            {"/dev/ttyUSB5", IF_DIAG},
                            {"/dev/ttyACM7", IF_PCUI},
                            {"/dev/ttyUSB8", IF_MODEM},
                            {"/dev/ttyUSB9", IF_DIAG},
                            {"/dev/ttyUSB21", IF_PCUI},
                            {"/dev/ttyUSB22", IF_PCUI},
                            {"/dev/ttyUSB23", IF_PCUI},
                            {("/dev/" + longTty).substr(0, 46), IF_DIAG}};
    EXPECT_EQ(expected, walk(sysfs.optionDir()));
}

TEST_F(PortDiscoveryTest, DevicesDirectoryOnlyWhenTheDriverDirectoryGivesNothing) {
    for (const char* driverDir : {"absent", "foreign", "ours"}) {
        SCOPED_TRACE(driverDir);
        const FakeSysfs sysfs;
        if (driverDir != std::string("absent")) {
            sysfs.add({"1-1:1.2", "02", "ttyUSB2", "1001", "00",
                       driverDir == std::string("ours") ? "7C5A" : "12D1"});
        }
        sysfs.add(sysfs.devicesDir(), {"1-1:1.3", "03", "ttyUSB3"});
        const Ports expected = driverDir == std::string("ours")
                                   ? Ports{{"/dev/ttyUSB2", PORT_TYPE_PCUI}}
                                   : Ports{{"/dev/ttyUSB3", PORT_TYPE_DIAG}};
        EXPECT_EQ(expected, enumeratedPorts());
    }
}

TEST_F(PortDiscoveryTest, PortTypesAndTheSixteenRecordLimit) {
    const FakeSysfs sysfs;
    const std::pair<const char*, int> rows[] = {
        {"01", PORT_TYPE_MODEM}, {"02", PORT_TYPE_PCUI}, {"03", PORT_TYPE_DIAG},
        {"32", PORT_TYPE_PCUI},  {"62", PORT_TYPE_PCUI}, {"04", PORT_TYPE_PCUI_AND_DIAG}};
    Ports expected;
    for (const auto& [protocol, type] : rows) {
        sysfs.add({"1-1:1." + std::string(protocol), protocol, "ttyUSB" + std::string(protocol)});
        expected["/dev/ttyUSB" + std::string(protocol)] = type;
    }
    EXPECT_EQ(expected, enumeratedPorts());

    for (int i = 0; i < 14; ++i) {
        sysfs.add({"1-2:1." + std::to_string(i), "02", "ttyUSB" + std::to_string(100 + i)});
    }
    EXPECT_EQ(static_cast<size_t>(kMaxPortRecords), walk(sysfs.optionDir()).size());
    EXPECT_EQ(16u, enumeratedPorts().size());
}

// PCIe ports stand in for the roles that USB interfaces leave empty: WWAN ports by type and
// name order, else the MHI nodes that exist; each find named in the log.
TEST_F(PortDiscoveryTest, PciePortsFillTheRolesTheUsbWalkLeftEmpty) {
    const FakeSysfs sysfs;
    EXPECT_EQ(Ports{}, enumeratedPorts());
    std::filesystem::create_directories(sysfs.at("/dev"));
    testkit::writeFile(sysfs.at("/dev/mhi_DUN"), "");
    EXPECT_EQ((Ports{{"/dev/mhi_DUN", PORT_TYPE_PCUI}}), enumeratedPorts());
    testkit::writeFile(sysfs.at("/dev/mhi_DIAG"), "");
    EXPECT_EQ((Ports{{"/dev/mhi_DIAG", PORT_TYPE_DIAG}, {"/dev/mhi_DUN", PORT_TYPE_PCUI}}),
              enumeratedPorts());

    const std::pair<const char*, const char*> wwan[] = {{"wwan0", ""},
                                                        {"wwan0mbim0", "MBIM"},
                                                        {"wwan0at1", "AT"},
                                                        {"wwan0at0", "AT"},
                                                        {"wwan0qcdm0", "QCDM"},
                                                        {"wwan1qcdm0", "QCDM"},
                                                        {"wwan0firehose0", "FIREHOSE"}};
    for (const auto& [port, type] : wwan) {
        const std::string dir = sysfs.at("/sys/class/wwan/") + port;
        std::filesystem::create_directories(dir);
        if (*type != '\0') {
            testkit::writeFile(dir + "/type", std::string(type) + "\n");
        }
    }
    EXPECT_EQ((Ports{{"/dev/wwan0qcdm0", PORT_TYPE_DIAG}, {"/dev/wwan0at0", PORT_TYPE_PCUI}}),
              enumeratedPorts());
    EXPECT_EQ(1, logCount("WWAN port wwan0at1 of type AT, node /dev/wwan0at1"));
    EXPECT_EQ(1, logCount("PCUI port of a PCIe module: /dev/wwan0at0 (PCIe, WWAN)"));

    // A USB module's Diag port keeps its role; the PCUI role still comes from PCIe.
    sysfs.add({"1-1:1.3", "03", "ttyUSB3"});
    EXPECT_EQ((Ports{{"/dev/ttyUSB3", PORT_TYPE_DIAG}, {"/dev/wwan0at0", PORT_TYPE_PCUI}}),
              enumeratedPorts());
    sysfs.add({"1-1:1.2", "02", "ttyUSB2"});
    EXPECT_EQ((Ports{{"/dev/ttyUSB3", PORT_TYPE_DIAG}, {"/dev/ttyUSB2", PORT_TYPE_PCUI}}),
              enumeratedPorts());
    EXPECT_EQ(2, logCount("Diag port of a PCIe module"));
}

}  // namespace
