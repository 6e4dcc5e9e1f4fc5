// The commands getQuotas, setQuotas and deleteQuotas.
#include "core/velm_plugin.h"
#include "model/plugin_status.h"
#include "platform/log.h"
#include "volumes/command_support.h"
#include "volumes/quotas.h"
#include "volumes/volume_state.h"

namespace velm {
namespace {

PropertyList quotaResponse(std::optional<PropertyList> quotas, const std::string& name,
                           int status) {
  PropertyList response = PropertyList::dict();
  response.set("quotas", quotas ? std::move(*quotas) : PropertyList::array());
  response.set("name", name);
  response.set("status", status);
  return response;
}

// setQuotas and deleteQuotas: the records applied in order, then the quotas read back.
PropertyList changeQuotas(const PropertyList& request, bool remove) {
  const std::string* name = request.getString("name");
  const PropertyList* quotas = request.get("quotas");
  if (!name) {
    if (remove)
      NError("No name passed into deleteQuotas");
    else
      NError("No name passed into setQuotas");
    return PropertyList::dict();
  }
  if (!quotas || !quotas->isArray() || quotas->size() == 0) {
    if (remove)
      NError("No quota records passed into deleteQuotas");
    else
      NError("No quota records passed into setQuotas");
    return PropertyList::dict();
  }
  bool all = requestFlag(request, "withAllDiskUsage");
  // Deliberate: this connection is not closed by the command; the shared slot's count absorbs it.
  int handle = open_fs_connection();
  int status = handle < 0 ? kStatusNoLocalPortMapper
                          : set_quotas_for_fsmvol_named(handle, name, *quotas, remove);
  // Read back whatever happened, so the answer shows the outcome of a half-done array.
  std::optional<PropertyList> now =
      handle < 0 ? std::nullopt : get_quotas_for_fsmvol_named(handle, name, all);
  return quotaResponse(std::move(now), *name, status);
}

}  // namespace

std::optional<PropertyList> VelmPlugin::getQuotasWithRequest(const PropertyList& request) {
  const std::string* name = request.getString("name");
  if (!name) {
    NError("No name passed into getQuotas");
    return PropertyList::dict();
  }
  // Deliberate: this connection is not closed by the command; the shared slot's count absorbs it.
  int handle = open_fs_connection();
  std::optional<PropertyList> quotas;
  if (handle >= 0)
    quotas = get_quotas_for_fsmvol_named(handle, name, requestFlag(request, "withAllDiskUsage"));
  return quotaResponse(std::move(quotas), *name, handle < 0 ? kStatusNoLocalPortMapper : 0);
}

std::optional<PropertyList> VelmPlugin::setQuotasWithRequest(const PropertyList& request) {
  return changeQuotas(request, false);
}

std::optional<PropertyList> VelmPlugin::deleteQuotasWithRequest(const PropertyList& request) {
  return changeQuotas(request, true);
}

}  // namespace velm
