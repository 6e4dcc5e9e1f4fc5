// What the FSMs and port mappers report, as property-list dictionaries. Each function holds the
// QMAdmin lock from start to end.
#pragma once

#include <optional>
#include <string>

#include "plist/plist.h"

namespace velm {

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
