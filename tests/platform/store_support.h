#pragma once

#include "base_support.h"
#include "process_support.h"

#include <orvutils/setmgmt.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>

/// An open settings store under a root of its own.
class StoreTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    TemporaryRoot m_root;
};

/// The key's value, or "error N".
std::string value_of(const std::string& key);

/// Runs `body` in a child process with the settings store open; as in_child().
Outcome in_process_with_store(const std::function<int()>& body);
