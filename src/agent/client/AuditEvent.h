#pragma once

namespace nimbra {

/// The changes that the panel notes in its event log, by its event codes.
enum class AuditEvent : int
{
    UserAdded = 10301,
    UserDeleted = 10302,
    UserChanged = 10303, ///< an image too
    CardAdded = 10401,
    CardDeleted = 10402,
    CardChanged = 10403, ///< its access levels too
    ThreatLevelChanged = 10803,
    DoorUnlocked = 11212,
    DoorLocked = 11213,
    OutputSwitched = 11415,
    LoggedIn = 15107,
};

} // namespace nimbra
