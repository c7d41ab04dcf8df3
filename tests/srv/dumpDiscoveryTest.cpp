// Where a crashed module shows itself, on fake sysfs trees: dump and download ports of the
// serial drivers, an interface no driver holds, PCIe Sahara nodes; and the new_id write.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "dumpDiscovery.h"
#include "srvTestSupport.h"

namespace {

using DumpDiscoveryTest = SrvTest;
using Kind = DumpPortCandidate::Kind;

std::string describe(const DumpPortCandidate& candidate, const std::string& root) {
    const char* kinds[] = {"dump", "download", "unbound"};
    std::string path = candidate.path;
    if (path.compare(0, root.size(), root) == 0) {
        path.erase(0, root.size());
    }
    return std::string(kinds[static_cast<int>(candidate.kind)]) + " " + path + " " +
           candidate.product + " " + candidate.interface;
}

TEST_F(DumpDiscoveryTest, FindsDumpDownloadUnboundAndPcieSaharaPorts) {
    const FakeSysfs sysfs;
    const std::string root = work.path();
    // FakeSysfs has its own root; this test's tree lies under the case's directory.
    OS_ADAPT_SetSysfsRoot(root);
    const std::string option = root + "/sys/bus/usb/drivers/option";
    const std::string qcserial = root + "/sys/bus/usb/drivers/qcserial";
    const std::string devices = root + "/sys/bus/usb/devices";
    sysfs.add(option, {"1-1:1.0", "FF", "ttyUSB3", "900E", "00", "05C6"});
    sysfs.add(option, {"1-2:1.0", "FF", "ttyUSB4", "9091", "00", "05C6"});  // a normal product
    sysfs.add(option, {"1-3:1.0", "FF", "ttyUSB5", "900E", "00", "7C5A"});  // another vendor
    sysfs.add(qcserial, {"2-1:1.0", "FF", "ttyUSB6", "9008", "00", "05C6"});
    sysfs.add(qcserial, {"2-2:1.0", "FF", "", "90DB", "00", "05C6"});  // no tty yet
    // The bound interface shows under devices too: found once.
    sysfs.add(devices, {"1-1:1.0", "FF", "ttyUSB3", "900E", "00", "05C6"});
    sysfs.add(devices, {"3-1:1.0", "FF", "", "90db", "00", "05c6"});  // no driver holds it
    sysfs.add(devices, {"3-2:1.0", "FF", "", "900E", "00", "05C6"});
    std::filesystem::create_directories(devices + "/3-2:1.0/driver");  // held, no tty
    std::filesystem::create_directories(root + "/dev");
    testkit::writeFile(root + "/dev/mhi_SAHARA", "");
    for (const auto& [port, type] :
         {std::make_pair("wwan0qcdm0", "QCDM\n"), std::make_pair("wwan0sahara0", "SAHARA\n")}) {
        std::filesystem::create_directories(root + "/sys/class/wwan/" + port);
        testkit::writeFile(root + "/sys/class/wwan/" + port + "/type", type);
    }

    std::vector<std::string> found;
    for (const DumpPortCandidate& candidate : OS_ADAPT_FindDumpPorts()) {
        found.push_back(describe(candidate, root));
    }
    EXPECT_EQ((std::vector<std::string>{
                  "dump /dev/ttyUSB3 900e 1-1:1.0", "download /dev/ttyUSB6 9008 2-1:1.0",
                  "unbound  90db 3-1:1.0", "dump /dev/mhi_SAHARA  ", "dump /dev/wwan0sahara0  "}),
              found);

    // Binding: the vendor and product go to option1's new_id, which only a kernel (or a
    // fake tree) has.
    std::string error;
    EXPECT_FALSE(OS_ADAPT_BindDumpInterface("90db", &error));
    EXPECT_FALSE(error.empty());
    const std::string newId = root + "/sys/bus/usb-serial/drivers/option1/new_id";
    std::filesystem::create_directories(root + "/sys/bus/usb-serial/drivers/option1");
    testkit::writeFile(newId, "");
    ASSERT_TRUE(OS_ADAPT_BindDumpInterface("90db", &error)) << error;
    EXPECT_EQ("05c6 90db\n", testkit::readFile(newId));
    EXPECT_EQ(newId, OS_ADAPT_NewIdPath());

    std::string vendor;
    std::string product;
    EXPECT_TRUE(dumpdiscovery::parseModalias("usb:v05C6p900Ed0000", &vendor, &product));
    EXPECT_EQ("05c6", vendor);
    EXPECT_EQ("900e", product);
    for (const char* bad : {"", "usb:v05C6", "pci:v05C6p900E", "usb:vXXXXp900Ed"}) {
        EXPECT_FALSE(dumpdiscovery::parseModalias(bad, &vendor, &product)) << bad;
    }
}

}  // namespace
