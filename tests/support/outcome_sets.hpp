// The Outcome Parameter Sets (DF8129) the tests expect, as hex: status,
// start, online response data, CVM, presence bits, UI on restart, alternate
// interface and field-off request.
#pragma once

namespace velk::test {

inline constexpr char kNoOutcome[] = "0000000000000000";
inline constexpr char kApproved[] = "10F0F0F0A0F0FF00";
inline constexpr char kApprovedSignature[] = "10F0F010A8F0FF00";
inline constexpr char kApprovedWithData[] = "10F0F0F0B0F0FF00";
inline constexpr char kDeclined[] = "20F0F0F0A0F0FF00";
inline constexpr char kDeclinedWithoutRecord[] = "20F0F0F080F0FF00";
inline constexpr char kDeclinedBeforeRecordsWithData[] = "20F0F0F090F0FF00";
inline constexpr char kOnlineRequest[] = "30F0F0F0A0F0FF00";
inline constexpr char kErroneousReactivation[] = "40F0F0F000F0FF00";
inline constexpr char kErroneousReactivationWithRecord[] = "40F0F0F020F0FF00";
inline constexpr char kEndApplication[] = "40F0F0F080F0FF00";
inline constexpr char kEndApplicationWithData[] = "40F0F0F090F0FF00";
inline constexpr char kEndApplicationWithRecord[] = "40F0F0F0A0F0FF00";
inline constexpr char kOnDeviceCvm[] = "4010F0F0C0F01300";
inline constexpr char kCompletedOnError[] = "5020F0F000F0FF00";
inline constexpr char kTryOtherInterface[] = "60F0F0F08001FF00";
inline constexpr char kCommunicationError[] = "7010F0F0C0F01300";

}  // namespace velk::test
