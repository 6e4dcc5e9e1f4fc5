// The plugin's own status numbers (a response's `status`), one series from 100000 up. The
// plugin holds no texts for them: the administration tool words them.
#pragma once

namespace velm {

inline constexpr int kStatusConfigChangeFailed = 100004;
inline constexpr int kStatusNoLocalPortMapper = 100005;
inline constexpr int kStatusMountFailed = 100007;
inline constexpr int kStatusUnmountFailed = 100008;
inline constexpr int kStatusInitializeFailed = 100010;
inline constexpr int kStatusQuotaNoSuchVolume = 100026;
inline constexpr int kStatusQuotaNoConnection = 100027;
inline constexpr int kStatusQuotaFailed = 100029;
inline constexpr int kStatusStandbyFailed = 100036;
inline constexpr int kStatusStopFailed = 100037;
inline constexpr int kStatusFailoverFailed = 100039;
inline constexpr int kStatusLabeledDisksFailed = 100047;
inline constexpr int kStatusNoConnectionToController = 100054;
inline constexpr int kStatusNoDirectoryRecords = 100055;
inline constexpr int kStatusNoSuchVolume = 100056;
inline constexpr int kStatusCheckFailed = 100057;
inline constexpr int kStatusLongTaskRunning = 100058;

}  // namespace velm
