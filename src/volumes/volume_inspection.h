// What the FSMs and port mappers report, as property-list dictionaries. Each function holds the
// QMAdmin lock from start to end.
#pragma once

#include <optional>
#include <string>

#include "plist/plist.h"

namespace velm {

// A connection to the FSM of a named volume, or why there is none.
struct FsmConnection {
  enum Failure { kNone, kNotFound, kListFailed, kConnectFailed };
  Failure failure = kNone;
  int handle = -1;
  int index = 0;      // the volume's place in the port mapper's list
  int status = 0;     // of a failed list
  std::string error;  // the admin library's text of a failed list or connect
};
// index_of_fsmvol_named, its list entry (a failure goes to log_qmfs_error for caller) and the
// connection; the caller disconnects. Takes the QMAdmin lock.
FsmConnection connect_fsmvol_named(int nsHandle, const std::string* name, const char* caller);

// Client dictionaries of an FSM handle; empty also on failure.
PropertyList get_fsmvol_clients(int fsmHandle);
// The volume's clients through its FSM; nothing when it can't be found or reached.
std::optional<PropertyList> get_clients_for_fsmvol_named(int nsHandle, const std::string* name);
// Statistics keys of an FSM handle (zeros when the FSM doesn't answer).
PropertyList get_fsmvol_statistics(int fsmHandle);
PropertyList get_fsmvol_stripe_groups(int fsmHandle);
// {VolumeStats, StripeGroups, Clients} of the list entry at index; only VolumeStats when its
// FSM can't be reached; nothing when the entry can't be read.
std::optional<PropertyList> get_fsmvol_at_index(int nsHandle, int index);
std::optional<PropertyList> get_fsmvol_named(int nsHandle, const std::string* name);
std::optional<PropertyList> get_local_fsmvol_named(int nsHandle, const std::string* name);

}  // namespace velm
