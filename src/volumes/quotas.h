// User and group quotas of a volume, held by its FSM: the facade's quota record and the quota
// dictionaries of the commands getQuotas, setQuotas and deleteQuotas.
#pragma once

#include <optional>
#include <string>

#include "adminlib/qmadminlib.h"
#include "plist/plist.h"

namespace velm {

// { name, type "user"/"group", amountUsed, hardLimit, softLimit, timeLimit (s), timeRemaining,
// _id_ "type/name" }; nothing for a type other than user or group, or, without all, a record
// with any limit at zero.
std::optional<PropertyList> dictionary_from_quota(const QMAdminQuota& record, bool all);
// Users first, then groups; nothing when a walk fails.
std::optional<PropertyList> get_fsmvol_quotas(int fsmHandle, bool all);
std::optional<PropertyList> get_quotas_for_fsmvol_named(int nsHandle, const std::string* name,
                                                        bool all);
// Clears the limits and the time limit; the rest stays.
void zero_out_quota(QMAdminQuota& record);
// The numbers of hardLimit, softLimit and timeLimit (seconds, to whole minutes down).
void merge_diff_into_quota(QMAdminQuota& record, const PropertyList& dict);
// 0, or kStatusQuotaFailed for a type other than "user" or "group".
int quota_from_dictionary(QMAdminQuota& record, const PropertyList& dict);
// A soft limit above the hard one is lowered to it, in record too. 0 or kStatusQuotaFailed.
int set_quota_by_name(int fsmHandle, QMAdminQuota& record, const std::string& name,
                      const PropertyList& type);
int set_fsmvol_quota(int fsmHandle, const PropertyList& dict);
int delete_fsmvol_quota(int fsmHandle, const PropertyList& dict);
// Each dictionary in order until the first failure; what was done before it stays. 0,
// kStatusQuotaNoSuchVolume, kStatusQuotaNoConnection or kStatusQuotaFailed.
int set_quotas_for_fsmvol_named(int nsHandle, const std::string* name, const PropertyList& quotas,
                                bool remove);

}  // namespace velm
