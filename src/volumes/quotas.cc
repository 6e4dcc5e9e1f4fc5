#include "volumes/quotas.h"

#include <algorithm>
#include <cstring>

#include "adminlib/subr2.h"
#include "gateway/qmadmin.h"
#include "model/plugin_status.h"
#include "platform/log.h"
#include "platform/string_additions.h"
#include "plist/format.h"
#include "volumes/volume_inspection.h"

namespace velm {
namespace {

constexpr int kListEnd = 6;
constexpr std::size_t kNameLimit = 255;

const char* typeText(int type) { return type == QMADMIN_QUOTA_USER ? "user" : "group"; }

// At most 255 bytes of name, never ending inside a UTF-8 character.
void copyName(QMAdminQuota& record, std::string_view name) {
  std::size_t n = std::min(name.size(), kNameLimit);
  while (n > 0 && n < name.size() && (static_cast<unsigned char>(name[n]) & 0xC0) == 0x80) --n;
  std::memset(record.name, 0, sizeof record.name);
  std::memcpy(record.name, name.data(), n);
}

bool isNumber(const PropertyList* v) { return v && v->isNumber(); }

// Walks one list of the FSM; false after a failure (logged with what).
bool walk(int fsmHandle, bool all, int (*list)(int, QMAdminQuota*), const char* what,
          PropertyList& out) {
  QMAdminQuota record{};
  while (true) {
    int status = list(fsmHandle, &record);
    if (status == kListEnd) return true;
    if (std::optional<PropertyList> d = dictionary_from_quota(record, all)) out.push(std::move(*d));
    if (status != 0) {
      NError("%s", what);
      log_qmfs_error(status, "get_fsmvol_quotas");
      return false;
    }
  }
}

}  // namespace

std::optional<PropertyList> dictionary_from_quota(const QMAdminQuota& record, bool all) {
  if (record.type != QMADMIN_QUOTA_USER && record.type != QMADMIN_QUOTA_GROUP) return std::nullopt;
  if (!all && (record.hardLimit == 0 || record.softLimit == 0 || record.timeLimit == 0))
    return std::nullopt;
  std::string name(record.name, ::strnlen(record.name, sizeof record.name));
  if (!isValidUtf8(name)) name.clear();
  const char* type = typeText(record.type);
  PropertyList d = PropertyList::dict();
  d.set("name", name);
  d.set("type", type);
  d.set("amountUsed", static_cast<unsigned long long>(record.used));
  d.set("hardLimit", static_cast<unsigned long long>(record.hardLimit));
  d.set("softLimit", static_cast<unsigned long long>(record.softLimit));
  d.set("timeLimit", static_cast<unsigned long long>(record.timeLimit) * 60);
  // The FSM's word is signed minutes: -1 once the grace period has run out.
  d.set("timeRemaining", static_cast<int>(static_cast<std::int32_t>(record.timeRemaining)));
  d.set("_id_", format("%@/%@", type, name));
  return d;
}

std::optional<PropertyList> get_fsmvol_quotas(int fsmHandle, bool all) {
  QMAdminLock lock(__func__);
  PropertyList out = PropertyList::array();
  if (!walk(fsmHandle, all, QMAdmin_ListUserQuotas,
            "get_fsmvol_quotas: Error getting user quotas:", out) ||
      !walk(fsmHandle, all, QMAdmin_ListGroupQuotas,
            "get_fsmvol_quotas: Error getting group quotas:", out))
    return std::nullopt;
  return out;
}

std::optional<PropertyList> get_quotas_for_fsmvol_named(int nsHandle, const std::string* name,
                                                        bool all) {
  QMAdminLock lock(__func__);
  FsmConnection fsm = connect_fsmvol_named(nsHandle, name, __func__);
  PropertyList shown = name ? PropertyList(*name) : PropertyList();
  if (fsm.failure == FsmConnection::kNotFound) {
    NError("get_quotas_for_fsmvol_named(%@): Could not find FS", shown);
    return std::nullopt;
  }
  if (fsm.failure == FsmConnection::kListFailed) return std::nullopt;
  if (fsm.failure == FsmConnection::kConnectFailed) {
    NError("get_quotas_for_fsmvol_named(%@): Could not connect to FSM because %s", shown,
           fsm.error.c_str());
    return std::nullopt;
  }
  std::optional<PropertyList> quotas = get_fsmvol_quotas(fsm.handle, all);
  QMAdmin_FSMDisconnect(fsm.handle);
  return quotas;
}

void zero_out_quota(QMAdminQuota& record) {
  record.hardLimit = 0;
  record.softLimit = 0;
  record.timeLimit = 0;
}

void merge_diff_into_quota(QMAdminQuota& record, const PropertyList& dict) {
  const PropertyList* hard = dict.get("hardLimit");
  const PropertyList* soft = dict.get("softLimit");
  const PropertyList* time = dict.get("timeLimit");
  if (isNumber(hard)) record.hardLimit = hard->uint64Value().value_or(0);
  if (isNumber(soft)) record.softLimit = soft->uint64Value().value_or(0);
  if (isNumber(time))
    record.timeLimit = static_cast<std::uint32_t>(time->uint64Value().value_or(0) / 60);
}

int quota_from_dictionary(QMAdminQuota& record, const PropertyList& dict) {
  record = QMAdminQuota{};
  const PropertyList* type = dict.get("type");
  const std::string* t = type ? type->asString() : nullptr;
  if (t && *t == "user") {
    record.type = QMADMIN_QUOTA_USER;
  } else if (t && *t == "group") {
    record.type = QMADMIN_QUOTA_GROUP;
  } else {
    NError("quota_from_dictionary: Illegal type: %@", type ? *type : PropertyList());
    return kStatusQuotaFailed;
  }
  if (const std::string* name = dict.getString("name")) copyName(record, *name);
  merge_diff_into_quota(record, dict);
  return 0;
}

int set_quota_by_name(int fsmHandle, QMAdminQuota& record, const std::string& name,
                      const PropertyList& type) {
  copyName(record, name);
  if (record.softLimit > record.hardLimit) record.softLimit = record.hardLimit;
  const std::string* t = type.asString();
  int status;
  if (t && *t == "user") {
    status = QMAdmin_SetUserQuota(fsmHandle, record.name, &record);
  } else if (t && *t == "group") {
    status = QMAdmin_SetGroupQuota(fsmHandle, record.name, &record);
  } else {
    NError("set_quota_by_name: Illegal type: %@", type);
    return kStatusQuotaFailed;
  }
  if (status != 0) {
    NError("set_quota_by_name: did not update quota.  QMFS error: ");
    log_qmfs_error(status, __func__);
    return kStatusQuotaFailed;
  }
  return 0;
}

int set_fsmvol_quota(int fsmHandle, const PropertyList& dict) {
  const std::string* name = dict.getString("name");
  const PropertyList* type = dict.get("type");
  if (!name || !type || !type->isString() || !isNumber(dict.get("hardLimit")) ||
      !isNumber(dict.get("softLimit")) || !isNumber(dict.get("timeLimit"))) {
    NError("set_fsmvol_quota: Record %@ is incomplete", dict);
    return kStatusQuotaFailed;
  }
  QMAdminQuota record{};
  if (int status = quota_from_dictionary(record, dict); status != 0) return status;
  return set_quota_by_name(fsmHandle, record, *name, *type);
}

int delete_fsmvol_quota(int fsmHandle, const PropertyList& dict) {
  const std::string* name = dict.getString("name");
  const PropertyList* type = dict.get("type");
  if (!name || !type || !type->isString()) {
    NError("delete_fsmvol_quota: Record %@ is incomplete", dict);
    return kStatusQuotaFailed;
  }
  QMAdminQuota record{};
  if (int status = quota_from_dictionary(record, dict); status != 0) return status;
  zero_out_quota(record);
  return set_quota_by_name(fsmHandle, record, *name, *type);
}

int set_quotas_for_fsmvol_named(int nsHandle, const std::string* name, const PropertyList& quotas,
                                bool remove) {
  QMAdminLock lock(__func__);
  PropertyList shown = name ? PropertyList(*name) : PropertyList();
  FsmConnection fsm = connect_fsmvol_named(nsHandle, name, __func__);
  switch (fsm.failure) {
    case FsmConnection::kNotFound:
      // Deliberate: the message's misspelling stays as it is.
      NError("set_quota_for_fsmvol_named(%@): Cound not find FS", shown);
      return kStatusQuotaNoSuchVolume;
    case FsmConnection::kListFailed:
      NError("set_quota_for_fsmvol_named(%@): Count not connect to FS", shown);
      return kStatusQuotaNoSuchVolume;
    case FsmConnection::kConnectFailed:
      NError("set_quota_for_fsmvol_named(%@): Count not connect to FSM because %s", shown,
             fsm.error.c_str());
      return kStatusQuotaNoConnection;
    case FsmConnection::kNone:
      break;
  }
  int status = 0;
  if (const PlistArray* list = quotas.asArray()) {
    // The first failure ends it; what was set before stays set.
    for (const PropertyList& dict : *list) {
      status = remove ? delete_fsmvol_quota(fsm.handle, dict) : set_fsmvol_quota(fsm.handle, dict);
      if (status != 0) break;
    }
  }
  QMAdmin_FSMDisconnect(fsm.handle);
  return status;
}

}  // namespace velm
