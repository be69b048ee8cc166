#pragma once

#include "support/TestPanel.h"

#include <string>

namespace nimbra::test {

/// While it exists, the panel has no databases.
class WithoutDatabases
{
public:
    explicit WithoutDatabases(const TestPanel &panel);
    /// Restores the databases.
    ~WithoutDatabases();
    WithoutDatabases(const WithoutDatabases &) = delete;
    WithoutDatabases &operator=(const WithoutDatabases &) = delete;

private:
    std::string databases_;
};

} // namespace nimbra::test
