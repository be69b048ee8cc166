#pragma once

#include "simulator/panel/PanelPaths.h"
#include "simulator/panel/SampleData.h"

#include <deque>
#include <random>
#include <string>

namespace nimbra::panel {

/// People who come and go: they show their cards at the doors, are let in or refused, and leave by
/// the exit button. It reads users, cards and doors from the panel's database each time, so the
/// changes of a management application count. Not for several threads.
class Activity
{
public:
    /// The same seed on the same panel gives the same events.
    Activity(PanelPaths paths, unsigned seed);

    /// Appends the next event to the panel's log; none if the panel has no door. Throws
    /// std::runtime_error when a database cannot be used.
    void AppendNext();

private:
    /// Adds the events of one person at one door.
    void AddVisit();
    [[nodiscard]] bool PickDoor(SampleEvent &event);
    /// Fills in who shows a card, and whether the panel knows that it is valid; false if the panel
    /// has no card.
    [[nodiscard]] bool PickCardHolder(SampleEvent &event);
    /// A row of the query's result, chosen at random; empty if there is none.
    [[nodiscard]] std::vector<std::string> PickRow(const std::string &query);

    PanelPaths paths_;
    std::minstd_rand random_;
    std::deque<SampleEvent> events_; ///< of visits that have begun
};

} // namespace nimbra::panel
