// The FSM side's configuration keys, per entry of 'fsms'.
#include <netinet/in.h>

#include <functional>

#include "plist/plist.h"
#include "sim/simpm_config.h"
#include "sim/simpm_fsm_state.h"

namespace velm::sim {
namespace {

class Reader {
 public:
  Reader(std::string fsm, std::string* error) : fsm_(std::move(fsm)), error_(error) {}

  bool fail(const std::string& what) {
    *error_ = "fsm '" + fsm_ + "': " + what;
    return false;
  }

  template <typename T>
  bool num(const PropertyList& dict, std::string_view key, T* out) {
    std::string why;
    return readConfigNumber(dict, key, out, &why) || fail(why);
  }

  bool boolean(const PropertyList& dict, std::string_view key, bool* out) {
    if (const PropertyList* v = dict.get(key)) *out = v->boolValue();
    return true;
  }

  bool text(const PropertyList& dict, std::string_view key, std::string* out) {
    const PropertyList* v = dict.get(key);
    if (!v) return true;
    if (!v->isString()) return fail(keyError(key, "is not a string"));
    *out = *v->asString();
    return true;
  }

  bool address(const PropertyList& dict, std::string_view key, std::string* out) {
    if (!text(dict, key, out)) return false;
    struct in6_addr a;
    if (!out->empty() && !parseAddress(*out, &a)) return fail("bad address '" + *out + "'");
    return true;
  }

  // An array of integers, at most max of them (0: any number).
  template <typename T>
  bool numbers(const PropertyList& dict, std::string_view key, std::vector<T>* out,
               std::size_t max = 0) {
    const PropertyList* v = dict.get(key);
    return !v || listNumbers(*v, key, out, max);
  }

  template <typename T>
  bool listNumbers(const PropertyList& v, std::string_view key, std::vector<T>* out,
                   std::size_t max) {
    if (!v.isArray()) return fail(keyError(key, "is not an array"));
    out->clear();
    for (const PropertyList& n : *v.asArray()) {
      auto x = n.int64Value();
      if (!x) return fail(keyError(key, "holds a value that is not a number"));
      out->push_back(static_cast<T>(*x));
    }
    if (max && out->size() > max) return fail(keyError(key, "is too long"));
    return true;
  }

  template <typename F>
  bool each(const PropertyList& dict, std::string_view key, F f) {
    const PropertyList* list = dict.get(key);
    if (!list) return true;
    if (!list->isArray()) return fail(keyError(key, "is not an array"));
    for (const PropertyList& entry : *list->asArray())
      if (!f(entry)) return false;
    return true;
  }

  bool dictEach(const PropertyList& dict, std::string_view key,
                const std::function<bool(const PropertyList&)>& f) {
    return each(dict, key, [&](const PropertyList& e) {
      if (!e.isDict()) return fail("an entry of '" + std::string(key) + "' is not a dictionary");
      return f(e);
    });
  }

  bool quotas(const PropertyList& dict, std::string_view key,
              std::map<std::string, SimQuota>* out) {
    return dictEach(dict, key, [&](const PropertyList& e) {
      std::string name;
      SimQuota q;
      return text(e, "name", &name) && num(e, "hardLimit", &q.hard) &&
             num(e, "softLimit", &q.soft) && num(e, "used", &q.used) &&
             num(e, "timeLimit", &q.timeLimit) && num(e, "timeRemaining", &q.remaining) &&
             num(e, "status", &q.status) && ((*out)[name] = q, true);
    });
  }

