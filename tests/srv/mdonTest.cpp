#include <gtest/gtest.h>

#include "srvTestSupport.h"
#include "vrecSevice.h"

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
