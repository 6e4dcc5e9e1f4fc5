#include "volumes/volume_inspection.h"

#include <cstring>
#include <ctime>

#include "adminlib/qmadminlib.h"
#include "adminlib/subr2.h"
#include "gateway/qmadmin.h"
#include "gateway/san_filesystem.h"
#include "platform/log.h"
#include "platform/string_additions.h"
#include "volumes/volume_state.h"

namespace velm {
namespace {

const char* text(const std::string* s) { return s ? s->c_str() : nullptr; }

// The C text of a fixed-size field, as far as its NUL.
std::string_view fieldText(const char* field, size_t size) {
  return std::string_view(field, ::strnlen(field, size));
}

unsigned long long bytes(std::uint64_t blocks, std::uint32_t blockSize) {
  return static_cast<unsigned long long>(blocks) * blockSize;
}

const char* multipathName(int method) {
  switch (method) {
    case QMADMIN_MP_ROTATE:
      return "Rotate";
    case QMADMIN_MP_STICKY:
      return "Sticky";
    case QMADMIN_MP_STATIC:
      return "Static";
    default:
      return "";
  }
}

}  // namespace

PropertyList get_fsmvol_clients(int fsmHandle) {
  QMAdminLock lock(__func__);
  PropertyList out = PropertyList::array();
  QMAdminClient* list = nullptr;
  int count = QMAdmin_GetClientList(fsmHandle, &list);
  for (int i = 0; i < count && list; ++i) {
    const QMAdminClient& c = list[i];
    if (c.type == 4 || c.type == 5) continue;
    if (c.type == 3 && !(c.flags & 0x1000)) continue;
    PropertyList d = PropertyList::dict();
    if (c.type == 2) {
      d.set("Type", "VOLUME");
    } else if (c.type == 3) {
      d.set("Type", "MOUNT");
      d.set("IPAddress", stringForIPv6Address(c.addr).value_or(""));
      d.set("Access", (c.flags & (1u << 22)) ? 1 : 2);
      d.set("Flags", static_cast<unsigned>(c.flags));
    }
    d.set("Uptime", static_cast<unsigned>(c.uptime));
    out.push(std::move(d));
  }
  if (list) QMAdmin_FreeClientList(list);
  return out;
}

FsmConnection connect_fsmvol_named(int nsHandle, const std::string* name, const char* caller) {
  QMAdminLock lock(__func__);
  FsmConnection c;
  c.index = index_of_fsmvol_named(nsHandle, name);
  if (c.index == kNotFoundIndex) {
    c.failure = FsmConnection::kNotFound;
    return c;
  }
  QMAdminFsmRecord record{};
  char err[ADMIN_ERRBUF_LEN] = {};
  c.status = QMAdmin_NSListFsm(nsHandle, c.index, &record, err);
  if (c.status != 0) {
    log_qmfs_error(c.status, caller);
    c.failure = FsmConnection::kListFailed;
    c.error = err;
    return c;
  }
  c.handle = QMAdmin_FSMConnect(nsHandle, &record, err);
  if (c.handle < 0) {
    c.failure = FsmConnection::kConnectFailed;
    c.error = err;
  }
  return c;
}

std::optional<PropertyList> get_clients_for_fsmvol_named(int nsHandle, const std::string* name) {
  QMAdminLock lock(__func__);
  FsmConnection fsm = connect_fsmvol_named(nsHandle, name, __func__);
  switch (fsm.failure) {
    case FsmConnection::kNotFound:
      NError("get_clients_for_fsmvol_named(%@): Could not find FS.  Perhaps it just started up?",
             text(name));
      return std::nullopt;
    case FsmConnection::kListFailed:
      if (fsm.status != QMFS_EOF)
        NError("%s(%@): QMAdmin_NSListFsm(%d) returned %d, error %s", __func__, text(name),
               fsm.index, fsm.status, fsm.error.c_str());
      return std::nullopt;
    case FsmConnection::kConnectFailed:
      NError("get_clients_for_fsmvol_named(%@): Could not connect: %s", text(name),
             fsm.error.c_str());
      return std::nullopt;
    case FsmConnection::kNone:
      break;
  }
  PropertyList clients = get_fsmvol_clients(fsm.handle);
  QMAdmin_FSMDisconnect(fsm.handle);
  return clients;
}

PropertyList get_fsmvol_statistics(int fsmHandle) {
  QMAdminLock lock(__func__);
  QMAdminFsStat st{};
  if (int status = QMAdmin_FSMStat(fsmHandle, &st); status != 0) {
    NError("%s: QMAdmin_FSMStat returned %d", __func__, status);
    log_qmfs_error(status, __func__);
  }
  PropertyList d = PropertyList::dict();
  d.set("GlobalSuperUserEnabled", st.globalSuperUser != 0);
  d.set("WindowsSecurityEnabled", st.windowsSecurity != 0);
  d.set("BandwidthManagementEnabled", st.bandwidthManagement != 0);
  d.set("QOSEnabled", st.qos != 0);
  d.set("QuotasEnabled", st.quotas != 0);
  d.set("NumConnectedClients", st.clients);
  d.set("NumStripeGroups", st.stripeGroups);
  d.set("NumDevices", st.devices);
  d.set("MessageBufferSize", static_cast<unsigned>(st.msgBufSize));
  d.set("TotalSize", bytes(st.totalBlocks, st.blockSize));
  d.set("RemainingSize", bytes(st.freeBlocks, st.blockSize));
  std::time_t created = static_cast<std::time_t>(st.createTime / 1000000);
  char when[64] = {};
  std::tm parts{};
  // ctime's form, newline included, without its shared buffer.
  if (::localtime_r(&created, &parts) &&
      std::strftime(when, sizeof when, "%a %b %e %H:%M:%S %Y\n", &parts))
    d.set("CreationTime", when);
  return d;
}

PropertyList get_fsmvol_stripe_groups(int fsmHandle) {
  QMAdminLock lock(__func__);
  QMAdminFsStat st{};
  if (int status = QMAdmin_FSMStat(fsmHandle, &st); status != 0) {
    NError("%s: QMAdmin_FSMStat returned %d", __func__, status);
    log_qmfs_error(status, __func__);
  }
  PropertyList out = PropertyList::array();
  // A count past what any volume holds is a reply to distrust, not a loop to run.
  int count = st.stripeGroups < 0 ? 0 : std::min(st.stripeGroups, 65536);
  for (int index = 0; index < count; ++index) {
    QMAdminStripeGroup sg{};
    if (int status = QMAdmin_StripeGroupStat(fsmHandle, index, &sg); status != 0) {
      NError("%s: QMAdmin_StripeGroupStat(%d) returned %d", __func__, index, status);
      log_qmfs_error(status, __func__);
    }
    PropertyList d = PropertyList::dict();
    std::string_view name = fieldText(sg.name, sizeof sg.name);
    if (isValidUtf8(name)) {
      d.set("Name", name);
    } else {
      NError("get_fsmvol_stripe_groups: Unable to get UTF8 string of %s", std::string(name));
    }
    d.set("MirrorIndex", sg.index);
    d.set("Enabled", sg.up != 0);
    d.set("Metadata", sg.metadata != 0);
    d.set("Journal", sg.journal != 0);
    d.set("Realtime", sg.realtime != 0);
    d.set("Exclusive", sg.exclusive != 0);
    d.set("MultiPathMethod", multipathName(sg.multipathMethod));
    d.set("NumDevices", sg.devices);
    d.set("StripeBreadth", static_cast<unsigned>(sg.breadth));
    d.set("AffinityValue", static_cast<unsigned>(sg.affinity));
    d.set("NativeKeyValue", static_cast<unsigned>(sg.nativeKey));
    d.set("TotalSize", bytes(sg.totalBlocks, st.blockSize));
    d.set("RemainingSize", bytes(sg.freeBlocks, st.blockSize));
    d.set("ReservedSize", bytes(sg.reservedBlocks, st.blockSize));
    out.push(std::move(d));
  }
  if (out.size() != static_cast<size_t>(st.stripeGroups))
    NError("get_fsmvol_stripe_groups: Stripe group count mismatch: %d != %d", st.stripeGroups,
           static_cast<int>(out.size()));
  return out;
}

std::optional<PropertyList> get_fsmvol_at_index(int nsHandle, int index) {
  QMAdminLock lock(__func__);
  QMAdminFsmRecord record{};
  char err[ADMIN_ERRBUF_LEN] = {};
  int status = QMAdmin_NSListFsm(nsHandle, index, &record, err);
  if (status != 0) {
    if (status != QMFS_EOF) {
      NError("%s(%d): QMAdmin_NSListFsm(%d) returned %d, error %s", __func__, index, index, status,
             err);
      log_qmfs_error(status, __func__);
    }
    return std::nullopt;
  }
  PropertyList stats = PropertyList::dict();
  std::string address = stringForIPv6Address(record.address.s6_addr).value_or("");
  stats.set("IPAddress", address);
  char host[QMADMIN_NAME_LEN] = {};
  QMAdmin_GetHostFromIp(&record.address, host, sizeof host);
  stats.set("Host", fieldText(host, sizeof host));
  std::string_view name = fieldText(record.name, sizeof record.name);
  if (isValidUtf8(name)) {
    stats.set("Name", name);
  } else {
    NError("get_fsmvol_at_index: Unable to get UTF8 string of %s", std::string(name));
  }
  stats.set("Priority", record.priority);
  stats.set("State", record.state);
  stats.set("Port", record.port);
  stats.set("ProcessID", record.pid);

  PropertyList volume = PropertyList::dict();
  int fsm = QMAdmin_FSMConnect(nsHandle, &record, err);
  if (fsm < 0) {
    // A standby FSM refuses: the volume is told by its list entry alone.
    NError("get_fsmvol_at_index: Could not connect to FSM because %s", err);
    volume.set("VolumeStats", std::move(stats));
    return volume;
  }
  PropertyList statistics = get_fsmvol_statistics(fsm);
  for (auto& [key, value] : *statistics.asDict()) stats.set(key, value);
  volume.set("VolumeStats", std::move(stats));
  volume.set("StripeGroups", get_fsmvol_stripe_groups(fsm));
  volume.set("Clients", get_fsmvol_clients(fsm));
  QMAdmin_FSMDisconnect(fsm);
  return volume;
}

namespace {

std::optional<PropertyList> fsmvolAt(const char* fn, int nsHandle, const std::string* name,
                                     int index) {
  if (index == kNotFoundIndex) {
    NLog("%s(%@): Could not find volume", fn, text(name));
    return std::nullopt;
  }
  return get_fsmvol_at_index(nsHandle, index);
}

}  // namespace

std::optional<PropertyList> get_fsmvol_named(int nsHandle, const std::string* name) {
  QMAdminLock lock(__func__);
  return fsmvolAt(__func__, nsHandle, name, index_of_fsmvol_named(nsHandle, name));
}

std::optional<PropertyList> get_local_fsmvol_named(int nsHandle, const std::string* name) {
  QMAdminLock lock(__func__);
  return fsmvolAt(__func__, nsHandle, name, index_of_local_fsmvol_named(nsHandle, name));
}

bool SANFilesystem::areWePrimaryController(const std::string& volume) {
  int handle = open_fs_connection();
  if (handle < 0) return false;
  std::optional<PropertyList> record = get_fsmvol_named(handle, &volume);
  bool primary = record && areWePrimaryControllerWithDict(*record);
  close_fs_connection(handle);
  return primary;
}

}  // namespace velm