 private:
  std::string fsm_;
  std::string* error_;
};

bool loadOne(const PropertyList& entry, SimFsm* fsm, std::string* error) {
  SimFsmState& s = *fsm->fsmState;
  Reader r(fsm->name, error);
  std::vector<std::uint32_t> unknown;
  if (!r.numbers(entry, "unknownTypes", &unknown)) return false;
  s.unknownTypes.insert(unknown.begin(), unknown.end());

  if (const PropertyList* st = entry.get("statistics")) {
    if (!st->isDict()) return r.fail("'statistics' is not a dictionary");
    if (!r.num(*st, "flags", &s.flags) || !r.num(*st, "blockSize", &s.blockSize) ||
        !r.num(*st, "msgBufSize", &s.msgBufSize) || !r.num(*st, "totalBlocks", &s.totalBlocks) ||
        !r.num(*st, "freeBlocks", &s.freeBlocks) || !r.num(*st, "createTime", &s.createTimeUs))
      return false;
  }
  if (!r.dictEach(entry, "stripeGroups", [&](const PropertyList& e) {
        SimStripeGroup g;
        if (!r.text(e, "name", &g.name) || !r.num(e, "flags", &g.flags) ||
            !r.num(e, "totalBlocks", &g.totalBlocks) ||
            !r.num(e, "reservedBlocks", &g.reservedBlocks) ||
            !r.num(e, "freeBlocks", &g.freeBlocks) || !r.num(e, "affinity", &g.affinity) ||
            !r.num(e, "devices", &g.devices) || !r.num(e, "setting", &g.setting) ||
            !r.num(e, "multipath", &g.multipath) || !r.num(e, "breadth", &g.breadth) ||
            !r.num(e, "nativeKey", &g.nativeKey) || !r.numbers(e, "nativeKeys", &g.nativeKeys, 500))
          return false;
        if (g.nativeKeys.size() % 2) return r.fail("'nativeKeys' is not a list of pairs");
        s.stripeGroups.push_back(g);
        return true;
      }))
    return false;
  if (!r.dictEach(entry, "devices", [&](const PropertyList& e) {
        SimFsmDevice d;
        std::vector<std::uint64_t> values;
        std::vector<std::uint32_t> words;
        if (!r.numbers(e, "values", &values, 2) || !r.numbers(e, "words", &words, 4)) return false;
        for (std::size_t i = 0; i < values.size(); ++i) d.values[i] = values[i];
        for (std::size_t i = 0; i < words.size(); ++i) d.words[i] = words[i];
        std::size_t t = 0;
        if (!r.each(e, "texts", [&](const PropertyList& x) {
              if (!x.isString() || t >= 3) return r.fail("'texts' takes up to three strings");
              d.texts[t++] = *x.asString();
              return true;
            }))
          return false;
        s.devices.push_back(d);
        return true;
      }))
    return false;
  if (!r.dictEach(entry, "clients", [&](const PropertyList& e) {
        SimFsmClient c;
        std::uint32_t index = static_cast<std::uint32_t>(s.clients.size());
        if (!r.num(e, "index", &index) || !r.num(e, "flags", &c.flags) ||
            !r.num(e, "type", &c.type) || !r.num(e, "uptime", &c.uptime) ||
            !r.address(e, "address", &c.address) || !r.text(e, "text", &c.text))
          return false;
        if (index > 100000) return r.fail("client index too large");
        s.clients[index] = c;
        return true;
      }))
    return false;
  if (!r.quotas(entry, "userQuotas", &s.userQuotas) ||
      !r.quotas(entry, "groupQuotas", &s.groupQuotas) ||
      !r.boolean(entry, "quotasEnabled", &s.quotasOn) || !r.num(entry, "debug", &s.debug) ||
      !r.boolean(entry, "debugReadOnly", &s.debugReadOnly) || !r.num(entry, "brls", &s.brls) ||
      !r.text(entry, "openFileReport", &s.openFileReport) || !r.text(entry, "report", &s.report) ||
      !r.num(entry, "proxyListChanges", &s.proxyListChanges))
    return false;
  std::vector<std::uint32_t> meter;
  if (!r.numbers(entry, "lockMeter", &meter, 2)) return false;
  for (std::size_t i = 0; i < meter.size(); ++i) s.lockMeter[i] = meter[i];
  if (!r.each(entry, "qos", [&](const PropertyList& e) {
        std::vector<std::uint32_t> w;
        if (!r.listNumbers(e, "qos", &w, 10)) return false;
        w.resize(10);
        s.qos.push_back(w);
        return true;
      }))
    return false;
  if (!r.each(entry, "qosClients", [&](const PropertyList& e) {
        std::vector<std::uint32_t> w;
        if (!r.listNumbers(e, "qosClients", &w, 5)) return false;
        w.resize(5);
        s.qosClients.push_back(w);
        return true;
      }))
    return false;
  return r.dictEach(entry, "proxyServers", [&](const PropertyList& e) {
    SimProxyServer p;
    std::vector<std::uint32_t> words;
    if (!r.address(e, "address1", &p.address1) || !r.address(e, "address2", &p.address2) ||
        !r.numbers(e, "words", &words, 9))
      return false;
    for (std::size_t i = 0; i < words.size(); ++i) p.words[i] = words[i];
    s.proxyServers.push_back(p);
    return true;
  });
}

}  // namespace

bool loadSimFsmKeys(const PropertyList& top, SimPmConfig* config, std::string* error) {
  const PropertyList* fsms = top.get("fsms");
  if (!fsms || !fsms->isArray()) return true;
  std::size_t i = 0;
  for (const PropertyList& entry : *fsms->asArray()) {
    if (i >= config->fsms.size()) break;
    if (entry.isDict() && !loadOne(entry, &config->fsms[i], error)) return false;
    ++i;
  }
  return true;
}

}  // namespace velm::sim
