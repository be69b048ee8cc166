#pragma once

#include "bench/driver/Measure.h"

namespace nimbra::bench {

/// Whether the panel's cloud link is on.
enum class CloudLink
{
    Off,
    On
};

/// Creates a sample panel in the panel's own paths, with so many events, and so many users and
/// cards.
void CreatePanel(const Plan &plan, int events, int users, CloudLink link = CloudLink::Off);

/// Restores the users and the journal of a panel that was created with `users` users.
void ResetUsers(int users);

} // namespace nimbra::bench
