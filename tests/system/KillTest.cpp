// The agent killed in the middle of changes, again and again: what was answered has been done, and
// what was not is done or not done, whole.

#include "support/Agent.h"
#include "support/Files.h"
#include "support/ManagementClient.h"
#include "support/TestPanel.h"

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

constexpr int kRounds = 10;
constexpr int kChangesEachRound = 20;
constexpr int kClients = 4;
constexpr std::size_t kPictureSize = 30000;

/// A change that a client has asked for. Its tag stands in its statement, and in no other one.
struct Change
{
    enum class Kind
    {
        AddUser,
        SetUser,
        AddCard,
        SetCard,
        SetLevels,
        SetPicture
    };
    Kind What;
    std::string Tag;
    bool IsAnswered = false;
};

/// One client and the rows that are its own: user and card of its number.
class Changer
{
public:
    Changer(int number, int round)
        : number_(std::to_string(number)), firstLevel_(1000000 * number + 10000 * round),
          picture_("kill" + number_ + "r" + std::to_string(round) + ".jpg"),
          random_(static_cast<unsigned>(100 * round + number))
    {}

    /// Asks for changes until the agent is gone; `answered` counts those that were done.
    void Work(std::atomic<int> &answered)
    {
        ManagementClient client = LoggedIn();
        for (int serial = 1;; ++serial) {
            Change change{static_cast<Change::Kind>(random_() % 6),
                          "T" + std::to_string(random_()) + "S" + std::to_string(serial) + "E"};
            // An access level is a number.
            if (change.What == Change::Kind::SetLevels)
                change.Tag = std::to_string(firstLevel_ + serial);
            changes_.push_back(change);
            Send(client, change);
            const auto answer = client.ReadLine();
            if (!answer)
                break;
            EXPECT_NE(answer->find("Response?Result=0"), std::string::npos) << *answer;
            changes_.back().IsAnswered = true;
            ++answered;
        }
    }

    /// Shows that every answered change is there with its journal row, and that what it has
    /// written last is that or the one that was not answered.
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
        const std::string bytes = ReadFile(panel.Paths().Images / picture_);
        const std::string tag = bytes.substr(0, bytes.find('E') + 1);
        EXPECT_TRUE(bytes.empty() || bytes == Picture(tag)) << bytes.size() << " bytes";
        ExpectLast(Change::Kind::SetPicture, tag);
        // Each upload names the same file.
        const auto uploads =
            std::count_if(changes_.begin(), changes_.end(), [](const Change &change) {
                return change.What == Change::Kind::SetPicture && change.IsAnswered;
            });
        EXPECT_GE(std::stoi(panel.Value("SELECT COUNT(*) FROM DBQueryInfo WHERE QueryData LIKE '%" +
                                        picture_ + "%'")),
                  uploads);
    }

private:
    static std::string Picture(const std::string &tag)
    {
        std::string bytes;
        while (bytes.size() < kPictureSize)
            bytes += tag;
        return bytes.substr(0, kPictureSize);
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
        case Change::Kind::SetPicture:
            client.SendLine("SetUserImage?UserNo=" + number_ + "&FileName=" + picture_ +
                            "&Size=" + std::to_string(kPictureSize));
            return client.Send(Picture(change.Tag));
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
        } else if (change.What != Change::Kind::SetPicture) {
            EXPECT_EQ(panel.Value("SELECT COUNT(*) FROM DBQueryInfo WHERE QueryData LIKE '%" +
                                  change.Tag + "%'"),
                      "1");
        }
    }

    /// Shows that `tag` is that of the last change of this kind that was answered, or of the one
    /// that was asked for after it; any, if none was answered.
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
        EXPECT_TRUE(!isAnswered ||
                    std::find(possible.begin(), possible.end(), tag) != possible.end())
            << tag;
    }

    /// Shows that the card has the access levels that were answered last or, if others were asked
    /// for after them, these as far as the agent came: none, some or all, in their order.
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
        EXPECT_TRUE(!isAnswered ||
                    std::find(possible.begin(), possible.end(), levels) != possible.end())
            << ::testing::PrintToString(levels);
    }

    std::string number_;
    int firstLevel_;
    std::string picture_;
    std::minstd_rand random_;
    std::vector<Change> changes_;
};

/// Shows that no database is damaged and that no number was given twice.
void ExpectSound(const TestPanel &panel)
{
    for (const auto &file :
         {panel.Paths().MainDatabase, panel.Paths().LogDatabase, panel.Paths().NetworkDatabase})
        EXPECT_EQ(TestPanel::Rows(file, "PRAGMA integrity_check"), std::vector<Row>({{"ok"}}))
            << file;
    for (const char *numbers :
         {"Idseq) FROM DBQueryInfo", "No) FROM User", "No) FROM Card", "No) FROM CardAccessLevel"})
        EXPECT_EQ(panel.Value(std::string("SELECT COUNT(*) - COUNT(DISTINCT ") + numbers), "0");
}

TEST(KilledAgent, HasDoneWhatItAnsweredAndNothingByHalves)
{
    const TestPanel panel;
    std::minstd_rand random(1);
    int total = 0;
    for (int round = 1; round <= kRounds; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        Agent agent;
        std::vector<Changer> changers;
        for (int number = 1; number <= kClients; ++number)
            changers.emplace_back(number, round);
        std::atomic<int> answered = 0;
        std::vector<std::thread> threads;
        for (Changer &changer : changers)
            threads.emplace_back([&] { changer.Work(answered); });
        EXPECT_TRUE(WaitUntil([&] { return answered >= kChangesEachRound; }, seconds(60)));
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 30000));
        agent.Signal(SIGKILL);
        EXPECT_EQ(agent.WaitForExit(), -SIGKILL);
        for (std::thread &thread : threads)
            thread.join();
        total += answered;
        ExpectSound(panel);
        for (const Changer &changer : changers)
            changer.ExpectKept(panel);
    }
    EXPECT_GE(total, 200);
    const Agent agent;
    EXPECT_EQ(LoggedIn().Ask("GetThreatLevel?"), "GetThreatLevelResponse?Result=0&ThreatLevel=1");
}

} // namespace
} // namespace nimbra::test
