// The agent is killed repeatedly during changes. An answered change is complete; another change is
// either complete or not made.

#include "support/Agent.h"
#include "support/Files.h"
#include "support/ManagementClient.h"
#include "support/TestPanel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstddef>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace nimbra::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr int kRounds = 10;
constexpr int kChangesEachRound = 20;
constexpr int kClients = 4;
constexpr std::size_t kImageSize = 30000;

/// A change that a client has requested. Only its own statement holds its tag.
struct Change
{
    enum class Kind
    {
        AddUser,
        SetUser,
        AddCard,
        SetCard,
        SetLevels,
        SetImage
    };
    Kind What;
    std::string Tag;
    bool IsAnswered = false;
};

/// A client that changes only its own rows: the user and the card of its number.
class Changer
{
public:
    Changer(int number, int round)
        : number_(std::to_string(number)), firstLevel_(1000000 * number + 10000 * round),
          image_("kill" + number_ + "r" + std::to_string(round) + ".jpg"),
          random_(static_cast<unsigned>(100 * round + number))
    {}

    /// Requests changes until the agent has ended; `answered` counts the answered ones.
    void Work(ManagementClient &client, std::atomic<int> &answered)
    {
        for (int serial = 1;; ++serial) {
            Change change{static_cast<Change::Kind>(random_() % 6),
                          "T" + std::to_string(random_()) + "S" + std::to_string(serial) + "E"};
            // Access levels are numbers.
            if (change.What == Change::Kind::SetLevels)
                change.Tag = std::to_string(firstLevel_ + serial);
            changes_.push_back(change);
            Send(client, change);
            const auto answer = client.ReadLine();
            if (!answer)
                break;
            EXPECT_THAT(*answer, HasSubstr("Response?Result=0"));
            changes_.back().IsAnswered = true;
            ++answered;
        }
    }

    /// Shows that every answered change and its journal row exist, and that the current value is
    /// that of the last answered change or of the unanswered one.
    void ExpectKept(const TestPanel &panel) const
    {
        for (const Change &change : changes_)
            if (change.IsAnswered)
                ExpectKept(panel, change);
        ExpectLast(Change::Kind::SetUser,
                   panel.Value("SELECT LastName FROM User WHERE No=" + number_));
        ExpectLast(Change::Kind::SetCard,
                   panel.Value("SELECT CardNo FROM Card WHERE No=" + number_));
        ExpectLevels(panel);
        const std::string bytes = ReadFile(panel.Paths().Images / image_);
        const std::string tag = bytes.substr(0, bytes.find('E') + 1);
        EXPECT_TRUE(bytes.empty() || bytes == Image(tag)) << bytes.size() << " bytes";
        ExpectLast(Change::Kind::SetImage, tag);
        // All uploads use the same file name.
        const auto uploads =
            std::count_if(changes_.begin(), changes_.end(), [](const Change &change) {
                return change.What == Change::Kind::SetImage && change.IsAnswered;
            });
        EXPECT_GE(std::stoi(panel.Value("SELECT COUNT(*) FROM DBQueryInfo WHERE QueryData LIKE '%" +
                                        image_ + "%'")),
                  uploads);
    }

private:
    static std::string Image(const std::string &tag)
    {
        std::string bytes;
        while (bytes.size() < kImageSize)
            bytes += tag;
        return bytes.substr(0, kImageSize);
    }

    void Send(const ManagementClient &client, const Change &change) const
    {
        switch (change.What) {
        case Change::Kind::AddUser:
            return client.SendLine("AddUserInfo?LastName=" + change.Tag);
        case Change::Kind::SetUser:
            return client.SendLine("SetUserInfo?UserNo=" + number_ + "&LastName=" + change.Tag);
        case Change::Kind::AddCard:
            return client.SendLine("AddCardInfo?UserNo=1&FormatNo=1&CardNumber=" + change.Tag);
        case Change::Kind::SetCard:
            return client.SendLine("SetCardInfo?CardNo=" + number_ +
                                   "&UserNo=1&FormatNo=2&CardNumber=" + change.Tag);
        case Change::Kind::SetLevels:
            return client.SendLine("SetCardAccessLevel?CardNo=" + number_ +
                                   "&SelectType=1&AccessLevelNo=" + change.Tag + " 2 3");
        case Change::Kind::SetImage:
            client.SendLine("SetUserImage?UserNo=" + number_ + "&FileName=" + image_ +
                            "&Size=" + std::to_string(kImageSize));
            return client.Send(Image(change.Tag));
        }
    }

