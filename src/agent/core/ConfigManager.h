#pragma once

#include "base/FixedText.h"

#include <cstdint>

namespace nimbra {

/// The device's identity and cloud settings. Loaded by the main thread at every start attempt,
/// before the services are started; they read the fields without a lock.
class ConfigManager
{
public:
    [[nodiscard]] static ConfigManager *GetInstance();
    virtual ~ConfigManager() = default;

    /// Reads everything below from the panel and prints it. Returns false when the wired
    /// interface's address, the Cloud row or the Network row is not to be had.
    [[nodiscard]] bool Load();

    /// The three steps of Load. Main thread.
    [[nodiscard]] bool ReadMacAddress();
    [[nodiscard]] bool ReadServerInfo();
    [[nodiscard]] bool ReadNetworkInfo();

    /// The name of a model and size, as the Network table numbers them; empty for an unknown model.
    /// Any thread.
    [[nodiscard]] static FixedText<32> ModelNameOf(std::int32_t model, std::int32_t size);

    /// Records the present time as that of the registration (`start`) or of the last check of the
    /// cloud link. A failure is only logged. The cloud link's thread.
    void SetCommTime(bool start);

    bool CloudEnable = false;         ///< never true for a panel of unknown model
    FixedText<32> CloudServerAddr;    ///< host name; fixed in the program
    std::int32_t CloudServerPort = 0; ///< fixed in the program
    FixedText<44> DeviceId;           ///< SHA-1 of MacAddr, 40 upper-case hexadecimal digits
    FixedText<32> MacAddr;            ///< upper case, with colons
    FixedText<32> ModelName;          ///< empty for an unknown model
    FixedText<32> PrivateAddr;        ///< the panel's own address
    std::int32_t PrivatePort = 0;     ///< reported to others; the listener does not use it

private:
    static constexpr char kLogSource[] = "ConfigManager.cpp";

    ConfigManager() = default;
};

} // namespace nimbra
