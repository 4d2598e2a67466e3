#ifndef MICRO850_TESTS_FRESH_DRIVER_H
#define MICRO850_TESTS_FRESH_DRIVER_H

#include "Device_Driver.h"

#include <gtest/gtest.h>

/// Checks that a driver object is in the state after loading: empty, and with nothing in flight.
inline void expectFresh(const Device_Driver& driver)
{
    EXPECT_EQ(driver.comInfo, nullptr);
    EXPECT_EQ(driver.finishCallback, nullptr);
    EXPECT_EQ(driver.refreshCallback, nullptr);
    EXPECT_TRUE(driver.readList.isEmpty());
    EXPECT_TRUE(driver.writeList.isEmpty());
    EXPECT_TRUE(driver.onceReadList.isEmpty());
    EXPECT_TRUE(driver.spareList.isEmpty());
    EXPECT_TRUE(driver.sendQueue.isEmpty());
    EXPECT_TRUE(driver.extendList.isEmpty());
    EXPECT_TRUE(driver.disabledStations.isEmpty());
    EXPECT_EQ(driver.currentList, 100);
    EXPECT_EQ(driver.writeBurst, 0);
    EXPECT_EQ(driver.onceBurst, 0);
    EXPECT_EQ(driver.readCycleCount, 0);
    EXPECT_FALSE(driver.errorFlag);
    EXPECT_FALSE(driver.spareFlag);
    EXPECT_TRUE(driver.result.tagName.isEmpty());
    EXPECT_TRUE(driver.result.addressText.isEmpty());
    EXPECT_TRUE(driver.result.data.isEmpty());
}

#endif
