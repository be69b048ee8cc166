#include "support/WithoutDatabases.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <system_error>

namespace nimbra::test {

namespace {

/// On the same file system as the databases.
constexpr char kAway[] = "/tmp/DatabasesAway";

} // namespace

WithoutDatabases::WithoutDatabases(const TestPanel &panel) : databases_(panel.Paths().Databases)
{
    std::filesystem::rename(databases_, kAway);
}

WithoutDatabases::~WithoutDatabases()
{
    std::error_code error;
    std::filesystem::rename(kAway, databases_, error);
    EXPECT_FALSE(error) << error.message();
}

} // namespace nimbra::test
