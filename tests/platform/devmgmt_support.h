#pragma once

#include "base_support.h"

#include <orvdevmgmt/device_writer.h>
#include <orvdevmgmt/orvdevmgmt.h>
#include <orvutils/json.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

/// An open device store under a root of its own.
class DeviceStoreTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(orv::devMgmt::init(), 0); }
    void TearDown() override { orv::devMgmt::uninit(); }

    TemporaryRoot m_root;
};

/// A device with all fields set.
orv::devMgmt::Device make_device(const std::string& did);

/// The device's JSON text; the way to compare two.
std::string text_of(const orv::devMgmt::Device& device);
/// The same of a stored device; "none" when there is none.
std::string stored(const std::string& did);
/// Of all stored devices, in the order in which they are given.
std::vector<std::string> all_ids();