    static void ExpectKept(const TestPanel &panel, const Change &change)
    {
        SCOPED_TRACE(change.Tag);
        const std::string quoted = "'" + change.Tag + "'";
        if (change.What == Change::Kind::AddUser) {
            EXPECT_EQ(panel.Value("SELECT COUNT(*) FROM User WHERE LastName=" + quoted), "1");
        }
        if (change.What == Change::Kind::AddCard) {
            EXPECT_EQ(panel.Value("SELECT COUNT(*) FROM Card WHERE CardNo=" + quoted), "1");
        }
        if (change.What == Change::Kind::SetLevels) {
            EXPECT_EQ(panel.Value("SELECT COUNT(*) FROM DBQueryInfo WHERE QueryData LIKE '%, " +
                                  change.Tag + ")'"),
                      "1");
        } else if (change.What != Change::Kind::SetImage) {
            EXPECT_EQ(panel.Value("SELECT COUNT(*) FROM DBQueryInfo WHERE QueryData LIKE '%" +
                                  change.Tag + "%'"),
                      "1");
        }
    }

    /// Shows that `tag` belongs to the last answered change of this kind or to the change requested
    /// after it. Accepts any tag if no change was answered.
    void ExpectLast(Change::Kind kind, const std::string &tag) const
    {
        std::vector<std::string> possible;
        for (const Change &change : changes_) {
            if (change.What != kind)
                continue;
            if (change.IsAnswered)
                possible.clear();
            possible.push_back(change.Tag);
        }
        const bool isAnswered = std::any_of(changes_.begin(), changes_.end(), [&](const Change &c) {
            return c.What == kind && c.IsAnswered;
        });
        if (isAnswered) {
            EXPECT_THAT(possible, Contains(tag));
        }
    }

    /// Shows that the card has the access levels of the last answered change, or a first part of
    /// those requested after it.
    void ExpectLevels(const TestPanel &panel) const
    {
        using Levels = std::vector<Row>;
        const Levels levels = panel.Rows(
            "SELECT AccessLevelNo FROM CardAccessLevel WHERE CardNo=" + number_ + " ORDER BY No");
        std::vector<Levels> possible;
        bool isAnswered = false;
        for (const Change &change : changes_) {
            if (change.What != Change::Kind::SetLevels)
                continue;
            const Levels whole = {{change.Tag}, {"2"}, {"3"}};
            isAnswered = isAnswered || change.IsAnswered;
            if (change.IsAnswered)
                possible = {whole};
            else
                for (std::ptrdiff_t done = 0; done <= std::ssize(whole); ++done)
                    possible.emplace_back(whole.begin(), whole.begin() + done);
        }
        if (isAnswered) {
            EXPECT_THAT(possible, Contains(levels));
        }
    }

    std::string number_;
    int firstLevel_;
    std::string image_;
    std::minstd_rand random_;
    std::vector<Change> changes_;
};

/// Shows that no database is damaged and that all numbers are unique.
void ExpectIntact(const TestPanel &panel)
{
    for (const auto &file :
         {panel.Paths().MainDatabase, panel.Paths().LogDatabase, panel.Paths().NetworkDatabase})
        EXPECT_THAT(TestPanel::Rows(file, "PRAGMA integrity_check"), ElementsAre(Row{"ok"}))
            << file;
    for (const char *numbers :
         {"Idseq) FROM DBQueryInfo", "No) FROM User", "No) FROM Card", "No) FROM CardAccessLevel"})
        EXPECT_EQ(panel.Value(std::string("SELECT COUNT(*) - COUNT(DISTINCT ") + numbers), "0");
}

TEST(KilledAgent, KeepsAnsweredChangesAndLeavesNoPartialOnes)
{
    const TestPanel panel;
    std::minstd_rand random(1);
    int total = 0;
    for (int round = 1; round <= kRounds; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        Agent agent;
        std::vector<Changer> changers;
        std::vector<ManagementClient> clients;
        for (int number = 1; number <= kClients; ++number) {
            changers.emplace_back(number, round);
            clients.push_back(LoggedIn());
        }
        std::atomic<int> answered = 0;
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < changers.size(); ++i)
            threads.emplace_back([&, i] { changers[i].Work(clients[i], answered); });
        EXPECT_TRUE(WaitUntil([&] { return answered >= kChangesEachRound; }, seconds(60)));
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 30000));
        agent.Signal(SIGKILL);
        EXPECT_EQ(agent.WaitForExit(), -SIGKILL);
        for (std::thread &thread : threads)
            thread.join();
        total += answered;
        ExpectIntact(panel);
        for (const Changer &changer : changers)
            changer.ExpectKept(panel);
    }
    EXPECT_GE(total, 200);
    const Agent agent;
    EXPECT_EQ(LoggedIn().Ask("GetThreatLevel?"), "GetThreatLevelResponse?Result=0&ThreatLevel=1");
}

} // namespace
} // namespace nimbra::test
