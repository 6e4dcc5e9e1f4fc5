// The port-mapper side's configuration keys.
#include <netinet/in.h>

#include "platform/files.h"
#include "plist/plist.h"
#include "sim/simpm_config.h"

namespace velm::sim {
namespace {

void text(const PropertyList& dict, std::string_view key, std::string* out) {
  if (const std::string* s = dict.getString(key)) *out = *s;
}

bool address(const PropertyList& dict, std::string_view key, std::string* out, std::string* error) {
  text(dict, key, out);
  struct in6_addr a;
  if (!out->empty() && !parseAddress(*out, &a)) {
    *error = "bad address '" + *out + "' in '" + std::string(key) + "'";
    return false;
  }
  return true;
}

// Calls each(entry) for every dictionary of the array at key.
template <typename F>
bool eachEntry(const PropertyList& top, std::string_view key, std::string* error, F each) {
  const PropertyList* list = top.get(key);
  if (!list) return true;
  if (!list->isArray()) {
    *error = keyError(key, "is not an array");
    return false;
  }
  for (const PropertyList& entry : *list->asArray()) {
    if (!entry.isDict()) {
      *error = "an entry of '" + std::string(key) + "' is not a dictionary";
      return false;
    }
    if (!each(entry)) return false;
  }
  return true;
}

}  // namespace

bool loadSimPmPortMapperKeys(const PropertyList& top, SimPmConfig* config, std::string* error) {
  std::size_t i = 0;
  bool ok = eachEntry(top, "fsms", error, [&](const PropertyList& e) {
    if (i >= config->fsms.size()) return true;
    SimFsm& fsm = config->fsms[i++];
    if (!readConfigNumber(e, "serviceType", &fsm.serviceType, error)) return false;
    if (const PropertyList* r = e.get("running")) fsm.running = r->boolValue();
    if (!fsm.running) fsm.active = false;
    return true;
  });
  ok = ok && eachEntry(top, "disks", error, [&](const PropertyList& e) {
         SimDisk d;
         text(e, "label", &d.label);
         text(e, "serial", &d.serial);
         text(e, "device", &d.device);
         text(e, "inquiry", &d.inquiry);
         if (!readConfigNumber(e, "size", &d.size, error) ||
             !readConfigNumber(e, "sectorSize", &d.sectorSize, error) ||
             !readConfigNumber(e, "lunId", &d.lunId, error) ||
             !readConfigNumber(e, "pathState", &d.pathState, error))
           return false;
         config->disks.push_back(d);
         return true;
       });
  ok = ok && eachEntry(top, "clients", error, [&](const PropertyList& e) {
         SimClient c;
         text(e, "name", &c.name);
         if (!address(e, "address", &c.address, error)) return false;
         config->clients.push_back(c);
         return true;
       });
  ok = ok && eachEntry(top, "proxies", error, [&](const PropertyList& e) {
         SimProxy p;
         text(e, "name", &p.name);
         if (!address(e, "address1", &p.address1, error) ||
             !address(e, "address2", &p.address2, error) ||
             !readConfigNumber(e, "port", &p.port, error) ||
             !readConfigNumber(e, "counter1", &p.counter1, error) ||
             !readConfigNumber(e, "counter2", &p.counter2, error))
           return false;
         config->proxies.push_back(p);
         return true;
       });
  ok = ok && eachEntry(top, "cctls", error, [&](const PropertyList& e) {
         SimCctl c;
         text(e, "name", &c.name);
         if (!readConfigNumber(e, "value", &c.value, error)) return false;
         config->cctls.push_back(c);
         return true;
       });
  if (!ok) return false;
  if (!readConfigNumber(top, "diskGeneration", &config->diskGeneration, error) ||
      !readConfigNumber(top, "cctlGeneration", &config->cctlGeneration, error))
    return false;
  if (const PropertyList* v = top.get("proxyListChangesOnce"))
    config->proxyListChangesOnce = v->boolValue();
  if (const PropertyList* peers = top.get("peers")) {
    if (!peers->isArray()) {
      *error = "'peers' is not an array";
      return false;
    }
    for (const PropertyList& p : *peers->asArray()) {
      const std::string* s = p.asString();
      if (!s) {
        *error = "'peers' holds a value that is not a string";
        return false;
      }
      config->peers.push_back(*s);
    }
  }
  return true;
}

bool lunTableDisks(const std::string& path, std::vector<SimDisk>* disks, std::string* error) {
  std::optional<std::string> content = readFile(path);
  if (!content) return true;  // no table: no disks from it
  PlistReadOptions options;
  options.requireDictionary = true;
  PlistReadResult table = readXmlPlist(*content, options);
  if (!table) {
    *error = path + ": " + table.error;
    return false;
  }
  for (const auto& [device, record] : *table.value->asDict()) {
    const std::string* label = record.isDict() ? record.getString("Label") : nullptr;
    const std::string* type = label ? record.getString("LabelType") : nullptr;
    // Only the file system's own labels make a disk of the SAN.
    if (!label || (type && type->rfind("QMFS-", 0) != 0)) continue;
    SimDisk d;
    d.label = *label;
    d.device = device;
    text(record, "serialNumber", &d.serial);
    text(record, "inquiryString", &d.inquiry);
    std::string why;
    readConfigNumber(record, "size", &d.size, &why);
    readConfigNumber(record, "sectorSize", &d.sectorSize, &why);
    readConfigNumber(record, "lunID", &d.lunId, &why);
    disks->push_back(std::move(d));
  }
  return true;
}

}  // namespace velm::sim
