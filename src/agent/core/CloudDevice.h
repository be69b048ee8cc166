#pragma once

namespace nimbra {

/// The agent as a whole: loads the configuration and starts and stops the three services. Main
/// thread only.
class CloudDevice
{
public:
    [[nodiscard]] static CloudDevice *GetInstance();
    virtual ~CloudDevice() = default;

    /// Loads the configuration; false when something of it is missing.
    [[nodiscard]] bool Init();
    /// Starts the client listener, the cloud link and the discovery responder. On a failure what
    /// was started runs on: call Stop.
    [[nodiscard]] bool Start();
    /// Returns within a second of RequestQuit, at once if it was called before.
    void Run();
    /// Stops the services; waits until every client session has ended.
    void Stop();

    /// Asks the program to end. Safe in a signal handler.
    static void RequestQuit();
    [[nodiscard]] static bool IsQuitRequested();

private:
    CloudDevice() = default;
};

} // namespace nimbra
