#include "support/SweepTest.h"

#include "support/EndAgent.h"
#include "support/Waiting.h"

#include <filesystem>

namespace nimbra::test {

namespace fs = std::filesystem;

namespace {

constexpr char kSaved[] = "/nimbra/saved.db";

} // namespace

SweepTest::SweepTest(const char *request)
    : agent_(faults_.Preloaded()), client_(LoggedIn()), request_(request)
{
    fs::copy(panel_.Paths().MainDatabase, kSaved);
    Ask();
    Restore();
    // All services have opened their sockets when the agent has those and that of the client.
    descriptors_ = Agent::kDescriptorsAtRest + 1;
    EXPECT_TRUE(WaitUntil([this] { return agent_.Descriptors() == descriptors_; }));
}

SweepTest::~SweepTest()
{
    EXPECT_EQ(agent_.Descriptors(), descriptors_);
    EndAgent(agent_, client_);
}

void SweepTest::Restore() const
{
    fs::remove(std::string(panel_.Paths().MainDatabase) + "-journal");
    fs::copy(kSaved, panel_.Paths().MainDatabase, fs::copy_options::overwrite_existing);
}

std::vector<std::string> SweepTest::Tables() const
{
    std::vector<std::string> tables;
    for (const std::string &row : TestPanel::Dump(panel_.Paths().MainDatabase))
        if (row.rfind("DBQueryInfo", 0) != 0)
            tables.push_back(row);
    return tables;
}

} // namespace nimbra::test
