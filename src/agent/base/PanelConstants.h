#pragma once

/// Names and paths that the panel fixes: there is no configuration file and no option for them.
namespace nimbra {

inline constexpr char kVersion[] = NIMBRA_VERSION;

inline constexpr char kDefaultCloudHost[] = NIMBRA_CLOUD_HOST;
static_assert(sizeof kDefaultCloudHost - 1 <= 31, "NIMBRA_CLOUD_HOST is longer than 31 bytes");

inline constexpr int kClientPort = 9000;
inline constexpr int kCloudPort = 9500;
inline constexpr int kScanRequestPort = 9701;
inline constexpr int kScanAnswerPort = 9702;

inline constexpr char kMainDatabase[] = "/tmp/NimbraDB/Nimbra.db";
inline constexpr char kLogDatabase[] = "/tmp/NimbraDB/NimbraLog.db";
inline constexpr char kNetworkDatabase[] = "/tmp/NimbraDB/Network.db";

inline constexpr char kWiredInterface[] = "eth0";
inline constexpr char kImageDirectory[] = "/nimbra/web/webroot/user_img";

} // namespace nimbra
